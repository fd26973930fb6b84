/*
 * The daemon's log calls.
 *
 * A call carries the text as it appears in the log, so that a line found there leads back to its call. Arguments are
 * evaluated only when the message is emitted. A text longer than the shared buffer is cut.
 */
#pragma once

/** Levels of this daemon's messages, syslog's numbers. */
enum LogLevel {
    LOG_LEVEL_ERROR = 3,
    LOG_LEVEL_WARNING = 4,
    LOG_LEVEL_INFO = 6,
    LOG_LEVEL_DEBUG = 7,
};

/** What every message gives the logging library beside its text. */
inline constexpr int kLogFilter = 4;
inline constexpr char kLogWrapper[] = " ^[error %s]";

/** Whether a message of that level would be emitted now under a module of the logging library. */
bool vyrwrap_module_log_enabled(int module, LogLevel level);

/** The same for the daemon's own module. */
bool vyrwrap_log_enabled(LogLevel level);

/** Formats and emits one message under the daemon's module, whether its level is enabled or not. errno stays. */
void vyrwrap_log_emit(LogLevel level, const char *format, ...) __attribute__((format(printf, 2, 3)));

#define VYRWRAP_LOG(level, ...)                   \
    do {                                          \
        if (vyrwrap_log_enabled(level))           \
            vyrwrap_log_emit(level, __VA_ARGS__); \
    } while (0)

#define log_error(...) VYRWRAP_LOG(LOG_LEVEL_ERROR, __VA_ARGS__)
#define log_warning(...) VYRWRAP_LOG(LOG_LEVEL_WARNING, __VA_ARGS__)
#define log_info(...) VYRWRAP_LOG(LOG_LEVEL_INFO, __VA_ARGS__)
#define log_debug(...) VYRWRAP_LOG(LOG_LEVEL_DEBUG, __VA_ARGS__)

/** A text for "%s" that may be missing. */
inline const char *text_or_null(const char *text) {
    return text ? text : "NULL";
}
