/*
 * A DAL context: its connections, what is subscribed to, what waits to be delivered, and how it stands.
 */
#pragma once

#include "linux/dal/known.h"
#include "linux/dal/link.h"
#include "linux/dal/walk.h"
#include "platform/dal.h"

namespace dal {

/** How the context stands with its server. */
enum class State {
    lost,   /**< no connection; the timer begins the next attempt */
    asking, /**< an attempt: connections are open, their answers are awaited in the loop */
    up,     /**< calls are answered */
};

/** What a comparison thinks of a pattern of whose keys it has found some or all gone. */
enum class Suspicion {
    none,
    some,    /**< some, where all may have gone in the midst of it: another one follows at once and has to agree */
    waiting, /**< it was the first to find all gone; those that begin before the time has passed change nothing */
    decides, /**< one has begun after that time */
};

/** A pattern that was ever subscribed to; kept as long as the context. */
struct Pattern {
    Pattern *next;
    dal_sub_callback callback;
    void *arg;
    bool confirmed; /**< by the server, on the connection that stands */
    bool refused;   /**< the last answer was a refusal */
    size_t length;
    char *text;

    /* Of a pattern of keyspace notifications; for others `glob` is NULL and nothing is known. */
    dal_ctx *ctx;
    const char *glob; /**< the keys it stands for: the end of `text` */
    size_t glob_length;
    Known known;
    bool first;             /**< its first subscription is being made on a connection that stands */
    bool reads;             /**< what KnownKey::reads begins with: as at the last delivery */
    bool compared;          /**< takes part in the comparison under way */
    Suspicion suspicion;    /**< that the store is empty only because others are about to fill it again */
    uint32_t suspect_timer; /**< until the comparison that has to agree */
};

/** A notification that waits for its delivery. */
struct Notification {
    Notification *next;
    Notification *previous;
    Notification *same_slot; /**< in Repeats */
    uint64_t hash;
    Pattern *pattern;
    size_t size; /**< of the record with its texts */
    size_t channel_length;
    size_t data_length;
    char *channel; /**< NUL-terminated, no NUL inside */
    char *data;    /**< NUL-terminated beyond data_length */
    bool finding;  /**< of a comparison: what is delivered, if anything, is seen when its turn comes; `data` is empty */
    bool gone;     /**< a finding: the key was not there */
    bool tried;    /**< the server was lost when its turn had come: its key is not read for it again */
};

struct Notifications {
    Notification *first;
    Notification *last;
    size_t bytes;
};

/** Keyspace notifications that wait, by what they say: one that comes again takes the place of the one before. */
struct Repeats {
    static constexpr size_t kSlots = 1024;
    Notification *slots[kSlots];
};

/** The delivery under way: what its callback reads of that pattern's keys, its subscriber has seen. */
struct Delivering {
    Pattern *pattern; /**< NULL while none is */
    const Notification *notification;
    bool read; /**< the notification's key was read whole */
};

/** How far a comparison of what is known with what is there has got. */
enum class AuditPhase {
    none,
    before,  /**< whether the server is fit to be compared is asked, and the flags are looked after */
    walking, /**< keys are read */
    behind,  /**< whether it still is */
    again,   /**< behind it: the key of a finding whose turn has come is read again */
};
struct Audit {
    AuditPhase phase;
    bool wanted;            /**< the next one begins as soon as it can */
    bool cut;               /**< there were more findings than there is room for */
    bool unguarded;         /**< the server does not tell how it stands, which was said */
    uint32_t number;        /**< of the last comparison begun */
    uint32_t timer;         /**< of the next one after one that was given up */
    Notifications findings; /**< of the one under way */
    Walk walk;
    bool again_read; /**< the first finding that waits was read again: `again` is what it is now */
    Reading again;
    char said[160]; /**< why the last one was given up, so that the same is logged once */
};

/** Client tracking, through which a flush is told of at once. */
struct Tracking {
    long long client; /**< the subscriber's number at the server; 0 while it is not known */
    bool said;        /**< that there is none */
};

}  // namespace dal

struct dal_ctx {
    uint32_t connections;
    dal_evloop_ctx *evloop;
    void (*disconnect_cb)(void);
    dal::Address sync_address;
    dal::Address async_address;

    dal::State state;
    bool report;      /**< the disconnect callback is due once the server is back */
    char reason[200]; /**< why the last attempt failed, so that the same is logged once */
    uint32_t delay_ms;
    uint32_t attempt_timer;
    uint32_t refused_timer;
    uint32_t delivery_timer;

    dal::Link reader;      /**< in the loop only while an attempt lasts */
    dal::Link subscriber;  /**< always in the loop */
    dal::Link publisher;   /**< in the loop, opened by the first publication */
    dal::Link auditor;     /**< in the loop, open while a comparison lasts and its findings wait */
    bool reader_answered;  /**< the attempt's reader was answered with PONG */
    bool subscriber_ready; /**< the attempt's subscriber has got so far that patterns may be subscribed to */

    dal::Pattern *patterns;
    dal::Notifications waiting;
    dal::Repeats repeats; /**< of those in `waiting` */
    dal::Delivering delivering;
    dal::Audit audit;
    dal::Tracking tracking;
    char flags_refusal[200]; /**< why the flags could not be looked after on this connection */
};

namespace dal {

/** Starts a one-shot timer of the loop in an empty slot. 0 stays in the slot when that fails. */
void start_timer(dal_ctx *ctx, uint32_t *slot, uint32_t interval_ms, DispTimerHandler handler, void *user_data);
void stop_timer(dal_ctx *ctx, uint32_t *slot);

/** Begins an attempt to reach the server. Whatever follows comes through the links' handlers. */
void attempt_begin(dal_ctx *ctx);

/** Whether the attempt has got all answers that make the server reachable. */
bool attempt_answered(const dal_ctx *ctx);

/** Begins the next attempt later; an attempt that is due already stays. */
void attempt_later(dal_ctx *ctx);

/** Gives the subscriber's, reader's and publisher's links what they do. */
void attempt_prepare_links(dal_ctx *ctx);
void publisher_prepare(dal_ctx *ctx);

/** Closes every connection and begins again later. Nothing is called back from here. */
void context_lost(dal_ctx *ctx, const char *reason);

/** End of every handler of the loop: finishes an attempt, calls back what is due, delivers what waits. */
void context_settle(dal_ctx *ctx);

/** False while notifications wait that a readable link would only add to. */
bool context_may_read(const Link *link);

/** Frees a context with all that it holds. NULL is allowed. */
void context_free(dal_ctx *ctx);

/* Keyspace notification flags, asked for on the subscriber's link before it subscribes. */
bool flags_ask(Link *link);
void flags_read(Link *link, const redisReply *reply);
void flags_set(Link *link, const redisReply *reply);
/** Called back when the flags have been seen to, whether they could be set or not. */
void flags_finished(Link *link);

/* Client tracking: asked for on the subscriber's link before it subscribes. */
bool tracking_ask_client(Link *link);
void tracking_client_answered(Link *link, const redisReply *reply);
bool tracking_begin(Link *link);
void tracking_answered(Link *link, const redisReply *reply);
/** Whether the message is tracking's. */
bool tracking_take(dal_ctx *ctx, const redisReply *reply);

/* Patterns. */
bool subscribe_all(dal_ctx *ctx);
void subscribe_answered(Link *link, Pattern *pattern, const redisReply *reply);
Pattern *pattern_find(const dal_ctx *ctx, const char *text, size_t length);
void patterns_free(dal_ctx *ctx);

/* Notifications. */
bool notification_take(Link *link, const redisReply *reply);
/** A comparison's finding that something is to be delivered of a key. NULL when memory is short. */
Notification *notification_make_finding(Pattern *pattern, const char *key, size_t length);
void notifications_append(Notifications *notifications, Notification *notification);
Notification *notifications_take_first(Notifications *notifications);
/** Takes the first one of those that wait. */
Notification *notification_next(dal_ctx *ctx);
/** Drops the findings that wait: the next comparison finds them again. */
void notifications_drop_findings(dal_ctx *ctx);
/** Puts all of `more`, which is empty afterwards, behind what waits. */
void notifications_append_all(dal_ctx *ctx, Notifications *more);
constexpr char kNotificationKind[] = "pmessage";
/** Has what waits delivered in one of the loop's next turns. */
void delivery_schedule(dal_ctx *ctx);
/** Delivers what waits, a limited number in one go; the rest in the loop's next turns. */
void notifications_deliver(dal_ctx *ctx);
void notifications_free(Notifications *notifications);

/* What subscribers know. Nothing is known unless the context may read and subscribe. */
constexpr char kKeyspacePrefix[] = "__keyspace@0__:";
bool resync_is_possible(const dal_ctx *ctx, const Pattern *pattern);

/** The key that a keyspace notification is about. */
inline const char *key_of(const Notification *notification) {
    return notification->channel + strlen(kKeyspacePrefix);
}
inline size_t key_length_of(const Notification *notification) {
    return notification->channel_length - strlen(kKeyspacePrefix);
}

/** Sees to what is known of a key before the event is delivered. The context may be lost over it. */
void knowledge_before(dal_ctx *ctx, const Notification *notification, const char *event);

/** What a finding is delivered as when its key is as `reading` says by now; NULL for nothing. */
const char *knowledge_of_finding(dal_ctx *ctx, const Notification *finding, const Reading *reading);

/** Nothing is told of a key before its value can be read again, or it is gone. False when memory is short. */
bool knowledge_too_large(dal_ctx *ctx, Pattern *pattern, const char *key, size_t length);

/** Learns from the delivery whether the subscriber reads by itself. */
void knowledge_behind(dal_ctx *ctx, const char *event);

/** Reads a key whole, at first as a hash or as a string. The context may be lost over it: Found::refused. */
Reading read_key(dal_ctx *ctx, const char *key, size_t length, bool hash_first);

/** The daemon itself read a key whole; NULL when that failed. */
void known_note_read(dal_ctx *ctx, const char *key, size_t length, const redisReply *reply, bool as_hash);

/** Reads the keys that stand when a pattern is first subscribed to. What cannot be read, the next comparison delivers.
 */
void baseline_take(dal_ctx *ctx, Pattern *pattern, int64_t deadline);

/* Comparisons. */
void audit_prepare(dal_ctx *ctx);
/** Has one begin; one under way is followed by another. */
void audit_want(dal_ctx *ctx);
/** As audit_want, where a call that waits may have taken in the reason: the loop has to be woken for it. */
void audit_want_from_call(dal_ctx *ctx);
/** All keys may have gone at once: one under way, which would find some of them gone, begins anew. */
void audit_flushed(dal_ctx *ctx);
/** Begins what is wanted. */
void audit_settle(dal_ctx *ctx);
/** Goes on when the flags have been seen to. */
void audit_flags_finished(dal_ctx *ctx);
/** The key of the first finding that waits, as it is by now; NULL before it has been read, which is begun then. */
const Reading *audit_read_again(dal_ctx *ctx, const Notification *finding);
/** Leaves the one under way, whose findings are lost, and forgets what is wanted. */
void audit_stop(dal_ctx *ctx);

/** Asks on the reader's link and waits. NULL when there is no answer; else the caller frees it. */
redisReply *ask(dal_ctx *ctx, std::span<const Argument> arguments);

/** As ask, for answers of one kind (a REDIS_REPLY_ number): any other is freed, an error logged, and NULL returned. */
redisReply *ask_for(dal_ctx *ctx, int type, std::span<const Argument> arguments);

/** An entry of the lists that calls give out; `value` may be NULL. NULL when memory is short. */
dal_kv *kv_make(const redisReply *key, const redisReply *value);

/** A copy with a NUL behind it. NULL when memory is short. */
char *copy_bytes(const char *bytes, size_t length);

}  // namespace dal
