/*
 * Comparisons of what subscribers know with what is there, on a link of their own that is open while one lasts and what
 * it has found waits: behind all notifications received before, to be read again when its turn comes.
 */
#include <stdio.h>

#include "linux/dal/answer.h"
#include "linux/dal/audit_guard.h"
#include "linux/dal/context.h"
#include "linux/dal/glob.h"
#include "linux/platform_log.h"

namespace dal {

namespace {

constexpr uint32_t kAgainMs = 10000;          /**< after one that was given up */
constexpr size_t kMostFindingBytes = 4 << 20; /**< of one comparison; what else there is, the next one finds */

bool matches(const Pattern *pattern, const char *key, size_t length) {
    return pattern->compared && glob_matches(pattern->glob, pattern->glob_length, key, length);
}

/** Chooses the patterns that take part: those that the server has confirmed by now. */
bool choose_patterns(dal_ctx *ctx) {
    bool any = false;
    for (Pattern *pattern = ctx->patterns; pattern; pattern = pattern->next) {
        pattern->compared = resync_is_possible(ctx, pattern) && pattern->confirmed;
        // A timer that could not be started has passed as well.
        if (pattern->compared && pattern->suspicion == Suspicion::waiting && !pattern->suspect_timer)
            pattern->suspicion = Suspicion::decides;
        any = any || pattern->compared;
    }
    return any;
}

void end(dal_ctx *ctx) {
    walk_end(&ctx->audit.walk);
    notifications_free(&ctx->audit.findings);
    ctx->audit.again_read = false;
    ctx->audit.phase = AuditPhase::none;
}

void close_link(dal_ctx *ctx) {
    link_close(&ctx->auditor);
    end(ctx);
}

void on_again_due(void *user_data) {
    auto *ctx = static_cast<dal_ctx *>(user_data);
    ctx->audit.timer = 0;
    audit_want(ctx);
    context_settle(ctx);
}

/** Nothing of it is delivered. */
void give_up(dal_ctx *ctx, const char *reason) {
    Audit *audit = &ctx->audit;
    char kept[sizeof audit->said];
    snprintf(kept, sizeof kept, "%s", reason);
    if (strcmp(kept, audit->said) != 0)
        platform_warning("<DAL>: the keys are not compared with what is known of them: %s; trying again", kept);
    memcpy(audit->said, kept, sizeof kept);
    close_link(ctx);
    notifications_drop_findings(ctx);
    start_timer(ctx, &audit->timer, kAgainMs, on_again_due, ctx);
}

void follow_walk(dal_ctx *ctx);

/** The first finding that waits is read again. */
void finish_again(dal_ctx *ctx, const Reading &reading) {
    ctx->audit.phase = AuditPhase::none;
    ctx->audit.again_read = true;
    ctx->audit.again = reading;
}

/** The same, of one whose value has become too large. */
bool pass_over(dal_ctx *ctx) {
    link_close(&ctx->auditor);
    finish_again(ctx, {Found::too_large, false, kUnknownDigest});
    return true;
}

/** Reads on, on a connection of its own again, without the value that is too large. */
bool resume(dal_ctx *ctx) {
    link_close(&ctx->auditor);
    if (!link_open(&ctx->auditor, true) || !walk_resume(&ctx->audit.walk))
        return false;
    follow_walk(ctx);
    return true;
}

/** Whether it goes on though the link failed. */
bool goes_on(dal_ctx *ctx) {
    Link *link = &ctx->auditor;
    switch (ctx->audit.phase) {
        case AuditPhase::none:  // not needed at the moment
            link_close(link);
            return true;
        case AuditPhase::walking:
            return link->too_large && resume(ctx);
        case AuditPhase::again:
            return link->too_large && pass_over(ctx);
        default:
            return false;
    }
}

/** A server that does not answer is lost; that this one connection failed means no more than that. */
void on_failed(Link *link) {
    dal_ctx *ctx = link->ctx;
    if (goes_on(ctx))
        return;
    if (!link->silent)
        return give_up(ctx, link->reason);
    if (ctx->audit.phase == AuditPhase::again)
        ctx->waiting.first->tried = true;
    context_lost(ctx, link->reason);
}

bool add_finding(dal_ctx *ctx, Pattern *pattern, const char *key, size_t length, bool gone) {
    Notifications *findings = &ctx->audit.findings;
    if (findings->bytes >= kMostFindingBytes) {
        ctx->audit.cut = true;
        return true;
    }
    Notification *finding = notification_make_finding(pattern, key, length);
    if (!finding)
        return false;
    finding->gone = gone;
    notifications_append(findings, finding);
    return true;
}

bool is_wanted(const Walk *walk, const char *key, size_t length, bool *as_hash) {
    const auto *ctx = static_cast<const dal_ctx *>(walk->user_data);
    bool wanted = false;
    for (const Pattern *pattern = ctx->patterns; pattern; pattern = pattern->next) {
        if (!matches(pattern, key, length))
            continue;
        const KnownKey *known = known_find(&pattern->known, key, length);
        *as_hash = *as_hash || (known && known->is_hash);
        wanted = true;
    }
    return wanted;
}

bool take_value(dal_ctx *ctx, Pattern *pattern, const WalkKey *key, const Reading *reading) {
    KnownKey *known = known_find(&pattern->known, key->text, key->length);
    if (known) {
        known->seen = ctx->audit.number;
        known->too_large = false;
    }
    return (known && known->digest == reading->digest) || add_finding(ctx, pattern, key->text, key->length, false);
}

bool take(Walk *walk, const WalkKey *key, const Reading *reading) {
    auto *ctx = static_cast<dal_ctx *>(walk->user_data);
    bool complete = true;
    for (Pattern *pattern = ctx->patterns; pattern; pattern = pattern->next) {
        if (!matches(pattern, key->text, key->length))
            continue;
        if (reading->found == Found::value)
            complete = take_value(ctx, pattern, key, reading) && complete;
        else if (reading->found == Found::too_large)
            complete = knowledge_too_large(ctx, pattern, key->text, key->length) && complete;
    }
    return complete;
}

void on_suspect_due(void *user_data) {
    auto *pattern = static_cast<Pattern *>(user_data);
    pattern->suspect_timer = 0;
    audit_want(pattern->ctx);
    context_settle(pattern->ctx);
}

void clear_suspicion(Pattern *pattern) {
    stop_timer(pattern->ctx, &pattern->suspect_timer);
    pattern->suspicion = Suspicion::none;
}

/** Keys that were known before the comparison, and how many of them it has not found. */
struct Missing {
    size_t missing;
    size_t of;
};

Missing count_missing(const Pattern *pattern, uint32_t number) {
    Missing count{};
    known_for_each(&pattern->known, [&count, number](const KnownKey *known) {
        count.of += known->born != number;
        count.missing += known->seen != number;
    });
    return count;
}

void suspect(Pattern *pattern, size_t count) {
    platform_info("<DAL>: all %zu keys of %s are gone; looking again before that is delivered", count, pattern->text);
    pattern->suspicion = Suspicion::waiting;
    start_timer(pattern->ctx, &pattern->suspect_timer, kSuspectMs, on_suspect_due, pattern);
}

void doubt(Pattern *pattern) {
    pattern->suspicion = Suspicion::some;
    audit_want(pattern->ctx);
}

/** Whether the pattern's missing keys are to be believed. */
bool is_believed(Pattern *pattern, const Missing &count) {
    const Suspicion before = pattern->suspicion;
    if (count.missing == 0 || before == Suspicion::decides)
        return true;
    if (before != Suspicion::waiting && count.missing == count.of)
        suspect(pattern, count.of);
    else if (before == Suspicion::none)
        doubt(pattern);
    return before == Suspicion::some && pattern->suspicion == before;
}

bool add_missing(dal_ctx *ctx) {
    const uint32_t number = ctx->audit.number;
    bool complete = true;
    for (Pattern *pattern = ctx->patterns; pattern; pattern = pattern->next) {
        if (!pattern->compared || !is_believed(pattern, count_missing(pattern, number)))
            continue;
        known_for_each(&pattern->known, [=, &complete](const KnownKey *known) {
            if (known->seen != number)
                complete = add_finding(ctx, pattern, known->text, known->length, true) && complete;
        });
        if (!ctx->audit.cut)  // what there is no room for now has been believed as well
            clear_suspicion(pattern);
    }
    return complete;
}

/** Takes in what the server has told before its last answer: that it was flushed makes an end of the comparison. */
bool hear_of_flush(dal_ctx *ctx) {
    if (!link_receive(&ctx->subscriber))
        context_lost(ctx, ctx->subscriber.reason);
    return ctx->audit.phase == AuditPhase::none;
}

void finish(dal_ctx *ctx) {
    Audit *audit = &ctx->audit;
    if (hear_of_flush(ctx))
        return;
    // What was not looked at cannot be missing.
    if (!audit->cut && !add_missing(ctx))
        return give_up(ctx, "memory is short");
    notifications_append_all(ctx, &audit->findings);
    audit->said[0] = '\0';
    audit->wanted = audit->wanted || audit->cut;
    end(ctx);
}

/** Asks how the server stands. */
bool ask_guard(dal_ctx *ctx) {
    const Argument info = argument("INFO");
    return link_send(&ctx->auditor, Question::info, nullptr, {&info, 1});
}

void take_guard(dal_ctx *ctx, const redisReply *reply) {
    Audit *audit = &ctx->audit;
    if (reply->type == REDIS_REPLY_ERROR && !audit->unguarded) {
        platform_warning("<DAL>: the server does not tell whether it is fit to be compared: %s", reply->str);
        audit->unguarded = true;
    }
    if (const char *reason = guard_objection(reply))
        return give_up(ctx, reason);
    if (audit->phase == AuditPhase::behind)
        return finish(ctx);
    if (!flags_ask(&ctx->auditor))
        on_failed(&ctx->auditor);
}

/** Goes on where the walk has come to. */
void follow_walk(dal_ctx *ctx) {
    Audit *audit = &ctx->audit;
    if (audit->walk.state == WalkState::refused)
        return give_up(ctx, audit->walk.reason);
    const bool done = audit->walk.state == WalkState::done;
    const bool failed = audit->walk.state == WalkState::broken;
    if (done)
        audit->phase = AuditPhase::behind;
    if (failed || (done && !ask_guard(ctx)))
        on_failed(&ctx->auditor);
}

bool ask_again(dal_ctx *ctx, bool as_hash) {
    const Notification *finding = ctx->waiting.first;
    ctx->audit.again.is_hash = as_hash;
    const Argument arguments[] = {argument(as_hash ? "HGETALL" : "GET"), {key_of(finding), key_length_of(finding)}};
    return link_send(&ctx->auditor, Question::value, nullptr, arguments);
}

void take_again(dal_ctx *ctx, const redisReply *reply) {
    Audit *audit = &ctx->audit;
    const bool second = audit->again.found == Found::other_type;
    audit->again = answer_reading(&ctx->auditor, reply, audit->again.is_hash);
    if (second || audit->again.found != Found::other_type)
        finish_again(ctx, audit->again);
    else if (!ask_again(ctx, !audit->again.is_hash))
        on_failed(&ctx->auditor);
}

void on_answer(Link *link, const Expected *expected, redisReply *reply) {
    dal_ctx *ctx = link->ctx;
    if (ctx->audit.phase == AuditPhase::again)
        return take_again(ctx, reply);
    switch (expected->question) {
        case Question::info:
            return take_guard(ctx, reply);
        case Question::read_flags:
            return flags_read(link, reply);
        case Question::set_flags:
            return flags_set(link, reply);
        default:
            walk_answered(&ctx->audit.walk, expected->question, reply);
            return follow_walk(ctx);
    }
}

void begin(dal_ctx *ctx) {
    Audit *audit = &ctx->audit;
    audit->wanted = false;
    audit->cut = false;
    if (!choose_patterns(ctx))
        return;
    audit->number++;
    audit->phase = AuditPhase::before;
    stop_timer(ctx, &audit->timer);
    if (!link_open(&ctx->auditor, true) || !ask_guard(ctx))
        on_failed(&ctx->auditor);
}

}  // namespace

void audit_prepare(dal_ctx *ctx) {
    ctx->auditor.ctx = ctx;
    ctx->auditor.address = &ctx->sync_address;
    ctx->auditor.on_answer = on_answer;
    ctx->auditor.on_failed = on_failed;
}

void audit_want(dal_ctx *ctx) {
    ctx->audit.wanted = true;
}

void audit_want_from_call(dal_ctx *ctx) {
    audit_want(ctx);
    delivery_schedule(ctx);
}

void audit_flushed(dal_ctx *ctx) {
    close_link(ctx);
    audit_want_from_call(ctx);
}

void audit_settle(dal_ctx *ctx) {
    if (ctx->audit.phase != AuditPhase::none || ctx->waiting.first)
        return;
    link_close(&ctx->auditor);
    if (ctx->audit.wanted && ctx->state == State::up)
        begin(ctx);
}

const Reading *audit_read_again(dal_ctx *ctx, const Notification *finding) {
    Audit *audit = &ctx->audit;
    if (audit->again_read) {
        audit->again_read = false;
        return &audit->again;
    }
    if (audit->phase == AuditPhase::again)
        return nullptr;
    const KnownKey *known = known_find(&finding->pattern->known, key_of(finding), key_length_of(finding));
    audit->phase = AuditPhase::again;
    audit->again.found = Found::nothing;
    if ((!ctx->auditor.context && !link_open(&ctx->auditor, true)) || !ask_again(ctx, known && known->is_hash))
        on_failed(&ctx->auditor);
    return nullptr;
}

void audit_flags_finished(dal_ctx *ctx) {
    Walk *walk = &ctx->audit.walk;
    ctx->audit.phase = AuditPhase::walking;
    *walk = {};
    walk->link = &ctx->auditor;
    walk->user_data = ctx;
    walk->wanted = is_wanted;
    walk->take = take;
    walk_begin(walk);
    follow_walk(ctx);
}

void audit_stop(dal_ctx *ctx) {
    close_link(ctx);
    ctx->audit.wanted = false;
    stop_timer(ctx, &ctx->audit.timer);
    for (Pattern *pattern = ctx->patterns; pattern; pattern = pattern->next)
        clear_suspicion(pattern);
}

}  // namespace dal
