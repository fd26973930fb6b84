#include "linux/dal/link.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "linux/clock.h"
#include "linux/dal/answer.h"
#include "linux/dal/context.h"
#include "linux/dal/login.h"

namespace dal {

namespace {

constexpr uint32_t kReading = 1; /**< the adapter's mask: reading is registered */
constexpr uint32_t kWriting = 2;

bool fail(Link *link, const char *reason) {
    snprintf(link->reason, sizeof link->reason, "%s", reason);
    return false;
}

bool fail_silent(Link *link) {
    link->silent = true;
    return fail(link, "no answer");
}

/** Of an answer that is not complete; none that the daemon asks for comes near. */
constexpr size_t kMostBytes = 16 << 20;

/** An answer that comes so far within kAnswerMs has as long again: half of what is read at once. */
constexpr size_t kProgressBytes = 8 << 10;

/** Of a reply that is not complete. A whole line that still stands says how long a text will be, which is not waited
 * for. */
bool is_too_large(const redisReader *reader) {
    char *end = nullptr;
    const int64_t claimed = strtoll(reader->buf + reader->pos, &end, 10);
    const bool is_line = strncmp(end, "\r\n", 2) == 0;
    return reader->len > kMostBytes || (is_line && claimed > static_cast<int64_t>(kMostBytes));
}

bool fail_too_large(Link *link) {
    link->too_large = true;
    return fail(link, "an answer without end");
}

/** Keeps why the library failed, which it says in errno or in a text. */
bool library_failed(Link *link) {
    const int error = errno;
    const redisContext *context = link->context;
    link->closed = context->err == REDIS_ERR_EOF ||
                   (context->err == REDIS_ERR_IO && (error == EPIPE || error == ECONNRESET || error == ENOTCONN));
    return fail(link, context->err == REDIS_ERR_IO ? strerror(error) : context->errstr);
}

void on_deadline(void *user_data);

void stop_deadline(Link *link) {
    stop_timer(link->ctx, link->conn.timer_slot);
}

/** While answers are expected in the loop, the next one has kAnswerMs to come. */
void renew_deadline(Link *link) {
    if (!link->in_loop)
        return;
    stop_deadline(link);
    link->received = 0;
    if (link->expected)
        start_timer(link->ctx, link->conn.timer_slot, kAnswerMs, on_deadline, link);
}

void on_deadline(void *user_data) {
    auto *link = static_cast<Link *>(user_data);
    *link->conn.timer_slot = 0;
    // The loop itself may have been busy for that long: what has arrived since counts.
    const uint32_t before = link->heard;
    const bool failed = !link_receive(link);
    const bool progress = link->heard != before || link->received >= kProgressBytes;
    if (failed || (link->context && !progress && !fail_silent(link)))
        link->on_failed(link);
    else if (link->context)
        renew_deadline(link);
    context_settle(link->ctx);
}

void on_readable(void *connection) {
    auto *link = static_cast<Link *>(connection);
    if (link->context && context_may_read(link)) {
        if (!link_receive(link))
            link->on_failed(link);
    } else if (link->context && link->ctx->audit.phase == AuditPhase::again) {
        link->ctx->evloop->delete_read(&link->conn);  // else it wakes the loop over and over until the answer has come
    }
    context_settle(link->ctx);
}

void on_writable(void *connection) {
    auto *link = static_cast<Link *>(connection);
    if (link->context && !link_flush(link))
        link->on_failed(link);
    context_settle(link->ctx);
}

bool enter_loop(Link *link) {
    const dal_evloop_ctx *evloop = link->ctx->evloop;
    link->conn = {evloop->dispatcher, nullptr, link->context->fd, 0, 0, link, on_readable, on_writable};
    if (evloop->attach(&link->conn) != 0 || !link->conn.timer_slot)
        return fail(link, "the loop does not take it");
    link->in_loop = true;
    return link_watch(link);
}

bool expect(Link *link, Question question, Pattern *pattern) {
    auto *expected = static_cast<Expected *>(malloc(sizeof(Expected)));
    if (!expected)
        return fail(link, "memory is short");
    *expected = {nullptr, question, pattern};
    (link->last ? link->last->next : link->first) = expected;
    link->last = expected;
    link->expected++;
    return true;
}

Expected take_expected(Link *link) {
    Expected *taken = link->first;
    const Expected copy = *taken;
    link->first = taken->next;
    if (!link->first)
        link->last = nullptr;
    link->expected--;
    free(taken);
    return copy;
}

/** One reply: a message, or the answer to the oldest command. */
bool dispatch(Link *link, redisReply *reply) {
    link->heard++;
    if (link->on_message && link->on_message(link, reply))
        return true;
    if (!link->first)
        return fail(link, reply->type == REDIS_REPLY_ERROR ? reply->str : "an answer to no question");
    const Expected expected = take_expected(link);
    renew_deadline(link);
    if (expected.question == Question::login)
        return login_answered(link, reply);
    link->on_answer(link, &expected, reply);
    return true;
}

/** The part of a poll's time that is left, rounded to 0 when it is over. */
int remaining(int64_t deadline) {
    const int64_t left = deadline - monotonic_ms();
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

bool link_open(Link *link, bool in_loop) {
    link->closed = false;
    link->silent = false;
    link->too_large = false;
    const char *reason = nullptr;
    const int fd = address_connect(link->address, &reason);
    if (fd < 0)
        return fail(link, reason);
    link->context = redisConnectFd(fd);
    if (!link->context) {
        close(fd);
        return fail(link, "memory is short");
    }
    link->context->flags &= ~REDIS_BLOCK;
    answer_prepare(link);
    if ((!in_loop || enter_loop(link)) && login_queue(link))
        return true;
    link_close(link);
    return false;
}

bool link_watch(Link *link) {
    if (link->in_loop && !(link->conn.mask & kReading))
        link->ctx->evloop->add_read(&link->conn);
    return !link->in_loop || (link->conn.mask & kReading) || fail(link, "the loop does not watch it for reading");
}

void link_leave_loop(Link *link) {
    if (!link->in_loop)
        return;
    stop_deadline(link);
    link->ctx->evloop->cleanup(&link->conn);
    link->in_loop = false;
    link->conn = {};
}

void link_close(Link *link) {
    if (!link->context)
        return;
    link_leave_loop(link);
    redisFree(link->context);
    link->context = nullptr;
    while (link->first)
        take_expected(link);
    if (link->answer)
        freeReplyObject(link->answer);
    link->answer = nullptr;
}

bool link_queue(Link *link, Question question, Pattern *pattern, std::span<const Argument> arguments) {
    const char *bytes[kMaxArguments];
    size_t lengths[kMaxArguments];
    for (size_t i = 0; i < arguments.size(); i++) {
        bytes[i] = arguments[i].bytes;
        lengths[i] = arguments[i].length;
    }
    if (!expect(link, question, pattern))
        return false;
    if (redisAppendCommandArgv(link->context, static_cast<int>(arguments.size()), bytes, lengths) != REDIS_OK)
        return library_failed(link);
    if (link->expected == 1)
        renew_deadline(link);
    return true;
}

bool link_send(Link *link, Question question, Pattern *pattern, std::span<const Argument> arguments) {
    return link_queue(link, question, pattern, arguments) && link_flush(link);
}

bool link_flush(Link *link) {
    int done = 0;
    if (redisBufferWrite(link->context, &done) != REDIS_OK)
        return library_failed(link);
    if (!link->context->obuf)
        return fail(link, "memory is short");  // the library frees what has gone out and makes a new buffer unchecked
    if (!link->in_loop)
        return true;
    const dal_evloop_ctx *evloop = link->ctx->evloop;
    const bool registered = link->conn.mask & kWriting;
    if (done && registered)
        evloop->delete_write(&link->conn);
    else if (!done && !registered)
        evloop->add_write(&link->conn);
    return done || (link->conn.mask & kWriting) || fail(link, "the loop does not watch it for writing");
}

bool link_receive(Link *link) {
    const size_t before = link->context->reader->len;
    if (redisBufferRead(link->context) != REDIS_OK)
        return library_failed(link);
    link->received += link->context->reader->len - before;
    while (link->context) {
        void *reply = nullptr;
        if (redisGetReplyFromReader(link->context, &reply) != REDIS_OK)
            return library_failed(link);
        if (!reply)
            return !is_too_large(link->context->reader) || fail_too_large(link);
        const bool taken = dispatch(link, static_cast<redisReply *>(reply));
        if (reply != link->answer)
            answer_free(static_cast<redisReply *>(reply));
        if (!taken)
            return false;
    }
    return true;
}

bool link_wait(Link *link, int64_t deadline) {
    while (link->context && link->expected) {
        if (!link_flush(link))
            return false;
        const short events = link_unsent(link) ? POLLIN | POLLOUT : POLLIN;
        pollfd waiting = {link->context->fd, events, 0};
        const int ready = poll(&waiting, 1, remaining(deadline));
        if (ready < 0 && errno != EINTR)
            return fail(link, strerror(errno));
        if (ready == 0)
            return fail_silent(link);
        if (ready > 0 && (waiting.revents & ~POLLOUT) && !link_receive(link))
            return false;
        if (monotonic_ms() >= deadline && link->expected)
            return fail_silent(link);
    }
    return link->context;
}

size_t link_unsent(const Link *link) {
    return link->context ? sdslen(link->context->obuf) : 0;
}

}  // namespace dal
