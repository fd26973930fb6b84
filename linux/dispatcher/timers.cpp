/* Timers. */
#include <stdlib.h>

#include "linux/dispatcher/loop.h"
#include "linux/platform_log.h"

struct Timer {
    Timer *next;
    event *expiry;
    Loop *loop;
    uint32_t id;
    bool periodic;
    DispTimerHandler handler;
    void *user_data;
};

namespace {

/** Goes on over all Dispatchers of the process: an old id never means a new timer. */
uint32_t last_id;

Timer **find_link(Loop *loop, uint32_t id) {
    Timer **link = &loop->timers;
    while (*link && (*link)->id != id)
        link = &(*link)->next;
    return link;
}

void free_timer(Timer *timer) {
    if (timer->expiry)
        event_free(timer->expiry);
    free(timer);
}

void remove(Loop *loop, uint32_t id) {
    Timer **link = find_link(loop, id);
    if (Timer *timer = *link) {
        *link = timer->next;
        free_timer(timer);
    }
}

void on_expiry(evutil_socket_t, short, void *arg) {
    const auto *timer = static_cast<const Timer *>(arg);
    const DispTimerHandler handler = timer->handler;
    void *user_data = timer->user_data;
    if (!timer->periodic)
        remove(timer->loop, timer->id);
    handler(user_data);
}

uint32_t next_id(Loop *loop) {
    do
        last_id++;
    while (last_id == 0 || *find_link(loop, last_id));
    return last_id;
}

bool start(Timer *timer, uint32_t interval_ms) {
    constexpr uint32_t kMsPerSecond = 1000;
    constexpr uint32_t kUsPerMs = 1000;
    // a period of nothing would be no period for the library
    if (timer->periodic && interval_ms == 0)
        interval_ms = 1;
    const timeval interval = {static_cast<time_t>(interval_ms / kMsPerSecond),
                              static_cast<suseconds_t>(interval_ms % kMsPerSecond * kUsPerMs)};
    const short events = timer->periodic ? EV_PERSIST : 0;
    timer->expiry = event_new(timer->loop->base, -1, events, on_expiry, timer);
    return timer->expiry && event_add(timer->expiry, &interval) == 0;
}

}  // namespace

uint32_t DispAddTimerInternal(Dispatcher *dispatcher, uint32_t interval_ms, DispTimerHandler handler, void *user_data,
                              int periodic, int, const char *function, int line) {
    Loop *loop = loop_of(dispatcher);
    if (!loop || !handler)
        return 0;
    auto *timer = static_cast<Timer *>(calloc(1, sizeof(Timer)));
    if (!timer)
        return 0;
    *timer = {loop->timers, nullptr, loop, next_id(loop), periodic != 0, handler, user_data};
    if (!start(timer, interval_ms)) {
        platform_error("<DISPATCHER>: %s:%d: a timer of %u ms cannot be started", function, line, interval_ms);
        free_timer(timer);
        return 0;
    }
    loop->timers = timer;
    return timer->id;
}

int DispRemoveTimerInternal(Dispatcher *dispatcher, uint32_t timer, const char *, int) {
    if (Loop *loop = loop_of(dispatcher))
        remove(loop, timer);
    return 0;
}

uint32_t count_timers(const Loop *loop) {
    uint32_t count = 0;
    for (const Timer *timer = loop->timers; timer; timer = timer->next)
        count++;
    return count;
}

void free_timers(Loop *loop) {
    while (Timer *timer = loop->timers) {
        loop->timers = timer->next;
        free_timer(timer);
    }
}
