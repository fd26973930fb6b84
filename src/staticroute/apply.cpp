#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <span>

#include "core/global.h"
#include "core/log.h"
#include "platform/cmnutil.h"
#include "staticroute/next_hop.h"
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
        static_cast<unsigned>(route->vlan), route->metric, route->flags, is_ipsec_route(route) ? name : "NULL",
        is_cluster_route(route) ? name : "NULL", route->is_delete ? "DELETE" : "ADD");
}

void count_down() {
    if (vyrwrap_global.static_route_count > 0)
        vyrwrap_global.static_route_count--;
}

/* ---- delete ---- */

/** The metric is not compared: a deleted key no longer tells one. */
Place find_next_hop(const StaticRouteCfg *route) {
    for (StaticRouteEntry &entry : all_entries()) {
        const int slot = static_route_same_network(route, &entry) ? next_hop_find(route, &entry) : -1;
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
    next_hop_clear(place.entry, place.slot);
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
    static_route_free_if_empty(place.entry);
    if (written)
        count_down();
    return written ? 1 : 0;
}

/* ---- add or update ---- */

Place find_place_in(const StaticRouteCfg *route, StaticRouteEntry *entry) {
    Place place = {entry, route->flags & NEXT_HOP_DROP ? 0 : -1, false};
    for (int slot = 0; slot < kMaxNextHops; slot++) {
        if (next_hop_is_same(route, entry, slot))
            return {entry, slot, true};
        if (!entry->used[slot] && place.slot < 0)
            place.slot = slot;
    }
    return place;
}

Place find_place(const StaticRouteCfg *route) {
    StaticRouteEntry *first_free = nullptr;
    for (StaticRouteEntry &entry : all_entries()) {
        if (static_route_same_network(route, &entry) && entry.metric == route->metric)
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
        if (next_hop_is_same(route, old.entry, slot))
            next_hop_clear(old.entry, slot);
    static_route_free_if_empty(old.entry);
}

int report_no_memory(const StaticRouteCfg *route, StaticRouteErrorReport *report) {
    const char *dest = vyrwrap_global.cur_dest_str;
    const char *next_hop = vyrwrap_global.cur_nexthop_str;
    const int length = mask_to_prefixlen(route->mask);
    if (is_cluster_route(route))
        log_error("<VYRWRAP>: %s: Memory allocation failed for cluster route while adding %s/%d via %s\n", kApply, dest,
                  length, next_hop);
    else
        log_error("<VYRWRAP>: %s: Memory allocation failed while adding %s/%d via %s\n", kApply, dest, length,
                  next_hop);
    fill_report(report, "Memory allocation failed while adding.%s/%d via %s\n", dest, length, next_hop);
    return 0;
}

int add_next_hop(const StaticRouteCfg *route, StaticRouteErrorReport *report) {
    const Place place = find_place(route);
    if (place.entry && place.slot < 0)
        return refuse_next_hop(route, place.entry, report);
    if (!place.existing)
        take_from_other_metric(route);
    if (!place.entry)
        return refuse_route(route, report);

    if (!next_hop_fill(place.entry, place.slot, route))
        return report_no_memory(route, report);
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
