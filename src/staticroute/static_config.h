/*
 * "/tmp/vyr_static.conf": the routing daemon's static protocol.
 */
#pragma once

#include "staticroute/table.h"

/**
 * Writes the whole table and marks the configuration dirty. Returns 0, or -1 with errno set when the file cannot be
 * written (the old one stays). After a default-route change it runs the periodic timer's handler, which may subscribe,
 * scan and apply routes: hold nothing of the table across the call.
 */
int write_static_config(const StaticRouteTable *table);
