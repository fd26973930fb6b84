/* Deliveries: from the loop, a limited number in one go. */
#include <stdio.h>
#include <stdlib.h>

#include "linux/clock.h"
#include "linux/dal/context.h"

namespace dal {

namespace {

constexpr int kDeliveriesPerTurn = 64; /**< other handlers of the loop run in between */
constexpr int64_t kTurnMs = 5;         /**< no further one is begun after that time */
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
    if (strncmp(notification->channel, kKeyspacePrefix, strlen(kKeyspacePrefix)) != 0)
        return data;
    const Renamed *renamed = find_renamed(data);
    if (!renamed)
        return data;
    if (renamed->delivery == Delivery::as_deleted)
        return "del";
    return event_by_type(ctx, key_of(notification), data);
}

dal_reply text_reply(char *text, size_t length) {
    return {DAL_REPLY_STRING, 0, length, text, 0, nullptr};
}

void call_back(dal_ctx *ctx, const Notification *notification, const char *event) {
    const Pattern *pattern = notification->pattern;
    char kind[sizeof kNotificationKind];
    memcpy(kind, kNotificationKind, sizeof kNotificationKind);
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

void on_delivery_due(void *user_data) {
    auto *ctx = static_cast<dal_ctx *>(user_data);
    ctx->delivery_timer = 0;
    context_settle(ctx);
}

/** What a finding is delivered as. False while that is not known, or when it was dropped: it goes on in the loop. */
bool find_out(dal_ctx *ctx, const Notification *finding, const char **event) {
    if (finding->tried)
        return true;  // the next comparison finds it again
    const Reading *reading = audit_read_again(ctx, finding);
    if (reading)
        *event = knowledge_of_finding(ctx, finding, reading);
    return reading;
}

/** The first one's turn. What is to be delivered is found out while it still waits: the context may be lost over it.
 * False when it has to wait longer. */
bool deliver_first(dal_ctx *ctx) {
    Notification *first = ctx->waiting.first;
    const char *event = nullptr;
    if (first->finding && !find_out(ctx, first, &event))
        return false;
    if (!first->finding && (event = delivered_event(ctx, first)))
        knowledge_before(ctx, first, event);
    if (ctx->state != State::up) {
        first->tried = true;
        return false;
    }
    Notification *notification = notification_next(ctx);
    if (event) {
        ctx->delivering = {notification->pattern, notification, false};
        call_back(ctx, notification, event);
        knowledge_behind(ctx, event);
        ctx->delivering = {};
    }
    free(notification);
    return true;
}

}  // namespace

void delivery_schedule(dal_ctx *ctx) {
    start_timer(ctx, &ctx->delivery_timer, kNextTurnMs, on_delivery_due, ctx);
}

void notifications_deliver(dal_ctx *ctx) {
    const int64_t end = monotonic_ms() + kTurnMs;
    for (int i = 0; i < kDeliveriesPerTurn && ctx->state == State::up && ctx->waiting.first; i++) {
        if (!deliver_first(ctx) || monotonic_ms() >= end)
            break;
    }
    if (ctx->state == State::up && ctx->waiting.first && ctx->audit.phase != AuditPhase::again)
        delivery_schedule(ctx);
    else
        stop_timer(ctx, &ctx->delivery_timer);
}

}  // namespace dal
