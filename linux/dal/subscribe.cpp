/* Patterns: subscribing, confirmation and refusal. */
#include <stdlib.h>

#include "linux/clock.h"
#include "linux/dal/context.h"
#include "linux/platform_log.h"

namespace dal {

namespace {

constexpr char kCommand[] = "PSUBSCRIBE ";
constexpr uint32_t kRefusedAgainMs = 10000;
constexpr int64_t kBaselineMs = 1500; /**< of kAnswerMs, so that the confirmation has time left */

bool subscribe(dal_ctx *ctx, Pattern *pattern) {
    const Argument arguments[] = {argument("PSUBSCRIBE"), {pattern->text, pattern->length}};
    return link_send(&ctx->subscriber, Question::subscribe, pattern, arguments);
}

Pattern *add_pattern(dal_ctx *ctx, const char *text, size_t length) {
    auto *pattern = static_cast<Pattern *>(calloc(1, sizeof(Pattern)));
    char *copy = copy_bytes(text, length);
    if (!pattern || !copy) {
        free(pattern);
        free(copy);
        return nullptr;
    }
    pattern->text = copy;
    pattern->length = length;
    pattern->ctx = ctx;
    if (strncmp(copy, kKeyspacePrefix, strlen(kKeyspacePrefix)) == 0) {
        pattern->glob = copy + strlen(kKeyspacePrefix);
        pattern->glob_length = strlen(pattern->glob);
    }
    Pattern **end = &ctx->patterns;
    while (*end)
        end = &(*end)->next;
    *end = pattern;
    return pattern;
}

/** Calls `each` for every word of the command's patterns, until one fails. */
template <typename Each>
bool for_patterns(const char *patterns, Each each) {
    for (const char *word = patterns;; word++) {
        const size_t length = strcspn(word, " ");
        if (!each(word, length))
            return false;
        word += length;
        if (*word == '\0')
            return true;
    }
}

bool remember(dal_ctx *ctx, dal_sub_callback callback, void *arg, const char *text, size_t length) {
    Pattern *pattern = pattern_find(ctx, text, length);
    if (!pattern) {
        pattern = add_pattern(ctx, text, length);
        if (!pattern)
            return false;
        pattern->first = ctx->state == State::up && resync_is_possible(ctx, pattern);
    }
    pattern->callback = callback;
    pattern->arg = arg;
    pattern->reads = false;
    return true;
}

/** Whether the text is "PSUBSCRIBE" and patterns, none of them empty. */
bool well_formed(const char *command) {
    return strncmp(command, kCommand, strlen(kCommand)) == 0 &&
           for_patterns(command + strlen(kCommand), [](const char *, size_t length) { return length > 0; });
}

bool all_confirmed(const dal_ctx *ctx, const char *patterns) {
    return for_patterns(patterns,
                        [ctx](const char *text, size_t length) { return pattern_find(ctx, text, length)->confirmed; });
}

bool send_patterns(dal_ctx *ctx, const char *patterns) {
    return for_patterns(patterns, [ctx](const char *text, size_t length) {
        Pattern *pattern = pattern_find(ctx, text, length);
        pattern->confirmed = false;
        return subscribe(ctx, pattern);
    });
}

/** What stands is read after the subscription went out and before it is confirmed, so that this costs no time. */
void take_baselines(dal_ctx *ctx, const char *patterns, int64_t deadline) {
    for_patterns(patterns, [=](const char *text, size_t length) {
        Pattern *pattern = pattern_find(ctx, text, length);
        if (pattern->first)
            baseline_take(ctx, pattern, deadline);
        return true;
    });
}

/** Of a subscription that failed nobody can be sure that its keys have been read. */
void end_first(dal_ctx *ctx, bool confirmed) {
    for (Pattern *pattern = ctx->patterns; pattern; pattern = pattern->next) {
        if (pattern->first && !confirmed)
            known_free(&pattern->known);
        pattern->first = false;
    }
}

void on_refused_due(void *user_data) {
    auto *ctx = static_cast<dal_ctx *>(user_data);
    ctx->refused_timer = 0;
    for (Pattern *pattern = ctx->patterns; pattern && ctx->state == State::up; pattern = pattern->next)
        if (pattern->refused && !subscribe(ctx, pattern))
            context_lost(ctx, ctx->subscriber.reason);
    context_settle(ctx);
}

void refused(dal_ctx *ctx, Pattern *pattern, const redisReply *reply) {
    if (!pattern->refused)
        platform_error("<DAL>: the subscription to %s was refused: %s; trying again", pattern->text,
                       reply->type == REDIS_REPLY_ERROR ? reply->str : "an answer of the wrong kind");
    pattern->refused = true;
    pattern->confirmed = false;
    start_timer(ctx, &ctx->refused_timer, kRefusedAgainMs, on_refused_due, ctx);
}

bool is_confirmation(const redisReply *reply, const Pattern *pattern) {
    return reply->type == REDIS_REPLY_ARRAY && reply->elements == 3 && reply->element[0]->type == REDIS_REPLY_STRING &&
           strcmp(reply->element[0]->str, "psubscribe") == 0 && reply->element[1]->type == REDIS_REPLY_STRING &&
           reply->element[1]->len == pattern->length &&
           memcmp(reply->element[1]->str, pattern->text, pattern->length) == 0;
}

}  // namespace

Pattern *pattern_find(const dal_ctx *ctx, const char *text, size_t length) {
    Pattern *pattern = ctx->patterns;
    while (pattern && !(pattern->length == length && memcmp(pattern->text, text, length) == 0))
        pattern = pattern->next;
    return pattern;
}

bool subscribe_all(dal_ctx *ctx) {
    for (Pattern *pattern = ctx->patterns; pattern; pattern = pattern->next)
        if (!subscribe(ctx, pattern))
            return false;
    return true;
}

void subscribe_answered(Link *link, Pattern *pattern, const redisReply *reply) {
    dal_ctx *ctx = link->ctx;
    if (!is_confirmation(reply, pattern))
        return refused(ctx, pattern, reply);
    if (pattern->refused) {
        platform_warning("<DAL>: the subscription to %s is accepted now", pattern->text);
        // Its changes of the meantime were missed, as in a loss.
        ctx->report = true;
        audit_want_from_call(ctx);
    }
    pattern->refused = false;
    pattern->confirmed = true;
}

void patterns_free(dal_ctx *ctx) {
    while (Pattern *pattern = ctx->patterns) {
        ctx->patterns = pattern->next;
        known_free(&pattern->known);
        free(pattern->text);
        free(pattern);
    }
}

}  // namespace dal

using namespace dal;

int dal_sub_command(dal_ctx *ctx, dal_sub_callback callback, void *arg, const char *command) {
    if (!ctx || !callback || !command || !(ctx->connections & DAL_CTX_SUBSCRIBE))
        return -1;
    if (!well_formed(command)) {
        platform_error("<DAL>: '%s' is no PSUBSCRIBE with patterns", command);
        return -1;
    }
    const char *patterns = command + strlen(kCommand);
    const auto remember_each = [=](const char *text, size_t length) {
        return remember(ctx, callback, arg, text, length);
    };
    if (!for_patterns(patterns, remember_each))
        return -1;
    const bool asking = ctx->state == State::asking && ctx->subscriber_ready;
    if (ctx->state != State::up && !asking)
        return -1;
    const int64_t begin = monotonic_ms();
    bool done = send_patterns(ctx, patterns);
    if (done && !asking) {
        take_baselines(ctx, patterns, begin + kBaselineMs);
        done = link_wait(&ctx->subscriber, begin + kAnswerMs);
    }
    // An attempt under way takes the patterns along; a call does not wait for it.
    if (!done && ctx->state != State::lost)
        context_lost(ctx, ctx->subscriber.reason);
    const bool confirmed = ctx->state == State::up && all_confirmed(ctx, patterns);
    end_first(ctx, confirmed);
    return confirmed ? 0 : -1;
}
