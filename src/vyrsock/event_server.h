/*
 * Server of the routing daemon's event connections.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

/** Starts listening. Returns 1 when listening (or already so), 0 on failure. */
int vyrwrap_event_server_init();

/** Dispatcher handlers of the listening socket and of the one connection. */
int vyrwrap_event_accept_cb(void *user_data);
int vyrwrap_event_read_cb(void *user_data);

/** Reads what has come, at most 1 MiB, into `buffer`; waits up to 10 s. Returns the bytes read, or 0. */
uint32_t vyrwrap_read_vyr_event(void *buffer);

void vyrwrap_close_vyr_event_socket();

/** Decodes one message; a route-limit event is published. */
void vyrwrap_handle_vyr_event(const uint8_t *buffer, uint32_t length);
