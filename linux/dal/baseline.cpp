/* The keys that stand when a pattern is first subscribed to: whoever subscribes reads them by himself. */
#include "linux/clock.h"
#include "linux/dal/context.h"
#include "linux/dal/glob.h"
#include "linux/platform_log.h"

namespace dal {

namespace {

bool is_wanted(const Walk *, const char *, size_t, bool *) {
    return true;  // the server has chosen
}

bool take(Walk *walk, const WalkKey *key, const Reading *reading) {
    auto *pattern = static_cast<Pattern *>(walk->user_data);
    if (reading->found != Found::value && reading->found != Found::too_large)
        return true;
    KnownKey *known = known_put(&pattern->known, key->text, key->length, pattern->ctx->audit.number);
    if (!known)
        return false;
    known->digest = reading->digest;
    known->is_hash = reading->is_hash;
    return true;
}

/** Reads on without the value that is too large. */
bool resume(Link *link, Walk *walk) {
    link_close(link);
    return link_open(link, false) && walk_resume(walk);
}

/** One try. False when the link failed. */
bool try_once(Link *link, Pattern *pattern, Walk *walk, int64_t deadline) {
    if (!link->context && !link_open(link, false))
        return false;
    *walk = {};
    walk->link = link;
    walk->match = pattern->glob;
    walk->together = true;
    walk->user_data = pattern;
    walk->wanted = is_wanted;
    walk->take = take;
    link->walk = walk;
    if (glob_is_plain(pattern->glob))
        walk_begin_with_key(walk, pattern->glob, pattern->glob_length);
    else
        walk_begin(walk);
    bool answered = link_wait(link, deadline);
    while (!answered && link->too_large && resume(link, walk))
        answered = link_wait(link, deadline);
    link->walk = nullptr;
    walk_end(walk);
    return answered && walk->state != WalkState::broken;
}

}  // namespace

void baseline_take(dal_ctx *ctx, Pattern *pattern, int64_t deadline) {
    Link *link = &ctx->reader;
    Walk walk;
    bool answered = try_once(link, pattern, &walk, deadline);
    if (!answered && link->closed) {
        link_close(link);  // it was idle for long
        answered = try_once(link, pattern, &walk, deadline);
    }
    // A late answer must answer no later question. Whether the server is lost is seen by who asks next.
    if (!answered)
        link_close(link);
    if (answered && walk.state == WalkState::done)
        return;
    platform_info("<DAL>: not all keys of %s could be read; they will be delivered: %s", pattern->text,
                  answered ? walk.reason : link->reason);
    // At once: of the end of a key that it does not know by then, the subscriber is not told.
    audit_want_from_call(ctx);
}

}  // namespace dal
