#include "event/event_log.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>

#include "platform/korvalog.h"

namespace {

constexpr size_t kBufferSize = 256;

int message_id(LogLevel level) {
    switch (level) {
        case LOG_LEVEL_DEBUG:
            return 312400;
        case LOG_LEVEL_INFO:
            return 312401;
        case LOG_LEVEL_WARNING:
            return 312402;
        case LOG_LEVEL_ERROR:
            return 312404;
    }
    return 0;
}

}  // namespace

void event_log_emit(LogLevel level, const char *format, ...) {
    const int saved_errno = errno;
    char text[kBufferSize];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    _korvaNewLogWithFltr(kEventModule, level, kLogFilter, message_id(level), kLogWrapper, text);
    errno = saved_errno;
}
