/* The loop itself, and the signals that meet in it. */
#include "linux/dispatcher/loop.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <initializer_list>

#include "core/descriptor.h"
#include "linux/memory.h"
#include "linux/notices.h"
#include "linux/platform_log.h"

namespace {

/** One for the process. It outlives its loop, so that whoever comes late still finds shutting_down. */
Dispatcher the_dispatcher;

sigset_t child_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    return set;
}

/** Those that end the loop, and the one that asks what it watches and uses. */
sigset_t request_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1})
        sigaddset(&set, number);
    return set;
}

/** Opens the gate for a moment: what is pending is delivered before the first call returns. */
void let_child_signal_through() {
    const sigset_t set = child_signals();
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

void on_child_signal(evutil_socket_t, short, void *) {
    let_child_signal_through();
}

void on_request_signal(evutil_socket_t fd, short, void *arg) {
    const auto *loop = static_cast<const Loop *>(arg);
    signalfd_siginfo signal_info;
    if (read(fd, &signal_info, sizeof signal_info) != sizeof signal_info)
        return;
    if (signal_info.ssi_signo == SIGUSR1) {
        // at a level that passes by default: somebody asked
        platform_warning("<DISPATCHER>: %u timers and %u inputs, %zu KiB of memory in use", count_timers(loop),
                         count_inputs(loop), memory_in_use_kib());
        return;
    }
    platform_info("<DISPATCHER>: signal %u from process %u ends the loop", signal_info.ssi_signo, signal_info.ssi_pid);
    event_base_loopbreak(loop->base);
}

void on_alive(evutil_socket_t, short, void *) {
    notices_alive();
}

void on_libevent_message(int severity, const char *text) {
    if (severity >= EVENT_LOG_WARN)
        platform_warning("<DISPATCHER>: libevent: %s", text);
    else
        platform_debug("<DISPATCHER>: libevent: %s", text);
}

event_base *make_base() {
    event_config *config = event_config_new();
    if (!config)
        return nullptr;
    // without the cached time a timer started at the end of a long handler runs from then, not from its beginning
    event_config_set_flag(config, EVENT_BASE_FLAG_NOLOCK | EVENT_BASE_FLAG_IGNORE_ENV | EVENT_BASE_FLAG_NO_CACHE_TIME);
    event_base *base = event_base_new_with_config(config);
    event_config_free(config);
    return base;
}

/** Blocks the signals and makes them readable. Returns the descriptor, -1 on failure. */
int watch_signals(const sigset_t &set) {
    if (sigprocmask(SIG_BLOCK, &set, nullptr) < 0)
        return -1;
    return move_above_stdio(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

event *add_signal_event(Loop *loop, int fd, event_callback_fn callback) {
    event *made = event_new(loop->base, fd, EV_READ | EV_PERSIST, callback, loop);
    if (!made || event_add(made, nullptr) == 0)
        return made;
    event_free(made);
    return nullptr;
}

/** Between two handlers, as everything: a handler that never returns is what the service manager is to notice. */
bool add_alive_event(Loop *loop) {
    constexpr uint64_t kUsPerSecond = 1000000;
    const uint64_t interval_us = notices_alive_interval_us();
    if (interval_us == 0)
        return true;
    const timeval interval = {static_cast<time_t>(interval_us / kUsPerSecond),
                              static_cast<suseconds_t>(interval_us % kUsPerSecond)};
    loop->alive = event_new(loop->base, -1, EV_PERSIST, on_alive, nullptr);
    return loop->alive && event_add(loop->alive, &interval) == 0;
}

bool fill(Loop *loop) {
    loop->child_signal_fd = watch_signals(child_signals());
    loop->request_signal_fd = watch_signals(request_signals());
    if (loop->child_signal_fd < 0 || loop->request_signal_fd < 0)
        return false;
    loop->base = make_base();
    if (!loop->base)
        return false;
    loop->child_signal = add_signal_event(loop, loop->child_signal_fd, on_child_signal);
    loop->request_signal = add_signal_event(loop, loop->request_signal_fd, on_request_signal);
    return loop->child_signal && loop->request_signal && add_alive_event(loop);
}

void free_loop(Loop *loop) {
    free_inputs(loop);
    free_timers(loop);
    for (event *signal_event : {loop->child_signal, loop->request_signal, loop->alive})
        if (signal_event)
            event_free(signal_event);
    if (loop->base)
        event_base_free(loop->base);
    for (const int fd : {loop->child_signal_fd, loop->request_signal_fd})
        if (fd >= 0)
            close(fd);
    free(loop);
}

}  // namespace

Dispatcher *current_dispatcher() {
    return the_dispatcher.platform ? &the_dispatcher : nullptr;
}

Dispatcher *DispatcherCreate(void) {
    if (the_dispatcher.platform) {
        platform_error("<DISPATCHER>: there is one already");
        return nullptr;
    }
    auto *loop = static_cast<Loop *>(calloc(1, sizeof(Loop)));
    if (!loop)
        return nullptr;
    event_set_log_callback(on_libevent_message);
    if (!fill(loop)) {
        platform_error("<DISPATCHER>: cannot make the loop: %s", strerror(errno));
        free_loop(loop);
        return nullptr;
    }
    the_dispatcher = {0, loop};
    return &the_dispatcher;
}

void DispatcherDestroy(Dispatcher *dispatcher) {
    Loop *loop = loop_of(dispatcher);
    if (!loop)
        return;
    dispatcher->shutting_down = 1;
    free_loop(loop);
    dispatcher->platform = nullptr;
}

int DispProcess(Dispatcher *dispatcher, int) {
    Loop *loop = loop_of(dispatcher);
    if (!loop)
        return 0;
    notices_ready();
    if (event_base_loop(loop->base, EVLOOP_NO_EXIT_ON_EMPTY) < 0)
        platform_error("<DISPATCHER>: the loop has failed: %s", strerror(errno));
    notices_stopping();
    let_child_signal_through();
    return 0;
}
