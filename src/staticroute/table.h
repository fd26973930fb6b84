/*
 * The static route table: 272 routes of up to 5 next hops each (equal-cost multi-path).
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "staticroute/route_key.h"

inline constexpr int kMaxStaticRoutes = 272;
inline constexpr int kMaxNextHops = 5;

/** Bits of StaticRouteEntry::flags, one set for each slot. */
enum NextHopFlag : uint32_t {
    NEXT_HOP_DEFAULT_ROUTE = 1,
    NEXT_HOP_IPSEC = 2,
    NEXT_HOP_DROP = 4,
    NEXT_HOP_CLUSTER = 8,
};

/** Values of StaticRouteEntry::kind. */
enum NextHopKind : uint32_t {
    NEXT_HOP_KIND_OTHER = 2,
    NEXT_HOP_KIND_PPPOE = 5,
    NEXT_HOP_KIND_TUNNEL_INTERFACE = 6,
};

inline constexpr int kMapNameSize = 201;    /**< bytes of an owned map name, with its terminator */
inline constexpr int kClusterNameSize = 42; /**< bytes of an owned cluster name, with its terminator */

/** One route. Entries are keyed by destination, mask and metric; the arrays are indexed by next-hop slot. */
struct StaticRouteEntry {
    uint32_t dest;
    uint32_t mask;
    uint32_t in_use; /**< 1 while the entry holds a route */
    uint32_t metric;
    uint32_t distance; /**< "preference" is 256 minus this; 50 means none is written */
    uint32_t gateway[kMaxNextHops];
    uint32_t flags[kMaxNextHops];     /**< NextHopFlag */
    uint32_t kind[kMaxNextHops];      /**< NextHopKind */
    int32_t vlan[kMaxNextHops];       /**< VLAN of a PPPoE or tunnel-interface next hop */
    uint8_t used[kMaxNextHops];       /**< 1 while the slot holds a next hop */
    char *map_name[kMaxNextHops];     /**< owned, kMapNameSize bytes; NULL unless an IPsec next hop */
    char *cluster_name[kMaxNextHops]; /**< owned, kClusterNameSize bytes; NULL unless a cluster next hop */
    uint8_t data_vpnc[kMaxNextHops];  /**< set by the writer: the map name has the data-VPNC form */
};

/** The first members, without gaps, are all that a route without names is rendered from. */
inline constexpr size_t kStaticRoutePlainSize = offsetof(StaticRouteEntry, used) + sizeof StaticRouteEntry::used;
static_assert(kStaticRoutePlainSize == (5 + 4 * kMaxNextHops) * sizeof(uint32_t) + kMaxNextHops);

struct StaticRouteTable {
    StaticRouteEntry *entries; /**< kMaxStaticRoutes of them */
    uint8_t filter_mode;       /**< next hops left out of the file; always 0 */
};

/** What went wrong with a route, for the caller. */
struct StaticRouteErrorReport {
    char text[3072];
    uint16_t error_present; /**< 1 when text says why the route was refused */
};

/** Makes vyrwrap_global.static_routes, all entries free. Ends the process with status 12 when memory is short. */
void vyrwrap_alloc_static_route_table();

/**
 * Adds, updates or removes one next hop and writes the routing daemon's static file when the table changed.
 * Returns 1 on success (also when there was nothing to do), 0 on failure with `report` filled.
 */
int vyrwrapStaticRouteApply(const StaticRouteCfg *route, StaticRouteErrorReport *report);

/** Prefix length of a netmask: the number of its set bits. */
int mask_to_prefixlen(uint32_t mask);
