#include "staticroute/static_config.h"

#include <stdio.h>
#include <string.h>

#include <charconv>
#include <string_view>

#include "core/config_file.h"
#include "core/global.h"
#include "core/log.h"
#include "core/timer.h"
#include "platform/cmnutil.h"
#include "staticroute/kept_text.h"

using namespace std::string_view_literals;

namespace {

constexpr char kPath[] = "/tmp/vyr_static.conf";
constexpr char kWriter[] = "write_static_config";
constexpr std::string_view kMissingName = "NULL";

constexpr size_t kAddressSize = 16;
constexpr size_t kNextHopSize = 199;
constexpr uint32_t kDefaultDistance = 50;

/** What the file says about a route, apart from its next hops. */
struct RouteText {
    std::string_view dest; /**< this and the next three lie in `own` */
    std::string_view length;
    std::string_view metric;
    std::string_view preference; /**< empty: the file says nothing about it */
    char own[4][kAddressSize];
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

bool is_data_vpnc(const char *name) {
    unsigned mac[6];
    char rest[2];
    // the prefix is sscanf's to check as well, which is slow for the many names that have another
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

std::string_view cluster_text(const StaticRouteEntry *entry, int slot) {
    const char *name = entry->cluster_name[slot];
    if (name && is_quotable(name))
        return name;
    char dest[kAddressSize];
    log_error("<VYRWRAP> %s: Cluster name not set for route %s/%u", kWriter, ip_to_str(entry->dest, dest, sizeof dest),
              static_cast<unsigned>(mask_to_prefixlen(entry->mask)));
    return kMissingName;
}

std::string_view ipsec_text(const StaticRouteEntry *entry, int slot) {
    const char *name = entry->map_name[slot];
    if (name && is_quotable(name))
        return name;
    char dest[kAddressSize];
    log_error("<VYRWRAP> %s: IPSEC name not set for route %s/%u", kWriter, ip_to_str(entry->dest, dest, sizeof dest),
              static_cast<unsigned>(mask_to_prefixlen(entry->mask)));
    return kMissingName;
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

void describe_next_hop(const StaticRouteEntry *entry, int slot, NextHopText *hop) {
    hop->flags = entry->flags[slot];
    hop->quoted = (hop->flags & (NEXT_HOP_CLUSTER | NEXT_HOP_IPSEC)) != 0;
    if (hop->flags & NEXT_HOP_CLUSTER)
        hop->text = cluster_text(entry, slot);
    else if (hop->flags & NEXT_HOP_IPSEC)
        hop->text = ipsec_text(entry, slot);
    else
        hop->text = address_text(entry, slot, hop->own);
}

void select_next_hops(const StaticRouteEntry *entry, uint8_t filter_mode, NextHopTexts *out) {
    const bool is_default = mask_to_prefixlen(entry->mask) == 0 || entry->dest == 0;
    out->count = 0;
    for (int slot = 0; slot < kMaxNextHops; slot++)
        if (is_selected(entry, slot, is_default, filter_mode))
            describe_next_hop(entry, slot, &out->hops[out->count++]);
    if (out->count > 0)
        return;
    // a route that has just lost its last next hop: the routing daemon withdraws it
    out->hops[0].text = "0.0.0.0"sv;
    out->hops[0].quoted = false;
    out->hops[0].flags = 0;
    out->count = 1;
}

std::string_view number_text(unsigned number, char (&own)[kAddressSize]) {
    const auto end = std::to_chars(own, own + sizeof own, number);
    return {own, static_cast<size_t>(end.ptr - own)};
}

void describe_route(const StaticRouteEntry *entry, RouteText *route) {
    route->dest = ip_to_str(entry->dest, route->own[0], sizeof route->own[0]);
    route->length = number_text(static_cast<unsigned>(mask_to_prefixlen(entry->mask)), route->own[1]);
    route->metric = number_text(entry->metric ? entry->metric : 1, route->own[2]);
    if (entry->distance != kDefaultDistance)
        route->preference = number_text(256U - entry->distance, route->own[3]);
}

bool is_drop(const NextHopTexts &next_hops) {
    const NextHopText &first = next_hops.hops[0];
    return (first.flags & NEXT_HOP_DROP) && (next_hops.count > 1 || !first.quoted);
}

void put_next_hop(ConfigFile *file, const NextHopText &hop) {
    if (hop.quoted)
        config_file_put_all(file, "via \""sv, hop.text, "\" "sv);
    else
        config_file_put_all(file, "via "sv, hop.text, " "sv);
}

/** The block behind the last next hop; its lines stand further in where there are several next hops. */
void put_attributes(ConfigFile *file, const RouteText &route, std::string_view indent) {
    config_file_put_all(file, "{\n"sv, indent, "krt_metric = "sv, route.metric, ";\n"sv);
    if (!route.preference.empty())
        config_file_put_all(file, indent, "preference = "sv, route.preference, ";\n"sv);
    config_file_put(file, "  };\n"sv);
}

void put_route(ConfigFile *file, const RouteText &route, const NextHopTexts &next_hops) {
    if (is_drop(next_hops)) {
        config_file_put_all(file, "  route "sv, route.dest, "/"sv, route.length, " drop;\n"sv);
        return;
    }
    config_file_put_all(file, "  route "sv, route.dest, "/"sv, route.length, " metric "sv, route.metric, " "sv);
    for (size_t i = 0; i < next_hops.count; i++) {
        if (i > 0)
            config_file_put(file, "\n      "sv);
        put_next_hop(file, next_hops.hops[i]);
    }
    put_attributes(file, route, next_hops.count > 1 ? "        "sv : "    "sv);
}

void render_entry(ConfigFile *file, StaticRouteEntry *entry, uint8_t filter_mode) {
    mark_data_vpnc(entry);
    NextHopTexts next_hops;
    select_next_hops(entry, filter_mode, &next_hops);
    RouteText route;
    describe_route(entry, &route);
    put_route(file, route, next_hops);
}

void put_entry(ConfigFile *file, StaticRouteEntry *entry, uint8_t filter_mode, size_t index) {
    if (!route_text_can_be_kept(entry, filter_mode)) {
        render_entry(file, entry, filter_mode);
        return;
    }
    if (const std::string_view kept = kept_route_text(index, entry); !kept.empty()) {
        config_file_put_all(file, kept);
        return;
    }
    const size_t begin = config_file_length(file);
    render_entry(file, entry, filter_mode);
    keep_route_text(index, entry, config_file_text_from(file, begin));
}

void put_table(ConfigFile *file, const StaticRouteTable *table) {
    config_file_put(file, "protocol static {\n  ipv4;\n"sv);
    for (size_t i = 0; i < kMaxStaticRoutes; i++)
        if (table->entries[i].in_use)
            put_entry(file, &table->entries[i], table->filter_mode, i);
    config_file_put(file, "}\n"sv);
}

bool replace_file(const StaticRouteTable *table) {
    ConfigFile *file = config_file_open(kPath);
    if (!file)
        return false;
    put_table(file, table);
    return config_file_close(file) == 0;
}

}  // namespace

int write_static_config(const StaticRouteTable *table) {
    const bool written = replace_file(table);
    vyrwrap_note_file_written(kStaticRoutesFile, written);
    if (!written)
        return -1;
    vyrwrap_mark_config_dirty(kWriter);
    if (vyrwrap_global.default_route_changed) {
        log_info("<VYRWRAP> : %s : Default Route in Static config", kWriter);
        vyrwrap_mytimer();
        vyrwrap_global.default_route_changed = 0;
    }
    return 0;
}
