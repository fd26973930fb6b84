/*
 * The platform's logging library: per-module levels, a shared format buffer, one emitting function.
 *
 * Levels are syslog's: 3 error, 4 warning, 6 information, 7 debug. A message is emitted when its level is not above
 * its module's: the caller looks that up, _korvaNewLogWithFltr writes whatever it is given.
 *
 * On Linux KORVA_LOG says where messages go: "syslog" (the default), "stderr" or "file:/path". The latter two get one
 * line each, `LEVEL MODULE ID TEXT`, with control characters as C escapes and cut to 4096 bytes; a reader that does not
 * keep up loses lines, and the number of those lost is logged. The same message more than 100 times running within a
 * second is counted from then on, and the count logged.
 */
#pragma once

#include <stdint.h>

#include "platform/cmnutil.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Size of the shared format buffer: no text is longer than this less one. */
#define KORVA_LOG_BUFFER_SIZE 1024

/** One row of the level table, found with HashFind under the module's number. */
typedef struct lgModuleLevel {
    int module;
    int level;
} lgModuleLevel;

/** The logging client: its level table (NULL until logging has been set up) and the shared buffer. */
typedef struct lgClient {
    HashTable *levels;
    char buffer[KORVA_LOG_BUFFER_SIZE];
} lgClient;

extern lgClient lgClientInfo;

/** 1 until the first level change: everything is emitted, whatever the table says. */
extern int _isdefaultLogLevel;

/** A request to change a module's level. */
typedef struct korvaLevelChange {
    uint32_t operation; /**< 1: set */
    uint32_t module;
    uint32_t level;
    uint8_t reserved[284];
} korvaLevelChange;

/** Sets logging up, or anew, for the program `name`, component `component`, at `level`. 0 on success. */
int korvaLogInit(int component, const char *name, int level);

/**
 * Carries out a level change, for every module of the same facility as the one named. 0 on success; -1, and nothing
 * changed, for an unknown operation, module or level.
 */
int korvaChangeLglvl(const korvaLevelChange *request);

/** Emits one message. `wrapper` goes along for the platform's own use; `text` is the message as it stands. */
void _korvaNewLogWithFltr(int module, int level, int filter, int message_id, const char *wrapper, const char *text);

/** 1 while the module of the daemon that belongs to `component` is at debug level (7), else 0. */
int isDbgLvlEnabled(int component);

const char *syslog_facility_to_str(int facility); /**< the facility's name; "" for an unknown number */
int log_str_to_facility(const char *name);        /**< the facility's number; 0 for an unknown name */
int syslog_level_str_to_id(const char *word);     /**< 0 to 7; -1 for an unknown word */

#ifdef __cplusplus
}

static_assert(sizeof(korvaLevelChange) == 296, "the request's size is part of the logging library's interface");
#endif
