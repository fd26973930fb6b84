#include "core/log.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>

#include "core/global.h"
#include "platform/korvalog.h"

namespace {

int message_id(LogLevel level) {
    switch (level) {
        case LOG_LEVEL_ERROR:
            return 399816;
        case LOG_LEVEL_WARNING:
            return 399838;
        case LOG_LEVEL_INFO:
            return 399815;
        case LOG_LEVEL_DEBUG:
            break;
    }
    return 399814;
}

}  // namespace

bool vyrwrap_module_log_enabled(int module, LogLevel level) {
    if (_isdefaultLogLevel)
        return true;
    if (!lgClientInfo.levels)
        return false;
    const auto *entry = static_cast<const lgModuleLevel *>(HashFind(lgClientInfo.levels, module));
    return entry && entry->level >= level;
}

bool vyrwrap_log_enabled(LogLevel level) {
    return vyrwrap_module_log_enabled(kVyrwrapModule, level);
}

void vyrwrap_log_emit(LogLevel level, const char *format, ...) {
    const int saved_errno = errno;
    va_list args;
    va_start(args, format);
    vsnprintf(lgClientInfo.buffer, sizeof lgClientInfo.buffer, format, args);
    va_end(args);
    _korvaNewLogWithFltr(kVyrwrapModule, level, kLogFilter, message_id(level), kLogWrapper, lgClientInfo.buffer);
    errno = saved_errno;
}
