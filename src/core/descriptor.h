/*
 * Descriptors of the daemon: close-on-exec, and above the three standard ones.
 */
#pragma once

/**
 * Makes a new descriptor close-on-exec and moves it above 2, where it is not yet there: 0 means "none" in the global
 * record, and children find /dev/null on a closed 0, 1 or 2. A negative `fd` passes through with errno untouched.
 *
 * @return the descriptor to use in place of `fd`, or -1 with errno set and `fd` closed
 */
[[nodiscard]] int move_above_stdio(int fd);
