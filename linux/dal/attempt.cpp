/*
 * Attempts to reach the server: both connections ask PING, the subscribing one sees to the notification flags and
 * subscribes to every pattern. Nothing of it waits.
 */
#include <sys/random.h>

#include "linux/clock.h"
#include "linux/dal/context.h"

namespace dal {

namespace {

constexpr uint32_t kFirstDelayMs = 1000;
constexpr uint32_t kLongestDelayMs = 10000;

bool ask_ping(Link *link) {
    const Argument ping = argument("PING");
    return link_send(link, Question::ping, nullptr, {&ping, 1});
}

/** "+PONG", or where something is subscribed to the array of "pong" and an empty text. */
bool is_pong(const redisReply *reply) {
    if (reply->type == REDIS_REPLY_STATUS)
        return strcmp(reply->str, "PONG") == 0;
    return reply->type == REDIS_REPLY_ARRAY && reply->elements == 2 && reply->element[0]->type == REDIS_REPLY_STRING &&
           strcmp(reply->element[0]->str, "pong") == 0;
}

const char *refusal(const redisReply *reply) {
    return reply->type == REDIS_REPLY_ERROR ? reply->str : "the server gave an answer of the wrong kind";
}

void on_failed(Link *link) {
    context_lost(link->ctx, link->reason);
}

void reader_answered(Link *link, const Expected *expected, redisReply *reply) {
    if (expected->question == Question::read)
        link->answer = reply;
    else if (link->walk)
        walk_answered(link->walk, expected->question, reply);
    else if (is_pong(reply))
        link->ctx->reader_answered = true;
    else
        context_lost(link->ctx, refusal(reply));
}

bool ask_further(Link *link) {
    return tracking_ask_client(link) && flags_ask(link);
}

/** PING is answered first; once patterns stand it is only asked to see that the server answers. */
void subscriber_pong(Link *link, const redisReply *reply) {
    if (!is_pong(reply))
        context_lost(link->ctx, refusal(reply));
    else if (!link->ctx->subscriber_ready && !ask_further(link))
        context_lost(link->ctx, link->reason);
}

void subscriber_answered(Link *link, const Expected *expected, redisReply *reply) {
    switch (expected->question) {
        case Question::ping:
            return subscriber_pong(link, reply);
        case Question::client_id:
            return tracking_client_answered(link, reply);
        case Question::read_flags:
            return flags_read(link, reply);
        case Question::set_flags:
            return flags_set(link, reply);
        case Question::tracking:
            return tracking_answered(link, reply);
        case Question::subscribe:
            return subscribe_answered(link, expected->pattern, reply);
        default:
            return;
    }
}

/** Up to a quarter less than `delay_ms`, so that many clients do not come back in step. */
uint32_t jittered(uint32_t delay_ms) {
    uint32_t random = 0;
    if (getrandom(&random, sizeof random, GRND_NONBLOCK) != sizeof random)
        random = static_cast<uint32_t>(monotonic_ms());
    return delay_ms - random % (delay_ms / 4);
}

void on_attempt_due(void *user_data) {
    auto *ctx = static_cast<dal_ctx *>(user_data);
    ctx->attempt_timer = 0;
    attempt_begin(ctx);
    context_settle(ctx);
}

}  // namespace

void flags_finished(Link *link) {
    dal_ctx *ctx = link->ctx;
    if (link == &ctx->auditor)
        return audit_flags_finished(ctx);
    ctx->subscriber_ready = true;
    if (!tracking_begin(link) || !subscribe_all(ctx))
        context_lost(ctx, link->reason);
}

void attempt_prepare_links(dal_ctx *ctx) {
    ctx->reader.ctx = ctx;
    ctx->reader.address = &ctx->sync_address;
    ctx->reader.on_answer = reader_answered;
    ctx->reader.on_failed = on_failed;
    ctx->subscriber.ctx = ctx;
    ctx->subscriber.address = &ctx->async_address;
    ctx->subscriber.on_message = notification_take;
    ctx->subscriber.on_answer = subscriber_answered;
    ctx->subscriber.on_failed = on_failed;
}

void attempt_begin(dal_ctx *ctx) {
    ctx->state = State::asking;
    ctx->reader_answered = !(ctx->connections & DAL_CTX_SYNC);
    ctx->subscriber_ready = !(ctx->connections & DAL_CTX_SUBSCRIBE);
    Link *links[] = {ctx->subscriber_ready ? nullptr : &ctx->subscriber, ctx->reader_answered ? nullptr : &ctx->reader};
    for (Link *link : links) {
        if (link && !(link_open(link, true) && ask_ping(link)))
            return context_lost(ctx, link->reason);
    }
}

bool attempt_answered(const dal_ctx *ctx) {
    return ctx->reader_answered && ctx->subscriber_ready && ctx->subscriber.expected == 0;
}

void attempt_later(dal_ctx *ctx) {
    const uint32_t delay_ms = ctx->delay_ms ? ctx->delay_ms : kFirstDelayMs;
    const bool first = delay_ms == kFirstDelayMs;
    ctx->delay_ms = delay_ms * 2 < kLongestDelayMs ? delay_ms * 2 : kLongestDelayMs;
    start_timer(ctx, &ctx->attempt_timer, first ? delay_ms : jittered(delay_ms), on_attempt_due, ctx);
}

}  // namespace dal

using namespace dal;

int dal_sub_ctx_chk(dal_ctx *ctx) {
    if (!ctx || !(ctx->connections & DAL_CTX_SUBSCRIBE))
        return -1;
    if (ctx->state == State::lost && !ctx->attempt_timer)
        attempt_later(ctx);
    if (ctx->state != State::up)
        return -1;
    if (ctx->subscriber.expected == 0 && !ask_ping(&ctx->subscriber))
        context_lost(ctx, ctx->subscriber.reason);
    audit_want(ctx);
    audit_settle(ctx);
    return ctx->state == State::up ? 0 : -1;
}
