/*
 * Log calls of the event publication: a module, message ids and a buffer of their own, the daemon's rule of enablement.
 */
#pragma once

#include "core/log.h"

/** Module of the event publication in the logging library. */
inline constexpr int kEventModule = 448;

/** Formats and emits one message without asking whether its level is enabled. errno stays. */
void event_log_emit(LogLevel level, const char *format, ...) __attribute__((format(printf, 2, 3)));

#define EVENT_LOG(level, ...)                                \
    do {                                                     \
        if (vyrwrap_module_log_enabled(kEventModule, level)) \
            event_log_emit(level, __VA_ARGS__);              \
    } while (0)

#define event_log_error(...) EVENT_LOG(LOG_LEVEL_ERROR, __VA_ARGS__)
#define event_log_warning(...) EVENT_LOG(LOG_LEVEL_WARNING, __VA_ARGS__)
#define event_log_info(...) EVENT_LOG(LOG_LEVEL_INFO, __VA_ARGS__)
#define event_log_debug(...) EVENT_LOG(LOG_LEVEL_DEBUG, __VA_ARGS__)
