/* The logging library: levels, names, and the way of a message to its sink. */
#include "platform/korvalog.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "linux/hash.h"
#include "linux/korvalog/repeats.h"
#include "linux/korvalog/sink.h"
#include "linux/platform_log.h"

lgClient lgClientInfo;
int _isdefaultLogLevel = 1;

namespace {

constexpr int kDaemonModule = kPlatformLogModule;
constexpr int kEventModule = 448;
constexpr int kDaemonComponent = 400;
constexpr uint32_t kSetLevel = 1;
constexpr int kMostDetail = PLATFORM_DEBUG;

/** The one facility: its name, and the modules whose level it is. */
constexpr char kFacility[] = "network";
constexpr int kFacilityModules[] = {kDaemonModule, kEventModule};

bool is_of_facility(int module) {
    return module == kDaemonModule || module == kEventModule;
}

lgModuleLevel *find_row(int module) {
    return lgClientInfo.levels ? static_cast<lgModuleLevel *>(HashFind(lgClientInfo.levels, module)) : nullptr;
}

/** A row that stands is changed in its place, which takes no memory. */
int set_row(HashTable *table, int module, int level) {
    if (lgModuleLevel *row = find_row(module)) {
        row->level = level;
        return 0;
    }
    auto *row = static_cast<lgModuleLevel *>(malloc(sizeof(lgModuleLevel)));
    if (!row)
        return -1;
    *row = {module, level};
    if (hash_insert_number(table, module, row) == 0)
        return 0;
    free(row);
    return -1;
}

/** Sets the level of all modules of the facility. Returns 0, or -1 when memory is short. */
int set_facility_level(int level) {
    constexpr uint32_t kSizeHint = 4;
    if (!lgClientInfo.levels)
        lgClientInfo.levels = _HashCreate(kSizeHint);
    if (!lgClientInfo.levels)
        return -1;
    for (const int module : kFacilityModules)
        if (set_row(lgClientInfo.levels, module, level) < 0)
            return -1;
    return 0;
}

struct LevelWord {
    const char *word;
    int level;
};

constexpr LevelWord kLevelWords[] = {
    {"emerg", 0},   {"alert", 1}, {"crit", 2},   {"err", 3},  {"error", 3},
    {"warning", 4}, {"warn", 4},  {"notice", 5}, {"info", 6}, {"debug", 7},
};

}  // namespace

int korvaLogInit(int, const char *name, int level) {
    log_sink_open(name ? name : program_invocation_short_name);
    return level >= 0 && level <= kMostDetail ? set_facility_level(level) : -1;
}

int korvaChangeLglvl(const korvaLevelChange *request) {
    if (!request || request->operation != kSetLevel || request->level > kMostDetail ||
        !is_of_facility(static_cast<int>(request->module)) || set_facility_level(static_cast<int>(request->level)) < 0)
        return -1;
    _isdefaultLogLevel = 0;
    return 0;
}

void _korvaNewLogWithFltr(int module, int level, int, int message_id, const char *, const char *text) {
    const int saved_errno = errno;
    if (!text)
        text = "NULL";
    if (log_passes(level, module, message_id, text))
        log_sink_write(level, module, message_id, text);
    errno = saved_errno;
}

int isDbgLvlEnabled(int component) {
    const lgModuleLevel *row = component == kDaemonComponent ? find_row(kDaemonModule) : nullptr;
    return row && row->level == kMostDetail;
}

const char *syslog_facility_to_str(int facility) {
    return is_of_facility(facility) ? kFacility : "";
}

int log_str_to_facility(const char *name) {
    return name && strcmp(name, kFacility) == 0 ? kDaemonModule : 0;
}

int syslog_level_str_to_id(const char *word) {
    for (const LevelWord &known : kLevelWords)
        if (word && strcmp(word, known.word) == 0)
            return known.level;
    return -1;
}

void platform_log(PlatformLogLevel level, const char *format, ...) {
    const int saved_errno = errno;
    const lgModuleLevel *row = find_row(kPlatformLogModule);
    if (_isdefaultLogLevel || (row && row->level >= level)) {
        char text[KORVA_LOG_BUFFER_SIZE];
        va_list args;
        va_start(args, format);
        vsnprintf(text, sizeof text, format, args);
        va_end(args);
        _korvaNewLogWithFltr(kPlatformLogModule, level, 0, kPlatformLogId, "", text);
    }
    errno = saved_errno;
}
