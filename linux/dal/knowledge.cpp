/* What subscribers know of their keys, and how it follows from deliveries and from their own reads. */
#include "linux/dal/context.h"
#include "linux/dal/glob.h"
#include "linux/platform_log.h"

namespace dal {

namespace {

/** Whether the event says that the key has another value, in a text that a subscriber understands. */
bool is_change(const char *event) {
    const int type = dal_keyspace_notify_type(event);
    return type != 0 && type != DAL_NOTIFY_DEL && type != DAL_NOTIFY_EXPIRE;
}

bool is_hash_event(const char *event) {
    const int type = dal_keyspace_notify_type(event);
    return type == DAL_NOTIFY_HSET || type == DAL_NOTIFY_HDEL;
}

void set_reading(KnownKey *known, const Reading *reading) {
    known->digest = reading->digest;
    known->is_hash = reading->is_hash;
}

/** Outside a delivery: the one pattern that the key belongs to; NULL where it is not clear who reads. */
Pattern *only_pattern_of(const dal_ctx *ctx, const char *key, size_t length) {
    Pattern *only = nullptr;
    for (Pattern *pattern = ctx->patterns; pattern; pattern = pattern->next) {
        if (!pattern->glob || !glob_matches(pattern->glob, pattern->glob_length, key, length))
            continue;
        if (only)
            return nullptr;
        only = pattern;
    }
    return only;
}

/** The key is as `reading` says, and is about to be told so. */
void know_value(dal_ctx *ctx, Pattern *pattern, const Notification *finding, const Reading *reading) {
    KnownKey *known = known_put(&pattern->known, key_of(finding), key_length_of(finding), ctx->audit.number);
    if (known)
        set_reading(known, reading);
}

/** The key was read before anything was delivered of it. Its value still is to be told; but if it goes away, whoever
 * has read it has to be told that as well. */
void know_untold(const dal_ctx *ctx, Pattern *pattern, const char *key, size_t length, const redisReply *reply,
                 bool as_hash) {
    // A callback reads any key, also one that is never delivered.
    const bool is_its_own =
        glob_matches(pattern->glob, pattern->glob_length, key, length) && !memchr(key, '\0', length);
    if (!is_its_own || !reply || reading_of(reply, as_hash).found != Found::value)
        return;
    KnownKey *known = known_put(&pattern->known, key, length, ctx->audit.number);
    if (!known)
        return;
    known->is_hash = as_hash;
    known->reads = pattern->reads;
}

/** That a hash cannot be read as a string, or the other way round, says nothing of what it holds. */
bool reads_as_other_type(const KnownKey *known, const redisReply *reply, bool as_hash) {
    return known && !reply && known->digest != kUnknownDigest && known->is_hash != as_hash;
}

}  // namespace

bool resync_is_possible(const dal_ctx *ctx, const Pattern *pattern) {
    constexpr uint32_t kNeeded = DAL_CTX_SYNC | DAL_CTX_SUBSCRIBE;
    return pattern->glob && (ctx->connections & kNeeded) == kNeeded;
}

void knowledge_before(dal_ctx *ctx, const Notification *notification, const char *event) {
    Pattern *pattern = notification->pattern;
    if (!resync_is_possible(ctx, pattern))
        return;
    const char *key = key_of(notification);
    const size_t length = key_length_of(notification);
    if (dal_keyspace_notify_type(event) == DAL_NOTIFY_DEL)
        return known_remove(&pattern->known, key, length);
    if (!is_change(event))
        return;
    const size_t before = pattern->known.count;
    KnownKey *known = known_put(&pattern->known, key, length, ctx->audit.number);
    if (!known)
        return;
    if (pattern->known.count > before)
        known->reads = pattern->reads;
    known->digest = kUnknownDigest;
    if (known->reads || known->too_large || notification->tried)
        return;
    const Reading reading = read_key(ctx, key, length, known->is_hash || is_hash_event(event));
    set_reading(known, &reading);
    if (reading.is_hash != is_hash_event(event))
        known->digest = kUnknownDigest;  // who is told of a string does not look for a hash
}

bool knowledge_too_large(dal_ctx *ctx, Pattern *pattern, const char *key, size_t length) {
    KnownKey *known = known_put(&pattern->known, key, length, ctx->audit.number);
    if (!known)
        return false;
    if (!known->too_large)
        platform_warning("<DAL>: the value of %s is too large to be compared", key);
    known->seen = ctx->audit.number;
    known->too_large = true;
    return true;
}

const char *knowledge_of_finding(dal_ctx *ctx, const Notification *finding, const Reading *reading) {
    Pattern *pattern = finding->pattern;
    const char *key = key_of(finding);
    const size_t length = key_length_of(finding);
    const KnownKey *known = known_find(&pattern->known, key, length);
    if (reading->found == Found::too_large)
        knowledge_too_large(ctx, pattern, key, length);
    if (reading->found == Found::refused || reading->found == Found::too_large ||
        (known && reading->digest == known->digest && reading->digest))
        return nullptr;
    if (reading->found == Found::value) {
        know_value(ctx, pattern, finding, reading);
        return reading->is_hash ? "hset" : "set";
    }
    if (known && !finding->gone) {
        audit_want(ctx);  // which sees whether it is gone alone or with all the others
        return nullptr;
    }
    known_remove(&pattern->known, key, length);
    return known ? "del" : nullptr;
}

void knowledge_behind(dal_ctx *ctx, const char *event) {
    const Notification *notification = ctx->delivering.notification;
    Pattern *pattern = notification->pattern;
    if (!resync_is_possible(ctx, pattern) || !is_change(event))
        return;
    pattern->reads = ctx->delivering.read;
    KnownKey *known = known_find(&pattern->known, key_of(notification), key_length_of(notification));
    if (known)
        known->reads = pattern->reads;
}

void known_note_read(dal_ctx *ctx, const char *key, size_t length, const redisReply *reply, bool as_hash) {
    if (!ctx)
        return;
    Delivering *delivering = &ctx->delivering;
    Pattern *pattern = delivering->pattern ? delivering->pattern : only_pattern_of(ctx, key, length);
    if (!pattern || !resync_is_possible(ctx, pattern))
        return;
    KnownKey *known = known_find(&pattern->known, key, length);
    if (reads_as_other_type(known, reply, as_hash))
        return;
    const Notification *notification = delivering->notification;
    if (notification && key_length_of(notification) == length && memcmp(key_of(notification), key, length) == 0)
        delivering->read = true;
    if (!known)
        return know_untold(ctx, pattern, key, length, reply, as_hash);
    const Reading nothing{Found::nothing, known->is_hash, kUnknownDigest};
    const Reading reading = reply ? reading_of(reply, as_hash) : nothing;
    set_reading(known, &reading);
}

}  // namespace dal
