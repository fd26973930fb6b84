/*
 * Client tracking: a server that offers it tells of a flush, which is no key's event, as of an invalidation of
 * everything.
 *
 * The subscriber's own connection is the one tracked and the one told, so that both end together. It opts in for no
 * key: the server remembers none.
 */
#include <stdio.h>

#include "linux/dal/context.h"
#include "linux/platform_log.h"

namespace dal {

namespace {

constexpr char kChannel[] = "__redis__:invalidate";

bool is_text(const redisReply *reply, const char *text) {
    return reply->type == REDIS_REPLY_STRING && strcmp(reply->str, text) == 0;
}

void say_refused(dal_ctx *ctx, const redisReply *reply) {
    if (!ctx->tracking.said)
        platform_info("<DAL>: no client tracking, a flush is noticed by the next comparison: %s",
                      reply->type == REDIS_REPLY_ERROR ? reply->str : "an answer of the wrong kind");
    ctx->tracking.said = true;
}

}  // namespace

bool tracking_ask_client(Link *link) {
    link->ctx->tracking.client = 0;
    if (!(link->ctx->connections & DAL_CTX_SYNC))
        return true;  // nothing is compared
    const Argument arguments[] = {argument("CLIENT"), argument("ID")};
    return link_queue(link, Question::client_id, nullptr, arguments);
}

void tracking_client_answered(Link *link, const redisReply *reply) {
    if (reply->type == REDIS_REPLY_INTEGER)
        link->ctx->tracking.client = reply->integer;
    else
        say_refused(link->ctx, reply);
}

bool tracking_begin(Link *link) {
    if (link->ctx->tracking.client == 0)
        return true;
    char client[24];
    snprintf(client, sizeof client, "%lld", link->ctx->tracking.client);
    const Argument tracking[] = {argument("CLIENT"),   argument("TRACKING"), argument("ON"),
                                 argument("REDIRECT"), argument(client),     argument("OPTIN")};
    const Argument subscription[] = {argument("SUBSCRIBE"), argument(kChannel)};
    return link_queue(link, Question::tracking, nullptr, tracking) &&
           link_send(link, Question::tracking, nullptr, subscription);
}

void tracking_answered(Link *link, const redisReply *reply) {
    const bool tracked = reply->type == REDIS_REPLY_STATUS;
    const bool subscribed = reply->type == REDIS_REPLY_ARRAY && reply->elements == 3 &&
                            is_text(reply->element[0], "subscribe") && is_text(reply->element[1], kChannel);
    if (!tracked && !subscribed)
        say_refused(link->ctx, reply);
}

bool tracking_take(dal_ctx *ctx, const redisReply *reply) {
    if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 3 || !is_text(reply->element[0], "message") ||
        !is_text(reply->element[1], kChannel))
        return false;
    if (reply->element[2]->type == REDIS_REPLY_NIL)
        audit_flushed(ctx);
    return true;
}

}  // namespace dal
