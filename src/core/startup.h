/*
 * Start-up, the event loop and the end of the daemon.
 */
#pragma once

#include "platform/daemon.h"

/** Builds every subsystem in its order. Returns 1, or 0 when the loop must not run. */
int vyrwrap_init();

/** Creates the DAL context in the loop, unless there is one, and subscribes. */
void vyrwrap_dal_init();

/** The DAL library's word that the connection was lost: only remembered, for the timer. */
void vyrwrap_dal_disconnect_cb();
