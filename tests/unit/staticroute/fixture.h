/*
 * A static route table with its file, and short ways to fill both.
 */
#pragma once

#include <string>
#include <vector>

#include "fakes/fakes.h"
#include "staticroute/route_key.h"
#include "staticroute/table.h"

inline constexpr char kStaticFile[] = "/tmp/vyr_static.conf";

/** An empty table, no file, no memory kept behind the test. */
class StaticRouteTest : public fake::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    StaticRouteEntry &entry(int i) { return vyrwrap_global.static_routes.entries[i]; }

    /** Applies a record and keeps what it reported. */
    int apply(const StaticRouteCfg &route);
    int add(const StaticRouteCfg &route) { return apply(route); }
    int remove(StaticRouteCfg route);

    static constexpr int kVyrPid = 4242; /**< of the routing daemon that a default route starts; it never runs */

    StaticRouteErrorReport report{};
    int forks = 0;
    std::vector<int> signals; /**< sent to it */
};

/** Frees the names and the table. */
void free_static_routes();

std::string static_file();

/** "/op/staticroute/{DEST:MASK:TYPE:NEXTHOP}" */
std::string route_key(const std::string &dest, const std::string &mask, int type, const std::string &next_hop);

/** Records as keys make them. */
StaticRouteCfg gateway_route(const char *dest, const char *mask, const char *gateway, uint32_t metric);
StaticRouteCfg ipsec_route(const char *dest, const char *mask, const std::string &map_name, uint32_t metric);
StaticRouteCfg cluster_route(const char *dest, const char *mask, const std::string &cluster_name, uint32_t metric);
StaticRouteCfg interface_route(uint32_t kind, const char *dest, const char *mask, const char *gateway, int vlan,
                               uint32_t metric);

/** 10.0.N.0/24, N from 0 to 65535 over two octets. */
StaticRouteCfg numbered_route(int n, const char *gateway, uint32_t metric);
