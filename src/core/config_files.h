/*
 * The routing daemon's configuration as start-up lays it out.
 */
#pragma once

/**
 * Writes "/tmp/vyr.conf", "/tmp/vyr_log.conf", "/tmp/vyr_app.conf" and an empty "/tmp/vyr_static.conf", in that order.
 * Returns 0, or -1 at the first that fails; it has been logged.
 */
int vyrwrap_write_startup_config();
