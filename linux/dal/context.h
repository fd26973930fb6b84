/*
 * A DAL context: its connections, what is subscribed to, what waits to be delivered, and how it stands.
 */
#pragma once

#include "linux/dal/link.h"
#include "platform/dal.h"

namespace dal {

/** How the context stands with its server. */
enum class State {
    lost,   /**< no connection; the timer begins the next attempt */
    asking, /**< an attempt: connections are open, their answers are awaited in the loop */
    up,     /**< calls are answered */
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
};

/** A notification that waits for its delivery. */
struct Notification {
    Notification *next;
    Pattern *pattern;
    size_t size; /**< of the record with its texts */
    size_t channel_length;
    size_t data_length;
    char *channel; /**< NUL-terminated, no NUL inside */
    char *data;    /**< NUL-terminated beyond data_length */
};

struct Notifications {
    Notification *first;
    Notification *last;
    size_t bytes;
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
    bool reader_answered;  /**< the attempt's reader was answered with PONG */
    bool subscriber_ready; /**< the attempt's subscriber has got so far that patterns may be subscribed to */

    dal::Pattern *patterns;
    dal::Notifications waiting;
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

/* Patterns. */
bool subscribe_all(dal_ctx *ctx);
void subscribe_answered(Link *link, Pattern *pattern, const redisReply *reply);
Pattern *pattern_find(const dal_ctx *ctx, const char *text, size_t length);
void patterns_forget_connection(dal_ctx *ctx);
void patterns_free(dal_ctx *ctx);

/* Notifications. */
bool notification_take(Link *link, const redisReply *reply);
/** Delivers what waits, a limited number in one go; the rest in the loop's next turns. */
void notifications_deliver(dal_ctx *ctx);
void notifications_free(dal_ctx *ctx);

/** Asks on the reader's link and waits. NULL when there is no answer; else the caller frees it. */
redisReply *ask(dal_ctx *ctx, std::span<const Argument> arguments);

/** As ask, for answers of one kind (a REDIS_REPLY_ number): any other is freed, an error logged, and NULL returned. */
redisReply *ask_for(dal_ctx *ctx, int type, std::span<const Argument> arguments);

/** An entry of the lists that calls give out; `value` may be NULL. NULL when memory is short. */
dal_kv *kv_make(const redisReply *key, const redisReply *value);
void kv_free(dal_kv *entry);

/** A copy with a NUL behind it. NULL when memory is short. */
char *copy_bytes(const char *bytes, size_t length);

}  // namespace dal
