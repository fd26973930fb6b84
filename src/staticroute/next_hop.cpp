#include "staticroute/next_hop.h"

#include <stdlib.h>
#include <string.h>

namespace {

void free_names(StaticRouteEntry *entry, int slot) {
    free(entry->cluster_name[slot]);
    entry->cluster_name[slot] = nullptr;
    free(entry->map_name[slot]);
    entry->map_name[slot] = nullptr;
    entry->data_vpnc[slot] = 0;
}

/** A zero-filled buffer of `size` bytes with the name, which is shorter. NULL when memory is short. */
char *copy_name(const char *name, size_t longest, size_t size) {
    auto *copy = static_cast<char *>(calloc(1, size));
    if (copy)
        memcpy(copy, name, strnlen(name, longest));
    return copy;
}

/** Returns false when memory is short. */
bool put_address_or_name(StaticRouteEntry *entry, int slot, const StaticRouteCfg *route) {
    free_names(entry, slot);
    if (is_cluster_route(route)) {
        entry->gateway[slot] = 0;
        entry->cluster_name[slot] = copy_name(route->cluster_name, sizeof route->cluster_name, kClusterNameSize);
        return entry->cluster_name[slot] != nullptr;
    }
    if (is_ipsec_route(route)) {
        entry->gateway[slot] = 0;
        entry->map_name[slot] = copy_name(route->map_name, sizeof route->map_name, kMapNameSize);
        return entry->map_name[slot] != nullptr;
    }
    entry->gateway[slot] = route->gateway;
    entry->vlan[slot] = route->vlan;
    return true;
}

uint32_t next_hop_flags(const StaticRouteCfg *route) {
    const uint32_t named = is_cluster_route(route) ? NEXT_HOP_CLUSTER : is_ipsec_route(route) ? NEXT_HOP_IPSEC : 0U;
    if (is_default_route(route->dest, route->mask))
        return NEXT_HOP_DEFAULT_ROUTE | named;
    return named ? named : route->flags;
}

uint32_t next_hop_kind(const StaticRouteCfg *route) {
    if (route->kind == ROUTE_KIND_TUNNEL_INTERFACE)
        return NEXT_HOP_KIND_TUNNEL_INTERFACE;
    return route->kind == ROUTE_KIND_PPPOE ? NEXT_HOP_KIND_PPPOE : NEXT_HOP_KIND_OTHER;
}

}  // namespace

bool static_route_same_network(const StaticRouteCfg *route, const StaticRouteEntry *entry) {
    return entry->in_use && entry->mask == route->mask && ((entry->dest ^ route->dest) & route->mask) == 0;
}

bool next_hop_is_same(const StaticRouteCfg *route, const StaticRouteEntry *entry, int slot) {
    if (!entry->used[slot])
        return false;
    if (is_cluster_route(route))
        return entry->cluster_name[slot] &&
               strncmp(entry->cluster_name[slot], route->cluster_name, sizeof route->cluster_name) == 0;
    if (is_ipsec_route(route))
        return entry->map_name[slot] && strncmp(entry->map_name[slot], route->map_name, sizeof route->map_name) == 0;
    return entry->gateway[slot] == route->gateway;
}

int next_hop_find(const StaticRouteCfg *route, const StaticRouteEntry *entry) {
    for (int slot = 0; slot < kMaxNextHops; slot++)
        if (next_hop_is_same(route, entry, slot))
            return slot;
    return -1;
}

bool next_hop_fill(StaticRouteEntry *entry, int slot, const StaticRouteCfg *route) {
    entry->in_use = 1;
    entry->used[slot] = 1;
    entry->dest = route->dest;
    entry->mask = route->mask;
    if (!put_address_or_name(entry, slot, route))
        return false;
    entry->flags[slot] = next_hop_flags(route);
    entry->metric = route->metric;
    entry->distance = route->distance;
    entry->kind[slot] = next_hop_kind(route);
    return true;
}

void next_hop_clear(StaticRouteEntry *entry, int slot) {
    entry->used[slot] = 0;
    entry->gateway[slot] = 0;
    free_names(entry, slot);
    entry->flags[slot] = 0;
    entry->kind[slot] = 0;
}

void static_route_free_if_empty(StaticRouteEntry *entry) {
    for (const uint8_t used : entry->used)
        if (used)
            return;
    entry->in_use = 0;
    entry->dest = 0;
    entry->mask = 0;
}
