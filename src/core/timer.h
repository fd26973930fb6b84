/*
 * The daemon's heartbeat, every 5000 ms.
 */
#pragma once

/** One run: reloads, debug logging, subscriptions after a loss, the routing daemon's restart or the daemon's end. */
void vyrwrap_mytimer();
