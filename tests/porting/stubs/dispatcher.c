/* A loop that runs its timer once, and ends. */
#include "platform/dispatcher.h"

#include <stddef.h>

static Dispatcher the_dispatcher;

static struct {
    DispTimerHandler handler;
    void *user_data;
} timer;

Dispatcher *DispatcherCreate(void) {
    return &the_dispatcher;
}

void DispatcherDestroy(Dispatcher *dispatcher) {
    dispatcher->shutting_down = 1;
}

int DispProcess(Dispatcher *dispatcher, int flags) {
    (void)dispatcher;
    (void)flags;
    if (timer.handler)
        timer.handler(timer.user_data);
    return 0;
}

int DispAddInput(Dispatcher *dispatcher, int fd, int type, DispInputHandler handler, void *user_data) {
    (void)dispatcher;
    (void)type;
    (void)handler;
    (void)user_data;
    return fd < 0 ? -1 : 0;
}

int DispRemoveInput(Dispatcher *dispatcher, int fd, int type) {
    (void)dispatcher;
    (void)fd;
    (void)type;
    return 0;
}

uint32_t DispAddTimerInternal(Dispatcher *dispatcher, uint32_t interval_ms, DispTimerHandler handler, void *user_data,
                              int periodic, int reserved, const char *function, int line) {
    (void)dispatcher;
    (void)interval_ms;
    (void)periodic;
    (void)reserved;
    (void)function;
    (void)line;
    timer.handler = handler;
    timer.user_data = user_data;
    return 1;
}

int DispRemoveTimerInternal(Dispatcher *dispatcher, uint32_t id, const char *function, int line) {
    (void)dispatcher;
    (void)id;
    (void)function;
    (void)line;
    timer.handler = NULL;
    return 0;
}
