/* Static route keys and their values: read, applied through notifications and through the scan, written to the file. */
#include <string.h>

#include "core/global.h"
#include "core/log.h"
#include "core/notification.h"
#include "platform/cmnutil.h"
#include "staticroute/route_key.h"
#include "staticroute/subscription.h"
#include "staticroute/table.h"
#include "tests/fuzz/oracle.h"
#include "tests/fuzz/platform.h"

using namespace fuzz;

namespace {

constexpr char kFolder[] = "/op/staticroute/";
constexpr int kStepMax = 4;

/** Bits of a step's first byte. */
enum Step { STEP_DELETE = 1, STEP_WHOLE_KEY = 2, STEP_SCAN = 4, STEP_FILL = 8 };

/** A key as its format says it, read without the daemon's code. */
struct Expected {
    bool accepted;
    uint32_t dest;
    uint32_t mask;
    int type;
    std::string_view next_hop;
};

/** Takes the text up to a separator, and the separator. */
bool take_until(std::string_view *rest, char separator, std::string_view *taken) {
    const size_t at = rest->find(separator);
    if (at == rest->npos)
        return false;
    *taken = rest->substr(0, at);
    rest->remove_prefix(at + 1);
    return true;
}

bool read_address(std::string_view text, uint32_t *ip) {
    return text.size() <= 16 && read_ipv4(text, ip);
}

bool read_pppoe(std::string_view text, uint32_t *gateway) {
    const size_t dash = text.find('-', text.find_first_of("0123456789"));
    if (dash == text.npos)
        return false;
    std::string_view address = text.substr(dash + 1);
    const size_t begin = address.find_first_not_of(" \t\n\v\f\r");
    if (begin == address.npos)
        return false;
    address.remove_prefix(begin);
    address = address.substr(0, address.find_first_of(" \t\n\v\f\r"));
    return read_address(address, gateway);
}

Expected read_expected(std::string_view key) {
    Expected expected = {};
    const size_t brace = key.find('{');
    const size_t colon = key.find(':');
    if (key.empty() || key[0] != '/' || brace == key.npos || colon == key.npos || colon < brace ||
        !read_address(key.substr(brace + 1, colon - brace - 1), &expected.dest))
        return expected;
    std::string_view rest = key.substr(colon + 1);
    std::string_view mask;
    std::string_view type;
    if (!take_until(&rest, ':', &mask) || !read_address(mask, &expected.mask) || !take_until(&rest, ':', &type) ||
        !take_until(&rest, '}', &expected.next_hop))
        return expected;
    expected.type = read_int(type);
    expected.accepted = true;
    return expected;
}

void check_names(const StaticRouteCfg &route, const Expected &expected) {
    const std::string_view next_hop = expected.next_hop;
    HOLDS(route.kind == (expected.type == 2   ? ROUTE_KIND_IPSEC
                         : expected.type == 3 ? ROUTE_KIND_CLUSTER
                         : expected.type == 4 ? ROUTE_KIND_PPPOE
                                              : ROUTE_KIND_GATEWAY));
    HOLDS(expected.type != 1 || route.gateway == (next_hop.size() < 200 ? ipv4_or_0(next_hop) : 0));
    HOLDS(memchr(route.map_name, '\0', sizeof route.map_name) || expected.type == 2);
    if (expected.type == 2)
        HOLDS(std::string_view(route.map_name) == next_hop.substr(0, 199));
    if (expected.type == 3)
        HOLDS(memcmp(route.cluster_name, "cluster_", 8) == 0 &&
              std::string_view(route.cluster_name + 8) == next_hop.substr(0, 32));
}

bool check_reading(const char *key, const char *value, int deleted, StaticRouteCfg *route) {
    const Expected expected = read_expected(key);
    const bool accepted = vyrwrap_extract_static_route_cfg_from_path(route, key, value, deleted) == 1;
    HOLDS(expected.accepted || !accepted);
    if (!accepted) {
        uint32_t gateway;
        HOLDS(!expected.accepted ||
              (expected.type == 4 &&
               (expected.next_hop.size() >= 200 || !read_pppoe(expected.next_hop, &gateway) || route->gateway == 0)));
        return false;
    }
    HOLDS(route->dest == expected.dest && route->mask == expected.mask);
    HOLDS(static_cast<int>(route->metric) == read_int(value) && route->is_delete == deleted);
    check_names(*route, expected);
    return true;
}

/** Whether some entry of that network, at that metric where one is given, holds the route's next hop. */
bool table_holds(const StaticRouteCfg &route, const uint32_t *metric) {
    for (int i = 0; i < kMaxStaticRoutes; i++) {
        const StaticRouteEntry &entry = vyrwrap_global.static_routes.entries[i];
        if (!entry.in_use || entry.mask != route.mask || ((entry.dest ^ route.dest) & route.mask) ||
            (metric && entry.metric != *metric))
            continue;
        for (int slot = 0; slot < kMaxNextHops; slot++) {
            if (!entry.used[slot])
                continue;
            const char *cluster = entry.cluster_name[slot];
            const char *map = entry.map_name[slot];
            if (route.kind == ROUTE_KIND_CLUSTER ? cluster && strcmp(cluster, route.cluster_name) == 0
                : route.kind == ROUTE_KIND_IPSEC ? map && strcmp(map, route.map_name) == 0
                                                 : !cluster && !map && entry.gateway[slot] == route.gateway)
                return true;
        }
    }
    return false;
}

bool is_valid_network(uint32_t dest) {
    return dest == 0 || (dest >> 24 != 0 && dest >> 24 != 127);
}

bool is_refused_for_room() {
    return last_error.find("Maximum ") != last_error.npos || last_error.find("No free slot") != last_error.npos;
}

void check_applied(const StaticRouteCfg &route) {
    if (!is_valid_network(route.dest))
        HOLDS(last_error.find("Invalid network") != last_error.npos);
    else if (route.is_delete)
        // the address 0 of what is no address is that of the named next hops too, of which the first is taken
        HOLDS((route.kind == ROUTE_KIND_GATEWAY && route.gateway == 0) || !table_holds(route, nullptr));
    else if (!is_refused_for_room())
        HOLDS(table_holds(route, &route.metric));
}

void step_notified(const char *key, const char *value, bool deleted) {
    StaticRouteCfg route;
    const bool accepted = check_reading(key, value, deleted ? 1 : 0, &route);
    // what the callback sees: at most 127 characters of a key and four of a metric
    const bool fits = strlen(key) < 128;
    if (accepted && fits)
        HOLDS(vyrwrap_extract_static_route_cfg_from_path(&route, key, keep_text(std::string_view(value).substr(0, 4)),
                                                         deleted ? 1 : 0) == 1);
    if (!deleted)
        store_set(key, value);
    else {
        store_delete(key);
        route.metric = 0;
    }
    const char *channel = keep_text("__keyspace@0__:", key);
    last_error = {};
    notify(vyrwrap_static_route_subscribe_callback, channel, deleted ? "del" : "set");
    if (!accepted || !fits)
        HOLDS(!last_error.empty());
    else
        check_applied(route);
}

/** Fills a part of the table, all of it at the highest count, as routes with plain next hops would. */
void step_fill(uint8_t count) {
    const int entries = count == UINT8_MAX ? kMaxStaticRoutes : count % 8;
    for (int i = 0; i < entries; i++) {
        StaticRouteEntry *entry = &vyrwrap_global.static_routes.entries[i];
        for (int slot = 0; !entry->in_use && slot <= count % kMaxNextHops; slot++) {
            entry->used[slot] = 1;
            entry->gateway[slot] = 0x0a000001U + static_cast<uint32_t>(slot);
            entry->kind[slot] = NEXT_HOP_KIND_OTHER;
        }
        if (entry->in_use)
            continue;
        entry->in_use = 1;
        entry->dest = 0x0a010000U + (static_cast<uint32_t>(i) << 16);
        entry->mask = 0xffff0000U;
        entry->metric = 5;
    }
}

void step_scan(const char *key, std::string_view value) {
    store_set(key, value);
    vyrwrap_dal_scan_static_routes("/op/staticroute/*");
}

void step(Input *input) {
    const uint8_t bits = take_byte(input);
    const char *text = take_text(input);
    const char *key = bits & STEP_WHOLE_KEY ? text : keep_text(kFolder, text);
    const char *value = take_text(input);
    if (bits & STEP_FILL)
        step_fill(static_cast<uint8_t>(text[0]));
    else if (bits & STEP_SCAN)
        step_scan(key, value);
    else
        step_notified(key, value, bits & STEP_DELETE);
    if (careful)
        HOLDS(allocations() == check_static_table());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input = begin_over_store(data, size);
    if (!careful)
        set_log_level(LOG_LEVEL_ERROR);
    use_static_table();
    on_renamed = check_renamed;
    for (int i = 0; i < kStepMax && input.left > 0; i++)
        step(&input);
    HOLDS(files_open() == 0 && !file("/tmp/vyr_static.conf.new").data());
    end(check_static_table());
    return 0;
}
