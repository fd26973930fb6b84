/*
 * The routing daemon's log level: a DAL key becomes "/tmp/vyr_log.conf".
 */
#pragma once

#include "platform/dal.h"

/** Writes the file for a level word and marks the configuration dirty. Returns 0, or -1 when it cannot be written. */
int vyrwrap_set_vyr_log_level(const char *level);

/** Writes the file once more, for the level set last. Returns as above. */
int vyrwrap_write_vyr_log_level();

void vyrwrap_subscribe_logging_cb(dal_ctx *ctx, const dal_reply *reply, void *arg);

/** Subscribes to the key and applies its value, "warn" where it has none. Returns 0. */
int vyrwrap_dal_read_and_set_logging_level();
