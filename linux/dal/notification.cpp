/* Notifications: taken in whenever they come. */
#include <stdlib.h>

#include "linux/dal/context.h"
#include "linux/platform_log.h"

namespace dal {

namespace {

constexpr size_t kMostBytes = 8 << 20; /**< of waiting notifications */
constexpr size_t kFewBytes = 8 << 10;  /**< while no more wait, some 40, each is delivered as it came */

struct EventType {
    const char *event;
    int type;
};
constexpr EventType kEventTypes[] = {
    {"set", DAL_NOTIFY_SET},       {"del", DAL_NOTIFY_DEL},       {"append", DAL_NOTIFY_CHANGE},
    {"incrby", DAL_NOTIFY_CHANGE}, {"expire", DAL_NOTIFY_EXPIRE}, {"setrange", DAL_NOTIFY_CHANGE},
    {"hset", DAL_NOTIFY_HSET},     {"hdel", DAL_NOTIFY_HDEL},
};

bool is_notification(const redisReply *reply) {
    if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 4)
        return false;
    for (size_t i = 0; i < reply->elements; i++)
        if (reply->element[i]->type != REDIS_REPLY_STRING)
            return false;
    return strcmp(reply->element[0]->str, kNotificationKind) == 0;
}

/** A record with the texts behind it. The channel is put together of two parts; each text has a NUL behind it. */
Notification *make(Pattern *pattern, const char *prefix, Argument channel, Argument data) {
    const size_t prefix_length = strlen(prefix);
    const size_t channel_length = prefix_length + channel.length;
    const size_t size = sizeof(Notification) + channel_length + 1 + data.length + 1;
    auto *made = static_cast<Notification *>(calloc(1, size));
    if (!made)
        return nullptr;
    char *texts = reinterpret_cast<char *>(made + 1);
    made->pattern = pattern;
    made->size = size;
    made->channel_length = channel_length;
    made->data_length = data.length;
    made->channel = texts;
    made->data = texts + channel_length + 1;
    memcpy(made->channel, prefix, prefix_length + 1);
    memcpy(made->channel + prefix_length, channel.bytes, channel.length + 1);
    memcpy(made->data, data.bytes, data.length + 1);
    return made;
}

void take_out(Notifications *notifications, Notification *taken) {
    (taken->previous ? taken->previous->next : notifications->first) = taken->next;
    (taken->next ? taken->next->previous : notifications->last) = taken->previous;
    notifications->bytes -= taken->size;
}

uint64_t hash_of(const Pattern *pattern, const redisReply *channel, const redisReply *data) {
    const auto seed = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(pattern));
    return hash_bytes(data->str, data->len, hash_bytes(channel->str, channel->len, seed));
}

bool says(const Notification *waiting, const Pattern *pattern, const redisReply *channel, const redisReply *data) {
    return waiting->pattern == pattern && waiting->channel_length == channel->len &&
           waiting->data_length == data->len && memcmp(waiting->channel, channel->str, channel->len) == 0 &&
           memcmp(waiting->data, data->str, data->len) == 0;
}

Notification **slot_of(dal_ctx *ctx, uint64_t hash) {
    return &ctx->repeats.slots[hash % Repeats::kSlots];
}

void remember(dal_ctx *ctx, Notification *waiting) {
    Notification **slot = slot_of(ctx, waiting->hash);
    waiting->same_slot = *slot;
    *slot = waiting;
}

/** Does nothing where it was not remembered. */
void forget(dal_ctx *ctx, const Notification *waiting) {
    Notification **link = slot_of(ctx, waiting->hash);
    while (*link && *link != waiting)
        link = &(*link)->same_slot;
    if (*link)
        *link = waiting->same_slot;
}

/** The one that waits and says the same of a key, no longer waiting; NULL when there is none. */
Notification *take_repeated(dal_ctx *ctx, Pattern *pattern, const redisReply *channel, const redisReply *data,
                            uint64_t hash) {
    Notification *found = *slot_of(ctx, hash);
    while (found && !(found->hash == hash && says(found, pattern, channel, data)))
        found = found->same_slot;
    if (!found)
        return nullptr;
    forget(ctx, found);
    take_out(&ctx->waiting, found);
    return found;
}

/** Of a key it is enough in a burst to say once what was said several times, in the place of the last: who reads it,
 * reads it as it is. */
Notification *queued(dal_ctx *ctx, Pattern *pattern, const redisReply *channel, const redisReply *data) {
    const bool burst = ctx->waiting.bytes > kFewBytes;
    const uint64_t hash = pattern->glob ? hash_of(pattern, channel, data) : 0;
    Notification *notification = pattern->glob && burst ? take_repeated(ctx, pattern, channel, data, hash) : nullptr;
    if (!notification && ctx->waiting.bytes < kMostBytes)
        notification = make(pattern, "", {channel->str, channel->len}, {data->str, data->len});
    if (!notification)
        return nullptr;
    notifications_append(&ctx->waiting, notification);
    if (pattern->glob) {
        notification->hash = hash;
        remember(ctx, notification);
    }
    return notification;
}

/** A keyspace pattern's channels begin as it does: the key is what stands behind that. */
bool is_channel_of(const Pattern *pattern, const redisReply *channel) {
    return !pattern->glob || strncmp(channel->str, kKeyspacePrefix, strlen(kKeyspacePrefix)) == 0;
}

}  // namespace

bool notification_take(Link *link, const redisReply *reply) {
    dal_ctx *ctx = link->ctx;
    if (!is_notification(reply))
        return tracking_take(ctx, reply);
    const redisReply *channel = reply->element[2];
    const redisReply *data = reply->element[3];
    Pattern *pattern = pattern_find(ctx, reply->element[1]->str, reply->element[1]->len);
    if (!pattern || !is_channel_of(pattern, channel))
        return true;
    if (memchr(channel->str, '\0', channel->len)) {
        platform_error("<DAL>: a key with a NUL in it is not delivered; it begins %s", channel->str);
        return true;
    }
    if (!queued(ctx, pattern, channel, data)) {
        // What follows it is missed as well; after a loss everything is read again.
        context_lost(ctx, "more notifications wait than there is room for");
        return true;
    }
    delivery_schedule(ctx);
    return true;
}

Notification *notification_make_finding(Pattern *pattern, const char *key, size_t length) {
    Notification *finding = make(pattern, kKeyspacePrefix, {key, length}, {"", 0});
    if (finding)
        finding->finding = true;
    return finding;
}

void notifications_append(Notifications *notifications, Notification *notification) {
    notification->next = nullptr;
    notification->previous = notifications->last;
    (notifications->last ? notifications->last->next : notifications->first) = notification;
    notifications->last = notification;
    notifications->bytes += notification->size;
}

Notification *notifications_take_first(Notifications *notifications) {
    Notification *notification = notifications->first;
    take_out(notifications, notification);
    return notification;
}

Notification *notification_next(dal_ctx *ctx) {
    Notification *notification = notifications_take_first(&ctx->waiting);
    forget(ctx, notification);
    return notification;
}

void notifications_drop_findings(dal_ctx *ctx) {
    for (Notification *each = ctx->waiting.first; each;) {
        Notification *next = each->next;
        if (each->finding) {
            take_out(&ctx->waiting, each);
            free(each);
        }
        each = next;
    }
}

void notifications_append_all(dal_ctx *ctx, Notifications *more) {
    if (!more->first)
        return;
    Notifications *waiting = &ctx->waiting;
    (waiting->last ? waiting->last->next : waiting->first) = more->first;
    more->first->previous = waiting->last;
    waiting->last = more->last;
    waiting->bytes += more->bytes;
    *more = {};
    delivery_schedule(ctx);
}

void notifications_free(Notifications *notifications) {
    for (Notification *each = notifications->first; each;) {
        Notification *next = each->next;
        free(each);
        each = next;
    }
    *notifications = {};
}

}  // namespace dal

using namespace dal;

int dal_keyspace_notify_type(const char *event) {
    for (const EventType &each : kEventTypes)
        if (event && strcmp(each.event, event) == 0)
            return each.type;
    return 0;
}
