#include "loop.h"

#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <time.h>

#include <algorithm>
#include <map>

#include "linux/platform_log.h"

void platform_log(PlatformLogLevel level, const char *format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    loop::log_lines.push_back(std::to_string(level) + " " + text);
}

namespace loop {

std::vector<uint32_t> timer_intervals;
std::vector<std::string> log_lines;
int64_t longest_us;
bool refuse_inputs;
bool refuse_timers;

namespace {

struct Input {
    DispInputHandler handler;
    void *user_data;
};
struct Timer {
    int64_t due;
    DispTimerHandler handler;
    void *user_data;
};

Dispatcher the_dispatcher;
std::map<std::pair<int, int>, Input> inputs;
std::map<uint32_t, Timer> timers;
uint32_t last_timer;
int64_t skew;
int running;

int64_t real_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int64_t now_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

template <typename Entry>
void handle(const Entry &entry) {
    const int64_t begin = now_us();
    running++;
    entry.handler(entry.user_data);
    running--;
    longest_us = std::max(longest_us, now_us() - begin);
}

int64_t now() {
    return real_now() + skew;
}

bool run_due_timers() {
    std::vector<uint32_t> due;
    for (const auto &[id, timer] : timers)
        if (timer.due <= now())
            due.push_back(id);
    for (const uint32_t id : due) {
        const auto found = timers.find(id);
        if (found == timers.end())
            continue;
        const Timer timer = found->second;
        timers.erase(found);
        handle(timer);
    }
    return !due.empty();
}

bool run_inputs(int wait_ms) {
    std::vector<pollfd> waiting;
    std::vector<std::pair<int, int>> keys;
    for (const auto &[key, input] : inputs) {
        waiting.push_back({key.first, static_cast<short>(key.second == DISP_READ ? POLLIN : POLLOUT), 0});
        keys.push_back(key);
    }
    if (poll(waiting.data(), waiting.size(), wait_ms) <= 0)
        return false;
    for (size_t i = 0; i < keys.size(); i++) {
        const auto found = inputs.find(keys[i]);
        if (!waiting[i].revents || found == inputs.end())
            continue;
        const Input input = found->second;
        handle(input);
    }
    return true;
}

}  // namespace

Dispatcher *reset() {
    inputs.clear();
    timers.clear();
    timer_intervals.clear();
    log_lines.clear();
    longest_us = 0;
    refuse_inputs = false;
    refuse_timers = false;
    skew = 0;
    the_dispatcher = {};
    return &the_dispatcher;
}

void advance(uint32_t ms) {
    skew += ms;
}

bool run_until(const std::function<bool()> &condition, int limit_ms) {
    int64_t idle_us = 0;
    while (!condition()) {
        if (idle_us > int64_t{limit_ms} * 1000)
            return false;
        const int64_t begin = now_us();
        if (!run_due_timers() && !run_inputs(1))
            idle_us += now_us() - begin;
    }
    return true;
}

void drain() {
    while (run_due_timers() || run_inputs(0))
        continue;
}

int depth() {
    return running;
}

size_t input_count() {
    return inputs.size();
}

size_t timer_count() {
    return timers.size();
}

bool logged(const std::string &part) {
    return log_count(part) > 0;
}

size_t log_count(const std::string &part) {
    size_t count = 0;
    for (const std::string &line : log_lines)
        count += line.find(part) != std::string::npos;
    return count;
}

}  // namespace loop

int DispAddInput(Dispatcher *, int fd, int type, DispInputHandler handler, void *user_data) {
    if (fd < 0 || loop::refuse_inputs)
        return -1;
    loop::inputs[{fd, type}] = {handler, user_data};
    return 0;
}

int DispRemoveInput(Dispatcher *, int fd, int type) {
    loop::inputs.erase({fd, type});
    return 0;
}

uint32_t DispAddTimerInternal(Dispatcher *, uint32_t interval_ms, DispTimerHandler handler, void *user_data, int, int,
                              const char *, int) {
    if (loop::refuse_timers)
        return 0;
    loop::timers[++loop::last_timer] = {loop::now() + interval_ms, handler, user_data};
    loop::timer_intervals.push_back(interval_ms);
    return loop::last_timer;
}

int DispRemoveTimerInternal(Dispatcher *, uint32_t timer, const char *, int) {
    loop::timers.erase(timer);
    return 0;
}
