#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <span>

#include "core/global.h"
#include "core/log.h"
#include "platform/cmnutil.h"
#include "staticroute/static_config.h"
#include "staticroute/table.h"

namespace {

constexpr char kApply[] = "vyrwrapStaticRouteApply";

/** Where a next hop stands, or is to stand. */
struct Place {
    StaticRouteEntry *entry; /**< NULL: nowhere */
    int slot;                /**< -1: every slot holds another next hop */
    bool existing;           /**< the slot holds this very next hop */
};

std::span<StaticRouteEntry> all_entries() {
    return {vyrwrap_global.static_routes.entries, kMaxStaticRoutes};
}

bool is_default_route(uint32_t dest, uint32_t mask) {
    return dest == 0 && mask == 0;
}

bool is_ipsec(const StaticRouteCfg *route) {
    return route->kind == ROUTE_KIND_IPSEC;
}

bool is_cluster(const StaticRouteCfg *route) {
    return route->kind == ROUTE_KIND_CLUSTER;
}

__attribute__((format(printf, 2, 3))) void fill_report(StaticRouteErrorReport *report, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(report->text, sizeof report->text, format, args);
    va_end(args);
    report->error_present = 1;
}

/** Leaves a plain gateway's message with the next hop of the route before. */
void set_current_next_hop(const StaticRouteCfg *route) {
    char *text = vyrwrap_global.cur_nexthop_str;
    constexpr size_t kSize = sizeof vyrwrap_global.cur_nexthop_str;
    switch (route->kind) {
        case ROUTE_KIND_IPSEC:
            snprintf(text, kSize, "%.*s", static_cast<int>(sizeof route->map_name), route->map_name);
            break;
        case ROUTE_KIND_PPPOE:
        case ROUTE_KIND_TUNNEL_INTERFACE:
            ip_to_str(route->gateway, text, kSize);
            break;
        case ROUTE_KIND_CLUSTER:
            snprintf(text, kSize, "%.*s", static_cast<int>(sizeof route->cluster_name), route->cluster_name);
            break;
        default:
            break;
    }
}

/** Notes what the messages about this route name. */
void begin_route(const StaticRouteCfg *route) {
    char *dest = vyrwrap_global.cur_dest_str;
    ip_to_str(route->dest, dest, sizeof vyrwrap_global.cur_dest_str);
    if (is_default_route(route->dest, route->mask))
        vyrwrap_global.default_route_changed = 1;
    set_current_next_hop(route);
    char gateway[16];
    const char *name = vyrwrap_global.cur_nexthop_str;
    log_debug(
        "<VYRWRAP>: %s: type %u dest %s/%d nh_ip %s vlan %u metric %u flags 0x%x (mapname %s or clustername %s) "
        ">> %s",
        kApply, route->kind, dest, mask_to_prefixlen(route->mask), ip_to_str(route->gateway, gateway, sizeof gateway),
        static_cast<unsigned>(route->vlan), route->metric, route->flags, is_ipsec(route) ? name : "NULL",
        is_cluster(route) ? name : "NULL", route->is_delete ? "DELETE" : "ADD");
}

bool same_network(const StaticRouteCfg *route, const StaticRouteEntry *entry) {
    return entry->in_use && entry->mask == route->mask && ((entry->dest ^ route->dest) & route->mask) == 0;
}

bool same_next_hop(const StaticRouteCfg *route, const StaticRouteEntry *entry, int slot) {
    if (!entry->used[slot])
        return false;
    if (is_cluster(route))
        return entry->cluster_name[slot] &&
               strncmp(entry->cluster_name[slot], route->cluster_name, sizeof route->cluster_name) == 0;
    if (is_ipsec(route))
        return entry->map_name[slot] && strncmp(entry->map_name[slot], route->map_name, sizeof route->map_name) == 0;
    return entry->gateway[slot] == route->gateway;
}

/** The first slot of an entry with this next hop, -1 when there is none. */
int find_slot(const StaticRouteCfg *route, const StaticRouteEntry *entry) {
    for (int slot = 0; slot < kMaxNextHops; slot++)
        if (same_next_hop(route, entry, slot))
            return slot;
    return -1;
}

void free_names(StaticRouteEntry *entry, int slot) {
    free(entry->cluster_name[slot]);
    entry->cluster_name[slot] = nullptr;
    free(entry->map_name[slot]);
    entry->map_name[slot] = nullptr;
    entry->data_vpnc[slot] = 0;
}

void clear_slot(StaticRouteEntry *entry, int slot) {
    entry->used[slot] = 0;
    entry->gateway[slot] = 0;
    free_names(entry, slot);
    entry->flags[slot] = 0;
    entry->kind[slot] = 0;
}

void free_entry_without_next_hop(StaticRouteEntry *entry) {
    for (const uint8_t used : entry->used)
        if (used)
            return;
    entry->in_use = 0;
    entry->dest = 0;
    entry->mask = 0;
}

void count_down() {
    if (vyrwrap_global.static_route_count > 0)
        vyrwrap_global.static_route_count--;
}

/* ---- delete ---- */

/** The metric is not compared: a deleted key no longer tells one. */
Place find_next_hop(const StaticRouteCfg *route) {
    for (StaticRouteEntry &entry : all_entries()) {
        const int slot = same_network(route, &entry) ? find_slot(route, &entry) : -1;
        if (slot >= 0)
            return {&entry, slot, true};
    }
    return {};
}

int delete_next_hop(const StaticRouteCfg *route, StaticRouteErrorReport *report) {
    const Place place = find_next_hop(route);
    if (!place.entry) {
        count_down();
        return 1;
    }
    clear_slot(place.entry, place.slot);
    const bool written = write_static_config(&vyrwrap_global.static_routes) == 0;
    if (!written) {
        const char *reason = strerror(errno);
        const int length = mask_to_prefixlen(route->mask);
        log_error("<VYRWRAP>: %s: Write into vyr configuration file failed - %s:%s/%d via %s", kApply, reason,
                  vyrwrap_global.cur_dest_str, length, vyrwrap_global.cur_nexthop_str);
        fill_report(report, "Write into vyr configuration file failed - %s:%s/%d via %s", reason,
                    vyrwrap_global.cur_dest_str, length, vyrwrap_global.cur_nexthop_str);
    }
    // writing may have applied other routes, so that only now it is known whether the entry is empty
    free_entry_without_next_hop(place.entry);
    if (written)
        count_down();
    return written ? 1 : 0;
}

/* ---- add or update ---- */

Place find_place_in(const StaticRouteCfg *route, StaticRouteEntry *entry) {
    Place place = {entry, route->flags & NEXT_HOP_DROP ? 0 : -1, false};
    for (int slot = 0; slot < kMaxNextHops; slot++) {
        if (same_next_hop(route, entry, slot))
            return {entry, slot, true};
        if (!entry->used[slot] && place.slot < 0)
            place.slot = slot;
    }
    return place;
}

Place find_place(const StaticRouteCfg *route) {
    StaticRouteEntry *first_free = nullptr;
    for (StaticRouteEntry &entry : all_entries()) {
        if (same_network(route, &entry) && entry.metric == route->metric)
            return find_place_in(route, &entry);
        if (!entry.in_use && !first_free)
            first_free = &entry;
    }
    return {first_free, 0, false};
}

int refuse_next_hop(const StaticRouteCfg *route, const StaticRouteEntry *entry, StaticRouteErrorReport *report) {
    const char *dest = vyrwrap_global.cur_dest_str;
    const char *next_hop = vyrwrap_global.cur_nexthop_str;
    const int length = mask_to_prefixlen(route->mask);
    if (is_default_route(entry->dest, entry->mask)) {
        log_error("<VYRWRAP>: %s: Maximum allowed default routes are %d. Route add failed for %s/%d via %s\n", kApply,
                  kMaxNextHops, dest, length, next_hop);
        fill_report(report, "Error: Maximum allowed default routes are %d. Route add failed for %s/%d via %s\n",
                    kMaxNextHops, dest, length, next_hop);
    } else {
        log_error("<VYRWRAP>: %s: Maximum Multi-path/ECMP routes allowed are %d. Route add failed for %s/%d via %s\n",
                  kApply, kMaxNextHops, dest, length, next_hop);
        fill_report(report, "Error: Maximum Multi-path/ECMP routes allowed are %d. Route add failed for %s/%d via %s\n",
                    kMaxNextHops, dest, length, next_hop);
    }
    return 0;
}

int refuse_route(const StaticRouteCfg *route, StaticRouteErrorReport *report) {
    const int length = mask_to_prefixlen(route->mask);
    log_error("<VYRWRAP>: %s: No free slot to add route entry. Maximum routes %d. Route add failed for %s/%d via %s",
              kApply, kMaxStaticRoutes, vyrwrap_global.cur_dest_str, length, vyrwrap_global.cur_nexthop_str);
    fill_report(report, "Error: No free slot to add route entry. Masimum routes %d. Route add failed for %s/%d via %s",
                kMaxStaticRoutes, vyrwrap_global.cur_dest_str, length, vyrwrap_global.cur_nexthop_str);
    return 0;
}

/** A next hop stands at one metric of a network only: takes it from the first entry that holds it. */
void take_from_other_metric(const StaticRouteCfg *route) {
    const Place old = find_next_hop(route);
    if (!old.entry)
        return;
    for (int slot = old.slot; slot < kMaxNextHops; slot++)
        if (same_next_hop(route, old.entry, slot))
            clear_slot(old.entry, slot);
    free_entry_without_next_hop(old.entry);
}

/** A zero-filled buffer of `size` bytes with the name, which is shorter. NULL when memory is short. */
char *copy_name(const char *name, size_t longest, size_t size) {
    auto *copy = static_cast<char *>(calloc(1, size));
    if (copy)
        memcpy(copy, name, strnlen(name, longest));
    return copy;
}

/** Puts the next hop into its slot, in place of what stands there. Returns false when memory is short. */
bool fill_next_hop(const StaticRouteCfg *route, const Place &place) {
    StaticRouteEntry *entry = place.entry;
    const int slot = place.slot;
    free_names(entry, slot);
    if (is_cluster(route)) {
        entry->gateway[slot] = 0;
        entry->cluster_name[slot] = copy_name(route->cluster_name, sizeof route->cluster_name, kClusterNameSize);
        return entry->cluster_name[slot] != nullptr;
    }
    if (is_ipsec(route)) {
        entry->gateway[slot] = 0;
        entry->map_name[slot] = copy_name(route->map_name, sizeof route->map_name, kMapNameSize);
        return entry->map_name[slot] != nullptr;
    }
    entry->gateway[slot] = route->gateway;
    entry->vlan[slot] = route->vlan;
    return true;
}

int report_no_memory(const StaticRouteCfg *route, StaticRouteErrorReport *report) {
    const char *dest = vyrwrap_global.cur_dest_str;
    const char *next_hop = vyrwrap_global.cur_nexthop_str;
    const int length = mask_to_prefixlen(route->mask);
    if (is_cluster(route))
        log_error("<VYRWRAP>: %s: Memory allocation failed for cluster route while adding %s/%d via %s\n", kApply, dest,
                  length, next_hop);
    else
        log_error("<VYRWRAP>: %s: Memory allocation failed while adding %s/%d via %s\n", kApply, dest, length,
                  next_hop);
    fill_report(report, "Memory allocation failed while adding.%s/%d via %s\n", dest, length, next_hop);
    return 0;
}

uint32_t next_hop_flags(const StaticRouteCfg *route) {
    const uint32_t named = is_cluster(route) ? NEXT_HOP_CLUSTER : is_ipsec(route) ? NEXT_HOP_IPSEC : 0U;
    if (is_default_route(route->dest, route->mask))
        return NEXT_HOP_DEFAULT_ROUTE | named;
    return named ? named : route->flags;
}

uint32_t next_hop_kind(const StaticRouteCfg *route) {
    if (route->kind == ROUTE_KIND_TUNNEL_INTERFACE)
        return NEXT_HOP_KIND_TUNNEL_INTERFACE;
    return route->kind == ROUTE_KIND_PPPOE ? NEXT_HOP_KIND_PPPOE : NEXT_HOP_KIND_OTHER;
}

int add_next_hop(const StaticRouteCfg *route, StaticRouteErrorReport *report) {
    const Place place = find_place(route);
    if (place.entry && place.slot < 0)
        return refuse_next_hop(route, place.entry, report);
    if (!place.existing)
        take_from_other_metric(route);
    if (!place.entry)
        return refuse_route(route, report);

    StaticRouteEntry *entry = place.entry;
    entry->in_use = 1;
    entry->used[place.slot] = 1;
    entry->dest = route->dest;
    entry->mask = route->mask;
    if (!fill_next_hop(route, place))
        return report_no_memory(route, report);
    entry->flags[place.slot] = next_hop_flags(route);
    entry->metric = route->metric;
    entry->distance = route->distance;
    entry->kind[place.slot] = next_hop_kind(route);

    if (write_static_config(&vyrwrap_global.static_routes) < 0) {
        const char *reason = strerror(errno);
        const int length = mask_to_prefixlen(route->mask);
        log_error("<VYRWRAP>: %s: Write into vyr configuration file failed - %s.Route add failed for %s/%d via %s",
                  kApply, reason, vyrwrap_global.cur_dest_str, length, vyrwrap_global.cur_nexthop_str);
        fill_report(report, "Write into vyr configuration file failed - %s.Route add failed for %s/%d via %s", reason,
                    vyrwrap_global.cur_dest_str, length, vyrwrap_global.cur_nexthop_str);
        return 0;
    }
    if (!place.existing)
        vyrwrap_global.static_route_count++;
    return 1;
}

}  // namespace

int vyrwrapStaticRouteApply(const StaticRouteCfg *route, StaticRouteErrorReport *report) {
    begin_route(route);
    const uint32_t first_octet = route->dest >> 24;
    if (route->dest != 0 && (first_octet == 0 || first_octet == 127)) {
        log_error("<VYRWRAP>: %s: Invalid network %s", kApply, vyrwrap_global.cur_dest_str);
        fill_report(report, "Invalid network %s", vyrwrap_global.cur_dest_str);
        return 0;
    }
    return route->is_delete ? delete_next_hop(route, report) : add_next_hop(route, report);
}
