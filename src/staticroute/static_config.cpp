#include "staticroute/static_config.h"

#include <stdio.h>
#include <string.h>

#include <span>
#include <string_view>

#include "core/config_file.h"
#include "core/global.h"
#include "core/log.h"
#include "core/timer.h"
#include "platform/cmnutil.h"

namespace {

constexpr char kPath[] = "/tmp/vyr_static.conf";
constexpr char kWriter[] = "write_static_config";

constexpr size_t kAddressSize = 16;
constexpr size_t kNextHopSize = 199;
constexpr uint32_t kDefaultDistance = 50;

/** What the file says about a route, apart from its next hops. */
struct RouteText {
    char dest[kAddressSize];
    unsigned length; /**< of the prefix */
    unsigned metric;
    uint32_t distance;
};

/** A next hop as the file shows it. */
struct NextHopText {
    std::string_view text; /**< in `own`, in the entry, or constant */
    bool quoted;
    uint32_t flags;
    char own[kNextHopSize];
};

/** The next hops of one route that go into the file, in slot order. */
struct NextHopTexts {
    NextHopText hops[kMaxNextHops];
    size_t count;
};

void put_all(ConfigFile *) {}

template <typename... Rest>
void put_all(ConfigFile *file, unsigned number, Rest... rest);

/** Appends texts and numbers, one behind the other. */
template <typename... Rest>
void put_all(ConfigFile *file, std::string_view text, Rest... rest) {
    config_file_put(file, text);
    put_all(file, rest...);
}

template <typename... Rest>
void put_all(ConfigFile *file, unsigned number, Rest... rest) {
    config_file_put_number(file, number);
    put_all(file, rest...);
}

bool is_data_vpnc(const char *name) {
    unsigned mac[6];
    char rest[2];
    return strncmp(name, "data-vpnc-", strlen("data-vpnc-")) == 0 &&
           sscanf(name, "data-vpnc-%02X:%02X:%02X:%02X:%02X:%02X-%1s", &mac[0], &mac[1], &mac[2], &mac[3], &mac[4],
                  &mac[5], rest) == 7;
}

void mark_data_vpnc(StaticRouteEntry *entry) {
    for (int slot = 0; slot < kMaxNextHops; slot++)
        if (entry->map_name[slot])
            entry->data_vpnc[slot] = is_data_vpnc(entry->map_name[slot]) ? 1 : 0;
}

bool is_selected(const StaticRouteEntry *entry, int slot, bool is_default, uint8_t filter_mode) {
    if (!entry->used[slot])
        return false;
    if (is_default || filter_mode == 0)
        return true;
    return filter_mode == 1 && !entry->data_vpnc[slot];
}

/** Whether a name may stand between quotes; one that ends them could bring any statement into the file. */
bool is_quotable(const char *name) {
    for (; *name; name++) {
        const auto c = static_cast<unsigned char>(*name);
        if (c == '"' || c < ' ' || c == 0x7f)
            return false;
    }
    return true;
}

std::string_view cluster_text(const char *name, const RouteText &route) {
    if (name && is_quotable(name))
        return name;
    log_error("<VYRWRAP> %s: Cluster name not set for route %s/%u", kWriter, route.dest, route.length);
    return "NULL";
}

std::string_view ipsec_text(const char *name, const RouteText &route) {
    if (name && is_quotable(name))
        return name;
    log_error("<VYRWRAP> %s: IPSEC name not set for route %s/%u", kWriter, route.dest, route.length);
    return "NULL";
}

std::string_view address_text(const StaticRouteEntry *entry, int slot, char (&text)[kNextHopSize]) {
    const auto vlan = static_cast<unsigned>(entry->vlan[slot]);
    char gateway[kAddressSize];
    switch (entry->kind[slot]) {
        case NEXT_HOP_KIND_TUNNEL_INTERFACE:
            snprintf(text, sizeof text, "\"__tnlintf__vlan%u_%s\"", vlan,
                     ip_to_str(entry->gateway[slot], gateway, sizeof gateway));
            return text;
        case NEXT_HOP_KIND_PPPOE:
            snprintf(text, sizeof text, "\"__pppoe__vlan%u_%s\"", vlan,
                     ip_to_str(entry->gateway[slot], gateway, sizeof gateway));
            return text;
        default:
            return ip_to_str(entry->gateway[slot], text, sizeof text);
    }
}

void describe_next_hop(const StaticRouteEntry *entry, int slot, const RouteText &route, NextHopText *hop) {
    hop->flags = entry->flags[slot];
    hop->quoted = (hop->flags & (NEXT_HOP_CLUSTER | NEXT_HOP_IPSEC)) != 0;
    if (hop->flags & NEXT_HOP_CLUSTER)
        hop->text = cluster_text(entry->cluster_name[slot], route);
    else if (hop->flags & NEXT_HOP_IPSEC)
        hop->text = ipsec_text(entry->map_name[slot], route);
    else
        hop->text = address_text(entry, slot, hop->own);
}

void select_next_hops(const StaticRouteEntry *entry, const RouteText &route, uint8_t filter_mode, NextHopTexts *out) {
    const bool is_default = route.length == 0 || entry->dest == 0;
    out->count = 0;
    for (int slot = 0; slot < kMaxNextHops; slot++)
        if (is_selected(entry, slot, is_default, filter_mode))
            describe_next_hop(entry, slot, route, &out->hops[out->count++]);
    if (out->count > 0)
        return;
    // a route that has just lost its last next hop: the routing daemon withdraws it
    out->hops[0].text = "0.0.0.0";
    out->hops[0].quoted = false;
    out->hops[0].flags = 0;
    out->count = 1;
}

bool is_drop(const NextHopTexts &next_hops) {
    const NextHopText &first = next_hops.hops[0];
    return (first.flags & NEXT_HOP_DROP) && (next_hops.count > 1 || !first.quoted);
}

void put_next_hop(ConfigFile *file, const NextHopText &hop) {
    if (hop.quoted)
        put_all(file, "via \"", hop.text, "\" ");
    else
        put_all(file, "via ", hop.text, " ");
}

/** The block behind the last next hop; its lines stand further in where there are several next hops. */
void put_attributes(ConfigFile *file, const RouteText &route, std::string_view indent) {
    put_all(file, "{\n", indent, "krt_metric = ", route.metric, ";\n");
    if (route.distance != kDefaultDistance)
        put_all(file, indent, "preference = ", 256U - route.distance, ";\n");
    put_all(file, "  };\n");
}

void put_route(ConfigFile *file, const RouteText &route, const NextHopTexts &next_hops) {
    if (is_drop(next_hops)) {
        put_all(file, "  route ", route.dest, "/", route.length, " drop;\n");
        return;
    }
    put_all(file, "  route ", route.dest, "/", route.length, " metric ", route.metric, " ");
    put_next_hop(file, next_hops.hops[0]);
    for (size_t i = 1; i < next_hops.count; i++) {
        put_all(file, "\n      ");
        put_next_hop(file, next_hops.hops[i]);
    }
    put_attributes(file, route, next_hops.count > 1 ? "        " : "    ");
}

void put_table(ConfigFile *file, const StaticRouteTable *table) {
    put_all(file, "protocol static {\n  ipv4;\n");
    for (StaticRouteEntry &entry : std::span(table->entries, kMaxStaticRoutes)) {
        if (!entry.in_use)
            continue;
        RouteText route;
        ip_to_str(entry.dest, route.dest, sizeof route.dest);
        route.length = static_cast<unsigned>(mask_to_prefixlen(entry.mask));
        route.metric = entry.metric ? entry.metric : 1;
        route.distance = entry.distance;
        mark_data_vpnc(&entry);
        NextHopTexts next_hops;
        select_next_hops(&entry, route, table->filter_mode, &next_hops);
        put_route(file, route, next_hops);
    }
    put_all(file, "}\n");
}

}  // namespace

int write_static_config(const StaticRouteTable *table) {
    ConfigFile *file = config_file_open(kPath);
    if (!file)
        return -1;
    put_table(file, table);
    if (config_file_close(file) < 0)
        return -1;
    vyrwrap_mark_config_dirty(kWriter);
    if (vyrwrap_global.default_route_changed) {
        log_info("<VYRWRAP> : %s : Default Route in Static config", kWriter);
        vyrwrap_mytimer();
        vyrwrap_global.default_route_changed = 0;
    }
    return 0;
}
