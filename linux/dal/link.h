/*
 * One connection to the server: commands out, answers in, in order.
 *
 * A link is never blocking. In the loop it runs through the event-loop adapter; where a call has to wait for an answer
 * it drives the link's socket itself, up to a deadline, and then only takes in what arrives: no callback of the
 * daemon's is made from there.
 *
 * The library's asynchronous interface is not used for this. From the first subscription on it takes every answer
 * for a notification, it gives up the connection when one pattern is refused, and it stops the process at an answer
 * that nobody asked for. Its reader, writer and formatter have none of these.
 */
#pragma once

#include <hiredis/hiredis.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <span>

#include "linux/dal/address.h"
#include "linux/dal/value.h"
#include "platform/dal.h"

namespace dal {

struct Pattern;
struct Walk;

/** How long a call may wait, and how long an answer may take that the loop waits for. */
constexpr int kAnswerMs = 2000;

/** One argument of a command: bytes. */
struct Argument {
    const char *bytes;
    size_t length;
};
inline Argument argument(const char *text) {
    return {text, strlen(text)};
}
constexpr size_t kMaxArguments = 260;

/** What an answer belongs to. */
enum class Question {
    login,
    ping,
    client_id,
    read_flags,
    set_flags,
    tracking,
    subscribe,
    read,
    publish,
    info,
    scan,
    value,
    values,
};
struct Expected {
    Expected *next;
    Question question;
    Pattern *pattern; /**< Question::subscribe */
};

/** What has come of the answer to Question::value. */
struct ValueAnswer {
    bool wrong;      /**< a part of it is no string */
    bool is_hash;    /**< an array */
    uint64_t digest; /**< of a string */
    HashDigest fields;
};

struct Link {
    dal_ctx *ctx;
    const char *name; /**< for messages */
    Address *address;
    redisContext *context; /**< NULL while closed */
    dal_evloop_conn conn;  /**< what the adapter sees */
    bool in_loop;          /**< the adapter knows it */
    Expected *first;       /**< answers still to come, in order */
    Expected *last;
    uint32_t expected;
    uint32_t heard;     /**< replies of any kind so far */
    size_t received;    /**< bytes since the deadline of the next answer was set */
    redisReply *answer; /**< kept by on_answer for the call that waits */
    ValueAnswer value;  /**< the last one, or the one that is coming; answer_reading tells what it says */
    Walk *walk;         /**< that goes on with the answers to Question::scan, value and values */
    bool closed;        /**< failed because the server closed the connection */
    bool silent;        /**< failed because an answer did not come in time */
    bool too_large;     /**< failed because of an answer that is */
    char reason[200];   /**< why it failed */

    /** Takes a message that is the answer to no command. Returns whether it was one. May be NULL. */
    bool (*on_message)(Link *link, const redisReply *reply);
    /** An answer. May close the link. The reply is freed behind it unless it was kept in `answer`. */
    void (*on_answer)(Link *link, const Expected *expected, redisReply *reply);
    /** The link failed in the loop, or the server did not answer in time. */
    void (*on_failed)(Link *link);
};

/** Connects. With `in_loop` through the adapter; otherwise it is driven by link_wait alone. */
bool link_open(Link *link, bool in_loop);

/** Closes; what was still expected is forgotten. A closed link stays as it is. */
void link_close(Link *link);

/** Has the loop watch for what comes, where it does not; a link that is not in the loop stays as it is. */
bool link_watch(Link *link);

/** Takes an open link out of the loop. */
void link_leave_loop(Link *link);

/** Sends one command, as far as the socket takes it now; the rest goes out from the loop or from link_wait. */
bool link_send(Link *link, Question question, Pattern *pattern, std::span<const Argument> arguments);

/** Puts one command into what goes out with the next link_flush. */
bool link_queue(Link *link, Question question, Pattern *pattern, std::span<const Argument> arguments);

/** Sends what is queued, as far as the socket takes it now. */
bool link_flush(Link *link);

/** Reads once what is there, and hands it to on_message and on_answer. */
bool link_receive(Link *link);

/** Drives the link until nothing is expected any more, or the time `deadline` (of monotonic_ms) has come. */
bool link_wait(Link *link, int64_t deadline);

/** Bytes that wait to be sent. */
size_t link_unsent(const Link *link);

}  // namespace dal
