#include "linux/dal/context.h"

#include <stdio.h>
#include <stdlib.h>

#include "linux/clock.h"
#include "linux/platform_log.h"

namespace dal {

namespace {

/** The attempt at the start is waited for, so that the first calls find the server. */
void connect_at_start(dal_ctx *ctx) {
    attempt_begin(ctx);
    const int64_t deadline = monotonic_ms() + kAnswerMs;
    for (Link *link : {&ctx->subscriber, &ctx->reader})
        if (ctx->state == State::asking && link->context && !link_wait(link, deadline) && ctx->state == State::asking)
            context_lost(ctx, link->reason);
    if (ctx->state != State::asking)
        return;
    link_leave_loop(&ctx->reader);
    ctx->state = State::up;
}

void came_up(dal_ctx *ctx) {
    link_leave_loop(&ctx->reader);
    ctx->state = State::up;
    ctx->delay_ms = 0;
    platform_warning("<DAL>: the server %s answers again", ctx->async_address.text);
    audit_want(ctx);
}

}  // namespace

void start_timer(dal_ctx *ctx, uint32_t *slot, uint32_t interval_ms, DispTimerHandler handler, void *user_data) {
    Dispatcher *dispatcher = ctx->evloop->dispatcher;
    if (*slot || dispatcher->shutting_down)
        return;
    *slot = DispAddTimerInternal(dispatcher, interval_ms, handler, user_data, 0, 0, __func__, __LINE__);
}

void stop_timer(dal_ctx *ctx, uint32_t *slot) {
    if (*slot && !ctx->evloop->dispatcher->shutting_down)
        DispRemoveTimerInternal(ctx->evloop->dispatcher, *slot, __func__, __LINE__);
    *slot = 0;
}

void context_lost(dal_ctx *ctx, const char *reason) {
    // The reason may stand in a link or a reply that goes away below.
    char kept[sizeof ctx->reason];
    snprintf(kept, sizeof kept, "%s", reason[0] ? reason : "no reason given");
    if (ctx->state == State::up)
        platform_error("<DAL>: lost the server %s: %s", ctx->async_address.text, kept);
    else if (strcmp(kept, ctx->reason) != 0)
        platform_error("<DAL>: cannot reach the server %s: %s; trying again", ctx->async_address.text, kept);
    memcpy(ctx->reason, kept, sizeof kept);
    ctx->state = State::lost;
    ctx->report = true;
    if (ctx->publisher.expected)
        platform_warning("<DAL>: %u publications were not confirmed", ctx->publisher.expected);
    audit_stop(ctx);
    for (Link *link : {&ctx->reader, &ctx->subscriber, &ctx->publisher})
        link_close(link);
    stop_timer(ctx, &ctx->refused_timer);
    ctx->flags_refusal[0] = '\0';
    attempt_later(ctx);
}

void context_settle(dal_ctx *ctx) {
    if (ctx->state == State::asking && attempt_answered(ctx))
        came_up(ctx);
    if (ctx->state == State::up && ctx->report) {
        ctx->report = false;
        if (ctx->disconnect_cb)
            ctx->disconnect_cb();
    }
    notifications_deliver(ctx);
    audit_settle(ctx);
    if (ctx->audit.phase != AuditPhase::again && !link_watch(&ctx->subscriber))
        context_lost(ctx, ctx->subscriber.reason);
}

bool context_may_read(const Link *link) {
    const dal_ctx *ctx = link->ctx;
    const bool adds = link == &ctx->subscriber || (link == &ctx->auditor && ctx->audit.phase != AuditPhase::again);
    return !adds || ctx->state != State::up || !ctx->waiting.first;
}

void context_free(dal_ctx *ctx) {
    if (!ctx)
        return;
    audit_stop(ctx);
    for (Link *link : {&ctx->reader, &ctx->subscriber, &ctx->publisher})
        link_close(link);
    for (uint32_t *slot : {&ctx->attempt_timer, &ctx->refused_timer, &ctx->delivery_timer})
        stop_timer(ctx, slot);
    patterns_free(ctx);
    notifications_free(&ctx->waiting);
    free(ctx->evloop);
    free(ctx);
}

}  // namespace dal

using namespace dal;

dal_evloop_ctx *dal_evloop_ctx_init(Dispatcher *dispatcher, dal_evloop_op add_read, dal_evloop_op delete_read,
                                    dal_evloop_op add_write, dal_evloop_op delete_write, dal_evloop_op cleanup,
                                    dal_evloop_attach attach, void * /*reserved1*/, void * /*reserved2*/) {
    auto *evloop = static_cast<dal_evloop_ctx *>(malloc(sizeof(dal_evloop_ctx)));
    if (evloop)
        *evloop = {"", dispatcher, add_read, delete_read, add_write, delete_write, cleanup, attach};
    return evloop;
}

dal_ctx *dal_ctx_init(uint32_t connections, const char *sync_address, const char *async_address,
                      void (*disconnect_cb)(void), void * /*arg*/, dal_evloop_ctx *evloop) {
    if (!evloop)
        return nullptr;
    auto *ctx = static_cast<dal_ctx *>(calloc(1, sizeof(dal_ctx)));
    if (!ctx) {
        free(evloop);
        return nullptr;
    }
    ctx->connections = connections;
    ctx->evloop = evloop;
    ctx->disconnect_cb = disconnect_cb;
    bool found = address_choose(async_address, &ctx->async_address);
    if (sync_address || async_address)
        found = address_choose(sync_address, &ctx->sync_address) && found;
    else
        ctx->sync_address = ctx->async_address;
    if (!found) {
        context_free(ctx);
        return nullptr;
    }
    attempt_prepare_links(ctx);
    publisher_prepare(ctx);
    audit_prepare(ctx);
    connect_at_start(ctx);
    return ctx;
}
