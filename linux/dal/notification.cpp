/* Notifications: taken in whenever they come, delivered from the loop. */
#include <stdio.h>
#include <stdlib.h>

#include "linux/dal/context.h"
#include "linux/platform_log.h"

namespace dal {

namespace {

constexpr char kKind[] = "pmessage";
constexpr char kKeyspace[] = "__keyspace@0__:";
constexpr size_t kMostBytes = 8 << 20; /**< of waiting notifications */
constexpr int kDeliveriesPerTurn = 64; /**< other handlers of the loop run in between */
constexpr uint32_t kNextTurnMs = 1;

/** What an event text is delivered as. */
enum class Delivery { as_deleted, by_type };
struct Renamed {
    const char *event;
    Delivery delivery;
};
constexpr Renamed kRenamed[] = {
    {"expired", Delivery::as_deleted},   {"evicted", Delivery::as_deleted}, {"rename_from", Delivery::as_deleted},
    {"move_from", Delivery::as_deleted}, {"rename_to", Delivery::by_type},  {"move_to", Delivery::by_type},
    {"restore", Delivery::by_type},      {"copy_to", Delivery::by_type},
};

struct EventType {
    const char *event;
    int type;
};
constexpr EventType kEventTypes[] = {
    {"set", DAL_NOTIFY_SET},       {"del", DAL_NOTIFY_DEL},       {"append", DAL_NOTIFY_CHANGE},
    {"incrby", DAL_NOTIFY_CHANGE}, {"expire", DAL_NOTIFY_EXPIRE}, {"setrange", DAL_NOTIFY_CHANGE},
    {"hset", DAL_NOTIFY_HSET},     {"hdel", DAL_NOTIFY_HDEL},
};

const Renamed *find_renamed(const char *event) {
    for (const Renamed &each : kRenamed)
        if (strcmp(each.event, event) == 0)
            return &each;
    return nullptr;
}

/** The event that wrote a key of the type that it has now; `event` itself when that is none the daemon reads. */
const char *event_by_type(dal_ctx *ctx, const char *key, const char *event) {
    const Argument arguments[] = {argument("TYPE"), argument(key)};
    redisReply *reply = ask_for(ctx, REDIS_REPLY_STATUS, arguments);
    if (!reply)
        return event;
    const bool is_string = strcmp(reply->str, "string") == 0;
    const bool is_hash = strcmp(reply->str, "hash") == 0;
    freeReplyObject(reply);
    return is_string ? "set" : is_hash ? "hset" : event;
}

/** The text that a keyspace event is delivered as. The context may be lost over it. */
const char *delivered_event(dal_ctx *ctx, const Notification *notification) {
    const char *data = notification->data;
    if (strncmp(notification->channel, kKeyspace, strlen(kKeyspace)) != 0)
        return data;
    const Renamed *renamed = find_renamed(data);
    if (!renamed)
        return data;
    if (renamed->delivery == Delivery::as_deleted)
        return "del";
    return event_by_type(ctx, notification->channel + strlen(kKeyspace), data);
}

dal_reply text_reply(char *text, size_t length) {
    return {DAL_REPLY_STRING, 0, length, text, 0, nullptr};
}

void call_back(dal_ctx *ctx, const Notification *notification, const char *event) {
    const Pattern *pattern = notification->pattern;
    char kind[sizeof kKind];
    memcpy(kind, kKind, sizeof kKind);
    char replaced[16];
    dal_reply texts[] = {
        text_reply(kind, strlen(kind)),
        text_reply(pattern->text, pattern->length),
        text_reply(notification->channel, notification->channel_length),
        text_reply(notification->data, notification->data_length),
    };
    if (event != notification->data) {
        snprintf(replaced, sizeof replaced, "%s", event);
        texts[3] = text_reply(replaced, strlen(replaced));
    }
    dal_reply *elements[] = {&texts[0], &texts[1], &texts[2], &texts[3]};
    const dal_reply reply = {DAL_REPLY_ARRAY, 0, 0, nullptr, 4, elements};
    pattern->callback(ctx, &reply, pattern->arg);
}

bool is_notification(const redisReply *reply) {
    if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 4)
        return false;
    for (size_t i = 0; i < reply->elements; i++)
        if (reply->element[i]->type != REDIS_REPLY_STRING)
            return false;
    return strcmp(reply->element[0]->str, kKind) == 0;
}

/** A record with the texts behind it. */
Notification *make(Pattern *pattern, const redisReply *channel, const redisReply *data) {
    const size_t size = sizeof(Notification) + channel->len + 1 + data->len + 1;
    auto *notification = static_cast<Notification *>(malloc(size));
    if (!notification)
        return nullptr;
    char *texts = reinterpret_cast<char *>(notification + 1);
    *notification = {nullptr, pattern, size, channel->len, data->len, texts, texts + channel->len + 1};
    memcpy(notification->channel, channel->str, channel->len + 1);
    memcpy(notification->data, data->str, data->len + 1);
    return notification;
}

void append(Notifications *waiting, Notification *notification) {
    (waiting->last ? waiting->last->next : waiting->first) = notification;
    waiting->last = notification;
    waiting->bytes += notification->size;
}

Notification *take_first(Notifications *waiting) {
    Notification *notification = waiting->first;
    waiting->first = notification->next;
    if (!waiting->first)
        waiting->last = nullptr;
    waiting->bytes -= notification->size;
    return notification;
}

void on_delivery_due(void *user_data) {
    auto *ctx = static_cast<dal_ctx *>(user_data);
    ctx->delivery_timer = 0;
    context_settle(ctx);
}

}  // namespace

bool notification_take(Link *link, const redisReply *reply) {
    if (!is_notification(reply))
        return false;
    dal_ctx *ctx = link->ctx;
    const redisReply *channel = reply->element[2];
    Pattern *pattern = pattern_find(ctx, reply->element[1]->str, reply->element[1]->len);
    if (!pattern)
        return true;
    if (memchr(channel->str, '\0', channel->len)) {
        platform_error("<DAL>: a key with a NUL in it is not delivered; it begins %s", channel->str);
        return true;
    }
    Notification *notification = ctx->waiting.bytes < kMostBytes ? make(pattern, channel, reply->element[3]) : nullptr;
    if (!notification) {
        // What follows it is missed as well; after a loss everything is read again.
        context_lost(ctx, "more notifications wait than there is room for");
        return true;
    }
    append(&ctx->waiting, notification);
    start_timer(ctx, &ctx->delivery_timer, kNextTurnMs, on_delivery_due, ctx);
    return true;
}

void notifications_deliver(dal_ctx *ctx) {
    for (int i = 0; i < kDeliveriesPerTurn && ctx->state == State::up && ctx->waiting.first; i++) {
        const char *event = delivered_event(ctx, ctx->waiting.first);
        if (ctx->state != State::up)
            return;
        Notification *notification = take_first(&ctx->waiting);
        call_back(ctx, notification, event);
        free(notification);
    }
    if (ctx->state == State::up && ctx->waiting.first)
        start_timer(ctx, &ctx->delivery_timer, kNextTurnMs, on_delivery_due, ctx);
    else
        stop_timer(ctx, &ctx->delivery_timer);
}

void notifications_free(dal_ctx *ctx) {
    while (ctx->waiting.first)
        free(take_first(&ctx->waiting));
}

}  // namespace dal

using namespace dal;

int dal_keyspace_notify_type(const char *event) {
    for (const EventType &each : kEventTypes)
        if (event && strcmp(each.event, event) == 0)
            return each.type;
    return 0;
}
