/* Publications: queued on a connection of their own, which the first one opens. */
#include "linux/dal/context.h"
#include "linux/platform_log.h"

namespace dal {

namespace {

constexpr size_t kMostUnsent = 1 << 20;      /**< bytes queued for a server that does not take them */
constexpr uint32_t kMostUnanswered = 100000; /**< publications that a server took and did not answer */

void on_answer(Link *, const Expected *, redisReply *reply) {
    if (reply->type == REDIS_REPLY_ERROR)
        platform_warning("<DAL>: a publication was refused: %s", reply->str);
}

/** A server that does not answer is lost; that it closed this one connection means no more than that. */
void on_failed(Link *link) {
    if (!link->closed)
        return context_lost(link->ctx, link->reason);
    if (link->expected)
        platform_warning("<DAL>: %u publications were not confirmed", link->expected);
    link_close(link);
}

/** An open link. One that was idle may have been closed by the server without the loop having seen it yet. */
bool ready(Link *link) {
    if (link->context && link->expected == 0 && !link_receive(link))
        on_failed(link);
    return link->context || (link->ctx->state == State::up && link_open(link, true));
}

}  // namespace

void publisher_prepare(dal_ctx *ctx) {
    ctx->publisher.ctx = ctx;
    ctx->publisher.address = &ctx->async_address;
    ctx->publisher.on_answer = on_answer;
    ctx->publisher.on_failed = on_failed;
}

}  // namespace dal

using namespace dal;

int dal_async_pub(dal_ctx *ctx, const char *channel, uint32_t channel_len, const void *data, uint32_t data_len) {
    if (!ctx || ctx->state != State::up || !(ctx->connections & DAL_CTX_PUBLISH))
        return -1;
    Link *link = &ctx->publisher;
    if (link_unsent(link) + channel_len + data_len > kMostUnsent || link->expected >= kMostUnanswered) {
        platform_warning("<DAL>: too much waits to be published");
        return -1;
    }
    const Argument arguments[] = {
        argument("PUBLISH"), {channel, channel_len}, {static_cast<const char *>(data), data_len}};
    if (ready(link) && link_send(link, Question::publish, nullptr, arguments))
        return 0;
    if (ctx->state == State::up)
        context_lost(ctx, link->reason);
    return -1;
}
