/*
 * The Dispatcher's own part: what its files share, and what other libraries of the platform ask of it.
 */
#pragma once

#include <event2/event.h>
#include <stdint.h>

#include "platform/dispatcher.h"

struct Input;
struct Timer;

struct Loop {
    event_base *base;
    int child_signal_fd; /**< readable while a SIGCHLD is pending; never read from */
    int end_signal_fd;   /**< readable while a signal that ends the loop is pending */
    event *child_signal;
    event *end_signal;
    Input *inputs;
    Timer *timers;
};

/** The loop of a Dispatcher; NULL before DispatcherCreate and once it has been destroyed. */
inline Loop *loop_of(const Dispatcher *dispatcher) {
    return dispatcher ? static_cast<Loop *>(dispatcher->platform) : nullptr;
}

/** The process's Dispatcher, NULL while there is none. */
Dispatcher *current_dispatcher();

void free_inputs(Loop *loop);
void free_timers(Loop *loop);
