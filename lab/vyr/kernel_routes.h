/*
 * BIRD's routes in the kernel's table.
 *
 * BIRD takes a route with a new metric for a replacement of the old one; the kernel takes it for another route and
 * keeps both. So the old one is removed here.
 */
#pragma once

#include <vector>

#include "lab/vyr/translate.h"

namespace vyr {

/** Removes these routes of BIRD's where they exist. Returns how many did. */
unsigned remove_kernel_routes(const std::vector<RouteKey> &routes);

/** The routes of BIRD's that the main table holds, whichever BIRD put them there. */
std::vector<RouteKey> kernel_routes_of_bird();

}  // namespace vyr
