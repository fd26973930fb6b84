#include "core/notification.h"

#include <stdio.h>
#include <string.h>

#include "core/global.h"
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

const char *notification_hash_name(const dal_reply *reply, const char *channel_prefix, const char *function,
                                   int *action_out) {
    if (!notification_is_complete(reply, function) || reply->type != DAL_REPLY_ARRAY)
        return nullptr;
    const char *name = text_behind(notification_text(reply, NOTIFICATION_CHANNEL), channel_prefix);
    if (!name)
        return nullptr;
    const int action = notification_action(reply);
    if (action != DAL_NOTIFY_DEL && action != DAL_NOTIFY_HSET && action != DAL_NOTIFY_HDEL) {
        log_error("<VYRWRAP>: %s: Unexpected notify_action (%d)", function, action);
        return nullptr;
    }
    *action_out = action;
    return name;
}

bool notification_scan_hashes(const char *pattern, const char *function, List *keys) {
    log_info("<VYRWRAP>:%s: do scan for pattern %s", function, pattern);
    if (const int error = dal_sync_ctx_chk(vyrwrap_global.dal_ctx)) {
        log_error("<VYRWRAP>:%s: dal_sync_ctx_chk() returned error(%d)", function, error);
        return false;
    }
    if (const int error = dal_scan(vyrwrap_global.dal_ctx, pattern, keys)) {
        log_error("<VYRWRAP>:%s: dal_scan() returned error(%d)", function, error);
        return false;
    }
    return true;
}

int notification_subscribe(const char *pattern, dal_sub_callback callback, const SubscriptionLog &log) {
    char command[1024];
    snprintf(command, sizeof command, "%s %s", "PSUBSCRIBE", pattern);
    const int result = dal_sub_command(vyrwrap_global.dal_ctx, callback, nullptr, command);
    if (result != 0)
        log_error("<VYRWRAP>:%s:%d Failed to subscribe dal for (%s)", log.function, log.failed_line, command);
    else
        log_info("<VYRWRAP>:%s:%d subscribed dal for (%s) done", log.function, log.done_line, command);
    return result;
}

const char *text_behind(const char *text, const char *prefix) {
    const size_t length = strlen(prefix);
    return text && strncmp(text, prefix, length) == 0 ? text + length : nullptr;
}
