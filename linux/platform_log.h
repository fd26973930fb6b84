/*
 * Log calls of the platform's own parts.
 *
 * A call carries the text as it appears in the log, beginning with the part's name in angle brackets. Arguments are
 * evaluated only when the message is emitted; a text longer than the logging library's buffer is cut. errno stays.
 */
#pragma once

/** Whether a message of that level (3, 4, 6 or 7) would be emitted now. */
bool platform_log_enabled(int level);

/** Formats and emits one message under the daemon's module, without asking whether its level is enabled. */
void platform_log_emit(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

#define PLATFORM_LOG(level, ...)                   \
    do {                                           \
        if (platform_log_enabled(level))           \
            platform_log_emit(level, __VA_ARGS__); \
    } while (0)

#define platform_error(...) PLATFORM_LOG(3, __VA_ARGS__)
#define platform_warning(...) PLATFORM_LOG(4, __VA_ARGS__)
#define platform_info(...) PLATFORM_LOG(6, __VA_ARGS__)
#define platform_debug(...) PLATFORM_LOG(7, __VA_ARGS__)
