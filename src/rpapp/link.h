/*
 * The Unix datagram link to the routing protocols application.
 */
#pragma once

#include <stddef.h>
#include <sys/types.h>

#include "rpapp/message.h"

/** Opens, binds and registers the own socket. Returns its descriptor, or a negative value; failures are logged. */
int vyrwrap_app_socket_connect();

/** Sends one datagram. Returns the bytes sent, or a negative value; a lost datagram is not repeated. */
ssize_t vyrwrap_send_to_routing_app(const void *buffer, size_t length);

/** Dispatcher handler of the socket: reads one datagram and dispatches it. Returns 0, or -1 when the read failed. */
int vyrwrap_app_server_read_msg(void *user_data);

/** Dispatches one received record by its family. Returns 0. */
int vyrwrap_process_vyrapp_message(const RoutingAppMsg *msg);

/** Handlers of one family each; they return 0, or -1 for a tunnel message of an unknown kind. */
int vyrwrap_process_vyrapp_msg_ike(const RoutingAppMsg *msg);
int vyrwrap_process_vyrapp_msg_im(const RoutingAppMsg *msg);
int vyrwrap_process_vyrapp_msg_cluster(const RoutingAppMsg *msg);
