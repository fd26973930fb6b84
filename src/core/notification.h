/*
 * What the subscription callbacks have in common: reading a notification, which is an array of four texts.
 */
#pragma once

#include <stddef.h>

#include "platform/cmnutil.h"
#include "platform/dal.h"

/** Elements of a notification. */
enum NotificationElement : size_t {
    NOTIFICATION_KIND = 0, /**< "pmessage" */
    NOTIFICATION_PATTERN = 1,
    NOTIFICATION_CHANNEL = 2,
    NOTIFICATION_DATA = 3, /**< event text of a keyspace notification */
};

inline constexpr size_t kNotificationElements = 4;

/** The text of one element, NULL when the reply holds no such element or the element no text. */
const char *notification_text(const dal_reply *reply, size_t element);

/** Whether the reply is a delivery on a pattern: an array whose first element is the text "pmessage". */
bool notification_is_pattern_message(const dal_reply *reply);

/** dal_keyspace_notify_type of the event text; 0 when there is none. */
int notification_action(const dal_reply *reply);

/** Whether the reply, which is not NULL, has four elements. If not, that is logged under the caller's name. */
bool notification_is_complete(const dal_reply *reply, const char *function);

/**
 * Takes the name behind `channel_prefix` and the event del, hset or hdel out of a notification on a hash's key. Any
 * other event, or number of elements, is logged under the caller's name; what is else no such notification is not.
 * The reply is not NULL.
 *
 * @return the name, or NULL with *action_out as it was
 */
const char *notification_hash_name(const dal_reply *reply, const char *channel_prefix, const char *function,
                                   int *action_out);

/**
 * Appends the keys that match `pattern` to the list. Each step is logged under the caller's name. Returns false when
 * the DAL failed.
 */
bool notification_scan_hashes(const char *pattern, const char *function, List *keys);

/** What a subscription's result is logged with: the caller's name and the numbers of the two messages. */
struct SubscriptionLog {
    const char *function;
    int failed_line;
    int done_line;
};

/** Subscribes to one pattern and logs the result. Returns dal_sub_command's. */
int notification_subscribe(const char *pattern, dal_sub_callback callback, const SubscriptionLog &log);

/** What stands behind `prefix` in `text`; NULL when `text` is NULL or begins otherwise. */
const char *text_behind(const char *text, const char *prefix);
