/* One line a message on standard error: LEVEL TEXT. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "hash.h"
#include "platform/korvalog.h"

lgClient lgClientInfo;
int _isdefaultLogLevel = 1;

/* The modules of the daemon: its own and that of the events. */
static const int kModules[] = {416, 448};
enum { MODULES = sizeof kModules / sizeof kModules[0] };

static lgModuleLevel levels[MODULES];

int korvaLogInit(int component, const char *name, int level) {
    (void)component;
    (void)name;
    if (!lgClientInfo.levels)
        lgClientInfo.levels = _HashCreate(MODULES);
    if (!lgClientInfo.levels)
        return -1;
    for (int i = 0; i < MODULES; i++) {
        levels[i].module = kModules[i];
        levels[i].level = level;
        if (hash_insert_number(lgClientInfo.levels, kModules[i], &levels[i]) < 0)
            return -1;
    }
    return 0;
}

int korvaChangeLglvl(const korvaLevelChange *request) {
    if (request->operation != 1 || request->level > 7)
        return -1;
    for (int i = 0; i < MODULES; i++)
        levels[i].level = (int)request->level;
    _isdefaultLogLevel = 0;
    return 0;
}

void _korvaNewLogWithFltr(int module, int level, int filter, int message_id, const char *wrapper, const char *text) {
    (void)module;
    (void)filter;
    (void)message_id;
    (void)wrapper;
    fprintf(stderr, "%d %s\n", level, text);
}

int isDbgLvlEnabled(int component) {
    (void)component;
    return levels[0].level == 7;
}

const char *syslog_facility_to_str(int facility) {
    (void)facility;
    return "";
}

int log_str_to_facility(const char *name) {
    (void)name;
    return 0;
}

int syslog_level_str_to_id(const char *word) {
    static const char *const words[] = {"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};
    for (int level = 0; level < 8; level++)
        if (strcmp(word, words[level]) == 0)
            return level;
    return -1;
}
