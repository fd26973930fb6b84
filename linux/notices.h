/*
 * Notices to the service manager that started the process: ready, alive, about to end. The manager's protocol is a
 * datagram for each notice, to the Unix socket that NOTIFY_SOCKET names ("/path", or "@name" for an abstract one).
 * Without that variable nothing of this does anything.
 */
#pragma once

#include <stdint.h>

/**
 * Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID and takes them out of the environment: they are not for
 * children. To be called before there are any.
 */
void notices_take_environment();

/** Microseconds between two notices that the process is alive; 0 when nobody asked for them. */
uint64_t notices_alive_interval_us();

/** The first call says that the process is ready; later ones say nothing. */
void notices_ready();

void notices_alive();

void notices_stopping();
