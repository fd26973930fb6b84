/*
 * The route-limit event: a routing daemon's report becomes a platform event.
 */
#pragma once

#include <stdint.h>

/**
 * Begins an event: reads the device's name anew from "/tmp/name", where there is one, and clears the event record but
 * for that name. A name once read stays until the next one is.
 */
void vyrwrap_prepare_event();

/** Publishes the route-limit event with the record that vyrwrap_prepare_event left. */
void vyrwrap_publish_route_limit(uint32_t event, uint32_t route_count, uint32_t max_routes);
