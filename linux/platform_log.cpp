#include "linux/platform_log.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>

#include "platform/korvalog.h"

namespace {

constexpr int kModule = 416;
constexpr int kFilter = 4;
constexpr char kWrapper[] = " ^[error %s]";

/** Message ids by level: each level of the module has one. */
constexpr int kMessageIds[] = {0, 0, 0, 399816, 399838, 0, 399815, 399814};

}  // namespace

bool platform_log_enabled(int level) {
    if (_isdefaultLogLevel)
        return true;
    const auto *entry =
        lgClientInfo.levels ? static_cast<const lgModuleLevel *>(HashFind(lgClientInfo.levels, kModule)) : nullptr;
    return entry && level <= entry->level;
}

void platform_log_emit(int level, const char *format, ...) {
    const int saved_errno = errno;
    // A buffer of its own: the shared one may hold a text of the daemon's that is being put together.
    char text[KORVA_LOG_BUFFER_SIZE];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    _korvaNewLogWithFltr(kModule, level, kFilter, kMessageIds[level & 7], kWrapper, text);
    errno = saved_errno;
}
