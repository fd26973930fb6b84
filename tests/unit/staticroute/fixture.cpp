#include "staticroute/fixture.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/cmnutil.h"

namespace {

StaticRouteCfg route_to(const char *dest, const char *mask, uint32_t metric) {
    StaticRouteCfg route = {};
    route.dest = str_to_ip(dest);
    route.mask = str_to_ip(mask);
    route.metric = metric;
    return route;
}

}  // namespace

void StaticRouteTest::SetUp() {
    fake::Test::SetUp();
    rmdir(kStaticFile);
    unlink(kStaticFile);
    fake::on_fork = [this](long *result) {
        forks++;
        *result = kVyrPid;
        return true;
    };
    fake::on_kill = [this](int pid, int signal_number, int *) {
        EXPECT_EQ(pid, kVyrPid);
        signals.push_back(signal_number);
        return true;
    };
    vyrwrap_alloc_static_route_table();
}

void StaticRouteTest::TearDown() {
    free_static_routes();
    fake::Test::TearDown();
}

int StaticRouteTest::apply(const StaticRouteCfg &route) {
    report = {};
    return vyrwrapStaticRouteApply(&route, &report);
}

int StaticRouteTest::remove(StaticRouteCfg route) {
    route.is_delete = 1;
    return apply(route);
}

void free_static_routes() {
    StaticRouteEntry *entries = vyrwrap_global.static_routes.entries;
    for (int i = 0; entries && i < kMaxStaticRoutes; i++) {
        for (char *name : entries[i].map_name)
            free(name);
        for (char *name : entries[i].cluster_name)
            free(name);
    }
    free(entries);
    vyrwrap_global.static_routes = {};
}

std::string static_file() {
    return fake::read_file(kStaticFile);
}

std::string route_key(const std::string &dest, const std::string &mask, int type, const std::string &next_hop) {
    return "/op/staticroute/{" + dest + ":" + mask + ":" + std::to_string(type) + ":" + next_hop + "}";
}

StaticRouteCfg gateway_route(const char *dest, const char *mask, const char *gateway, uint32_t metric) {
    StaticRouteCfg route = route_to(dest, mask, metric);
    route.gateway = str_to_ip(gateway);
    return route;
}

StaticRouteCfg ipsec_route(const char *dest, const char *mask, const std::string &map_name, uint32_t metric) {
    StaticRouteCfg route = route_to(dest, mask, metric);
    route.kind = ROUTE_KIND_IPSEC;
    snprintf(route.map_name, sizeof route.map_name, "%s", map_name.c_str());
    return route;
}

StaticRouteCfg cluster_route(const char *dest, const char *mask, const std::string &cluster_name, uint32_t metric) {
    StaticRouteCfg route = route_to(dest, mask, metric);
    route.kind = ROUTE_KIND_CLUSTER;
    snprintf(route.cluster_name, sizeof route.cluster_name, "%s", cluster_name.c_str());
    return route;
}

StaticRouteCfg interface_route(uint32_t kind, const char *dest, const char *mask, const char *gateway, int vlan,
                               uint32_t metric) {
    StaticRouteCfg route = gateway_route(dest, mask, gateway, metric);
    route.kind = kind;
    route.vlan = vlan;
    return route;
}

StaticRouteCfg numbered_route(int n, const char *gateway, uint32_t metric) {
    StaticRouteCfg route = gateway_route("10.0.0.0", "255.255.255.0", gateway, metric);
    route.dest += static_cast<uint32_t>(n) << 8;
    return route;
}
