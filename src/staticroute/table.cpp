#include "staticroute/table.h"

#include <stdlib.h>

#include <bit>

#include "core/global.h"
#include "core/log.h"

void vyrwrap_alloc_static_route_table() {
    constexpr int kExitStatusNoMemory = 12;
    StaticRouteTable &table = vyrwrap_global.static_routes;
    table = {};
    table.entries = static_cast<StaticRouteEntry *>(calloc(kMaxStaticRoutes, sizeof(StaticRouteEntry)));
    if (!table.entries) {
        log_error("Memory allocation of static route table failed, exiting\n");
        exit(kExitStatusNoMemory);
    }
}

int mask_to_prefixlen(uint32_t mask) {
    return std::popcount(mask);
}
