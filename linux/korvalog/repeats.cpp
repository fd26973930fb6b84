#include "linux/korvalog/repeats.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "linux/clock.h"
#include "linux/dispatcher/loop.h"
#include "linux/korvalog/sink.h"
#include "platform/korvalog.h"

namespace {

constexpr uint32_t kLimit = 100;
constexpr int64_t kWindowMs = 1000;
constexpr int64_t kReportMs = 60000;

/** The same message, over and over. */
struct Run {
    int level;
    int module;
    int message_id;
    char text[KORVA_LOG_BUFFER_SIZE];
    uint32_t seen;
    int64_t times[kLimit]; /**< of the latest ones, in turn */
    int64_t last;
    bool counting; /**< no longer written */
    uint32_t counted;
    int64_t reported;
    uint32_t timer;
};

Run run;

void report() {
    if (run.counted == 0)
        return;
    char text[64];
    snprintf(text, sizeof text, "last message repeated %u times", run.counted);
    run.counted = 0;
    log_sink_write(run.level, run.module, run.message_id, text);
}

void stop_counting() {
    report();
    if (run.timer)
        DispRemoveTimerInternal(current_dispatcher(), run.timer, __func__, __LINE__);
    run.timer = 0;
    run.counting = false;
    run.seen = 0;
}

void on_timer(void *) {
    const int64_t now = monotonic_ms();
    if (now - run.last >= kWindowMs) {
        stop_counting();
    } else if (now - run.reported >= kReportMs) {
        run.reported = now;
        report();
    }
}

void start_counting(int64_t now) {
    static bool reports_at_exit;
    if (!reports_at_exit)
        reports_at_exit = atexit(report) == 0;
    run.counting = true;
    run.reported = now;
    run.timer = DispAddTimerInternal(current_dispatcher(), kWindowMs, on_timer, nullptr, 1, 0, __func__, __LINE__);
}

bool continues_run(int level, int module, int message_id, const char *text) {
    return run.seen > 0 && level == run.level && module == run.module && message_id == run.message_id &&
           strncmp(text, run.text, sizeof run.text - 1) == 0;
}

void begin_run(int level, int module, int message_id, const char *text) {
    run.level = level;
    run.module = module;
    run.message_id = message_id;
    snprintf(run.text, sizeof run.text, "%s", text);
}

}  // namespace

bool log_passes(int level, int module, int message_id, const char *text) {
    const int64_t now = monotonic_ms();
    const bool same = continues_run(level, module, message_id, text);
    if (run.counting && (!same || now - run.last >= kWindowMs))
        stop_counting();
    if (!same) {
        run.seen = 0;
        begin_run(level, module, message_id, text);
    }
    run.last = now;
    int64_t *hundred_ago = &run.times[run.seen % kLimit];
    if (!run.counting && run.seen >= kLimit && now - *hundred_ago < kWindowMs)
        start_counting(now);
    *hundred_ago = now;
    run.seen++;
    if (!run.counting)
        return true;
    run.counted++;
    if (now - run.reported >= kReportMs) {
        run.reported = now;
        report();
    }
    return false;
}
