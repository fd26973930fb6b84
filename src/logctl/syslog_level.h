/*
 * The daemon's own log level: the level key of its syslog facility.
 */
#pragma once

#include "platform/dal.h"

/** Subscribes to the facility's level key and applies its value. */
void init_syslog_facility(int facility);

/** Reads the level of one facility and hands it to the logging library. */
void vyrwrap_dal_read_and_set_syslog_level(int facility);

void vyrwrap_syslog_level_subscribe_cb(dal_ctx *ctx, const dal_reply *reply, void *arg);

/** The facility that a notification names; -1 when it names none. */
int vyrwrap_syslog_notification_extract_facility(const dal_reply *reply);
