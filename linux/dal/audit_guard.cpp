#include "linux/dal/audit_guard.h"

#include <string.h>

namespace dal {

namespace {

/** Whether the line "name:value" is in the text, whose lines end with CR and LF. */
bool has_line(const char *text, const char *line) {
    const size_t length = strlen(line);
    for (const char *found = strstr(text, line); found; found = strstr(found + 1, line))
        if ((found == text || found[-1] == '\n') && (found[length] == '\r' || found[length] == '\0'))
            return true;
    return false;
}

}  // namespace

const char *guard_objection(const redisReply *info) {
    if (info->type == REDIS_REPLY_ERROR)
        return nullptr;  // goes on without
    if (info->type != REDIS_REPLY_STRING)
        return "the server gave an answer of the wrong kind";
    if (has_line(info->str, "loading:1") || has_line(info->str, "async_loading:1"))
        return "the server is loading its data";
    if (has_line(info->str, "master_link_status:down"))
        return "the server has lost its primary";
    return nullptr;
}

}  // namespace dal
