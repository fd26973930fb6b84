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
    int child_signal_fd;   /**< readable while a SIGCHLD is pending; never read from */
    int request_signal_fd; /**< readable while a signal is pending that asks something of the loop */
    event *child_signal;
    event *request_signal;
    event *alive; /**< tells the service manager; NULL when nobody asked for that */
    Input *inputs;
    Timer *timers;
};

/** The loop of a Dispatcher; NULL before DispatcherCreate and once it has been destroyed. */
inline Loop *loop_of(const Dispatcher *dispatcher) {
    return dispatcher ? static_cast<Loop *>(dispatcher->platform) : nullptr;
}

/** The process's Dispatcher, NULL while there is none. */
Dispatcher *current_dispatcher();

uint32_t count_inputs(const Loop *loop);
uint32_t count_timers(const Loop *loop);

void free_inputs(Loop *loop);
void free_timers(Loop *loop);
