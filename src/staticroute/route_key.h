/*
 * Static route keys: the whole route is spelled in the key, its metric is the value.
 */
#pragma once

#include <stdint.h>

/** Values of StaticRouteCfg::kind. */
enum StaticRouteKind : uint32_t {
    ROUTE_KIND_GATEWAY = 0,
    ROUTE_KIND_IPSEC = 2,
    ROUTE_KIND_PPPOE = 5,
    ROUTE_KIND_TUNNEL_INTERFACE = 6, /**< honoured, but no key spells it */
    ROUTE_KIND_CLUSTER = 7,
};

/** One next hop of a static route, as a key tells it. Addresses are str_to_ip's. */
struct StaticRouteCfg {
    uint32_t dest;
    uint32_t mask;
    uint32_t gateway; /**< next-hop address, 0 when the next hop has a name */
    uint32_t metric;
    uint32_t flags; /**< NextHopFlag bits; keys set none */
    uint32_t kind;  /**< StaticRouteKind */
    int32_t vlan;   /**< VLAN number of a PPPoE next hop */
    char map_name[200];
    char cluster_name[41]; /**< with its "cluster_" prefix */
    uint8_t is_delete;     /**< 1: remove this next hop, 0: add or update it */
    uint32_t distance;     /**< keys set none */
};

/**
 * Reads a key "/op/staticroute/{DEST:MASK:TYPE:NEXTHOP}" and its value. `value` may be empty or NULL (metric 0).
 * Returns 1 when the record is complete, 0 when the key was refused; the record must not be applied then.
 */
int vyrwrap_extract_static_route_cfg_from_path(StaticRouteCfg *route, const char *key, const char *value,
                                               int is_delete);
