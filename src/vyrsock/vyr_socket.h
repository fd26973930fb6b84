/*
 * What the two Unix stream sockets towards the routing daemon have in common.
 */
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

/** Fills in a socket file's address. Returns its length: the family and the path, without the terminating zero. */
socklen_t vyr_socket_address(const char *path, sockaddr_un *address);

/** A new stream socket, ready as vyr_adopt_socket leaves it; -1 with errno set. */
[[nodiscard]] int vyr_open_socket();

/**
 * Makes a new socket fit for the daemon: close-on-exec, above 2, and below FD_SETSIZE, so that select can wait for it.
 *
 * @return the descriptor to use in place of `fd`, or -1 with errno set and `fd` closed
 */
[[nodiscard]] int vyr_adopt_socket(int fd);

/** Whether the peer runs as root or as this daemon does: /tmp is everybody's. False with errno set. */
bool vyr_peer_is_trusted(int fd);

/** Waits up to 10 s for something to read. False after a time-out or an error, which have been logged. */
bool vyr_wait_readable(int fd);
