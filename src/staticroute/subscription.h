/*
 * The daemon's own subscriptions, and static routes following the DAL.
 */
#pragma once

#include "platform/dal.h"

/** Makes the own subscriptions, loads every stored static route and the redistributed VLANs. May be called again. */
void vyrwrap_subscribe_init();

/** Applies every static route key that matches the pattern. */
void vyrwrap_dal_scan_static_routes(const char *pattern);

/** Applies the change that a notification on a static route key tells of. */
void vyrwrap_static_route_subscribe_callback(dal_ctx *ctx, const dal_reply *reply, void *arg);
