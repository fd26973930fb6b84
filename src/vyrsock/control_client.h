/*
 * Client of the routing daemon's data-export control socket. All waits are synchronous.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

inline constexpr uint32_t kControlBufferSize = 1048576; /**< bytes of a caller's receive buffer */

/** Returns 1 when a connection stands afterwards, 0 on failure. */
int vyrwrap_connect_vyr_data_socket();

/** Closes the connection if there is one. Async-signal-safe but for its log line. */
void vyrwrap_close_vyr_data_socket();

/** Writes all `length` bytes, connecting first when needed; may wait without limit. Returns 1, or 0 on failure. */
int vyrwrap_send_to_vyr(const void *buffer, size_t length);

/**
 * Reads one frame into `buffer` of kControlBufferSize bytes, waiting up to 10 s for its beginning. Returns the bytes of
 * its body; 0 on any failure or timeout.
 */
uint32_t vyrwrap_read_from_vyr(void *buffer);

/** Reads exactly `count` bytes. Returns `count`, or 0 on failure with the connection closed. */
uint32_t vyrwrap_read_exact(void *buffer, uint32_t count);
