/*
 * The Dispatcher: the one event loop of the process.
 *
 * Handlers run one at a time, to completion, on the thread that called DispProcess. SIGCHLD stays blocked from
 * DispatcherCreate on and is let through only between two handlers, so that a SIGCHLD handler never interrupts one;
 * what is pending when the loop ends is delivered before DispProcess returns. SIGTERM, SIGINT, SIGHUP and SIGQUIT end
 * the loop; they stay blocked outside it, so that one that comes during start-up ends the loop as soon as it begins.
 *
 * An implementation owes the daemon, besides the calls: descriptors of its own that are close-on-exec and above 2;
 * timers that go on while an input is ready all the time; and, before main does anything else, 0 to 2 open, SIGPIPE
 * ignored, SIGCHLD blocked and the umask at 022 (on Linux linux/process.h does this).
 */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct Dispatcher {
    uint8_t shutting_down; /**< 1 once DispatcherDestroy has begun */
    void *platform;        /**< the platform's own part */
} Dispatcher;

/** What an input waits for: DispAddInput's type. */
enum {
    DISP_READ = 1,
    DISP_WRITE = 2,
};

/** Handlers of inputs and timers. What they return is not looked at. */
typedef int (*DispInputHandler)(void *user_data);
typedef void (*DispTimerHandler)(void *user_data);

/** There is one at a time. NULL on failure. */
Dispatcher *DispatcherCreate(void);

/**
 * Sets shutting_down, then frees the loop and all registrations; not to be called from inside a handler. The record
 * itself stays readable: calls that come late fail, or do nothing, without harm.
 */
void DispatcherDestroy(Dispatcher *dispatcher);

/** Runs the loop until it is told to end. Returns 0. `flags` is reserved and 0. */
int DispProcess(Dispatcher *dispatcher, int flags);

/**
 * Calls `handler` whenever, and as long as, `fd` is ready for `type`. Replaces a registration that stands for the same
 * descriptor and type, also one whose descriptor was closed and its number used again since. 0 on success; a negative
 * descriptor fails.
 */
int DispAddInput(Dispatcher *dispatcher, int fd, int type, DispInputHandler handler, void *user_data);

/** Removes a registration, also from inside its handler. Removing what is not there is no error. Returns 0. */
int DispRemoveInput(Dispatcher *dispatcher, int fd, int type);

/**
 * Starts a timer of `interval_ms` milliseconds, repeating when `periodic` is 1. `reserved` is 0; `function` and `line`
 * name the caller in the platform's messages. A periodic timer keeps to its first schedule however long its handler
 * takes; one that was started late in a long handler still waits its whole interval. Returns its id, 0 on failure.
 */
uint32_t DispAddTimerInternal(Dispatcher *dispatcher, uint32_t interval_ms, DispTimerHandler handler, void *user_data,
                              int periodic, int reserved, const char *function, int line);

/** Stops a timer, also from inside its handler. An id that is not known is no error. Returns 0. */
int DispRemoveTimerInternal(Dispatcher *dispatcher, uint32_t timer, const char *function, int line);

#ifdef __cplusplus
}
#endif
