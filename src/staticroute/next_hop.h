/*
 * A route's next hop in its slot of a table entry.
 */
#pragma once

#include "staticroute/table.h"

inline bool is_default_route(uint32_t dest, uint32_t mask) {
    return dest == 0 && mask == 0;
}

inline bool is_ipsec_route(const StaticRouteCfg *route) {
    return route->kind == ROUTE_KIND_IPSEC;
}

inline bool is_cluster_route(const StaticRouteCfg *route) {
    return route->kind == ROUTE_KIND_CLUSTER;
}

/** Whether the entry holds a route to that network; host bits and the metric do not matter. */
bool static_route_same_network(const StaticRouteCfg *route, const StaticRouteEntry *entry);

/** Whether the slot holds the route's very next hop: the same name, or the same address when the route names none. */
bool next_hop_is_same(const StaticRouteCfg *route, const StaticRouteEntry *entry, int slot);

/** The first slot with the route's next hop, -1 when there is none. */
int next_hop_find(const StaticRouteCfg *route, const StaticRouteEntry *entry);

/**
 * Puts the route's next hop into the slot, in place of what stands there, and the route into the entry. Returns false
 * when memory is short; the slot is then in use without its name.
 */
[[nodiscard]] bool next_hop_fill(StaticRouteEntry *entry, int slot, const StaticRouteCfg *route);

/** Empties the slot and frees its name. */
void next_hop_clear(StaticRouteEntry *entry, int slot);

/** Frees the entry when no slot is in use. */
void static_route_free_if_empty(StaticRouteEntry *entry);
