#include "core/notification.h"

#include <string.h>

#include "core/log.h"

const char *notification_text(const dal_reply *reply, size_t element) {
    if (!reply || element >= reply->elements || !reply->element || !reply->element[element])
        return nullptr;
    return reply->element[element]->str;
}

bool notification_is_pattern_message(const dal_reply *reply) {
    const char *kind = notification_text(reply, NOTIFICATION_KIND);
    return kind && reply->type == DAL_REPLY_ARRAY && reply->element[NOTIFICATION_KIND]->type == DAL_REPLY_STRING &&
           strcmp(kind, "pmessage") == 0;
}

int notification_action(const dal_reply *reply) {
    const char *event = notification_text(reply, NOTIFICATION_DATA);
    return event ? dal_keyspace_notify_type(event) : 0;
}

bool notification_is_complete(const dal_reply *reply, const char *function) {
    if (reply->elements == kNotificationElements)
        return true;
    log_error("<VYRWRAP>: %s: unexpected num of elements (%d), expected 4\n", function,
              static_cast<int>(reply->elements));
    return false;
}

const char *text_behind(const char *text, const char *prefix) {
    const size_t length = strlen(prefix);
    return text && strncmp(text, prefix, length) == 0 ? text + length : nullptr;
}
