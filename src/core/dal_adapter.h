/*
 * The six operations through which the DAL library's asynchronous connections run in the Dispatcher loop.
 */
#pragma once

#include "platform/dal.h"

void vyrwrap_dal_add_read(dal_evloop_conn *conn);
void vyrwrap_dal_delete_read(dal_evloop_conn *conn);
void vyrwrap_dal_add_write(dal_evloop_conn *conn);
void vyrwrap_dal_delete_write(dal_evloop_conn *conn);

/** Takes the connection out of the loop and frees its timer slot. */
void redisDispatcherCleanup(dal_evloop_conn *conn);

/** Gives a new connection its timer slot, which stays NULL when memory is short. Returns 0. */
int vyrwrap_dal_attach(dal_evloop_conn *conn);
