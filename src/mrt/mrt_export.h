/*
 * Route table export: a message on a DAL channel asks for it, "/tmp/.vyrwrap_mrt" takes the answer.
 */
#pragma once

#include <stdint.h>

#include "platform/dal.h"

/** Callback of the trigger channel: runs one whole export. */
void vyrwrap_dal_mrt_subscribe_callback(dal_ctx *ctx, const dal_reply *reply, void *arg);

/** One exchange with the routing daemon; blocks as the control socket does. */
void vyrwrap_send_mrt_request_to_vyr(uint32_t request_code);
