/*
 * What the process needs before anything of it runs.
 */
#pragma once

/**
 * Makes the stack large enough for the largest handler; opens /dev/null on each of 0, 1 and 2 that is closed, so that
 * nothing else lands there; makes inherited descriptors close-on-exec where the kernel can; takes what is for this
 * process alone out of the environment; sets the umask to 022; ignores SIGPIPE, so that a peer that went away is an
 * error return; blocks SIGCHLD, which the Dispatcher lets through. To be called first in main. Returns 0, or -1 when a
 * standard descriptor cannot be opened.
 */
int prepare_process();
