/*
 * The platform's own messages: the daemon's module and level, no message id. A text begins with the part's name in
 * angle brackets.
 */
#pragma once

inline constexpr int kPlatformLogModule = 416;
inline constexpr int kPlatformLogId = 0;

enum PlatformLogLevel {
    PLATFORM_ERROR = 3,
    PLATFORM_WARNING = 4,
    PLATFORM_INFO = 6,
    PLATFORM_DEBUG = 7,
};

/** Emits one message, unless its level is switched off. Leaves errno and the shared buffer as they are. */
void platform_log(PlatformLogLevel level, const char *format, ...) __attribute__((format(printf, 2, 3)));

#define platform_error(...) platform_log(PLATFORM_ERROR, __VA_ARGS__)
#define platform_warning(...) platform_log(PLATFORM_WARNING, __VA_ARGS__)
#define platform_info(...) platform_log(PLATFORM_INFO, __VA_ARGS__)
#define platform_debug(...) platform_log(PLATFORM_DEBUG, __VA_ARGS__)
