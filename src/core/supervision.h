/*
 * The routing daemon as a child process: its start, and what is recorded of its end.
 */
#pragma once

/** Launches the routing daemon. Returns 0 after a successful fork, -1 when it failed (vyr_pid is 0 then). */
int vyrwrap_start_vyr();

/** SIGCHLD handler: reaps every child that has ended and records the routing daemon's end for the timer. */
void vyrwrap_sigchld_handler(int signal_number);
