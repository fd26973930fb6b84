/* Blocking reads: one question, one answer, within a bound. */
#include <stdlib.h>

#include "linux/clock.h"
#include "linux/dal/context.h"
#include "linux/key_values.h"
#include "linux/platform_log.h"

namespace dal {

namespace {

/** One try. False when the link failed; link->reason says why. */
bool try_once(Link *link, std::span<const Argument> arguments, int64_t deadline) {
    return (link->context || link_open(link, false)) && link_send(link, Question::read, nullptr, arguments) &&
           link_wait(link, deadline) && link->answer;
}

bool is_loading(const redisReply *reply) {
    constexpr char kLoading[] = "LOADING";
    return reply->type == REDIS_REPLY_ERROR && strncmp(reply->str, kLoading, strlen(kLoading)) == 0;
}

void log_refusal(std::span<const Argument> arguments, const char *reason) {
    const Argument object = arguments.size() > 1 ? arguments[1] : argument("");
    platform_warning("<DAL>: %s %.*s: %s", arguments[0].bytes, static_cast<int>(object.length), object.bytes, reason);
}

int copy_out(redisReply *reply, void *value, uint32_t *value_len) {
    if (!reply)
        return -1;
    if (reply->len < *value_len)
        *value_len = static_cast<uint32_t>(reply->len);
    if (*value_len)
        memcpy(value, reply->str, *value_len);
    freeReplyObject(reply);
    return 0;
}

bool are_strings(const redisReply *reply) {
    for (size_t i = 0; i < reply->elements; i++)
        if (reply->element[i]->type != REDIS_REPLY_STRING)
            return false;
    return true;
}

/** Fields and values take turns. False when the answer has another shape, or when memory is short. */
bool append_fields(List *list, const redisReply *reply) {
    if (reply->elements % 2 != 0 || !are_strings(reply))
        return false;
    for (size_t i = 0; i < reply->elements; i += 2) {
        dal_kv *entry = kv_make(reply->element[i], reply->element[i + 1]);
        if (!entry)
            return false;
        if (ListAppend(list, entry) != 0) {
            kv_free(entry);
            return false;
        }
    }
    return true;
}

}  // namespace

redisReply *ask(dal_ctx *ctx, std::span<const Argument> arguments) {
    if (!ctx || ctx->state != State::up || !(ctx->connections & DAL_CTX_SYNC))
        return nullptr;
    Link *link = &ctx->reader;
    const int64_t deadline = monotonic_ms() + kAnswerMs;
    const bool stood = link->context;
    bool answered = try_once(link, arguments, deadline);
    if (!answered && stood && link->closed) {
        // The server closes connections that were idle for long: that is no loss.
        link_close(link);
        answered = try_once(link, arguments, deadline);
    }
    if (!answered) {
        context_lost(ctx, link->reason);
        return nullptr;
    }
    redisReply *reply = link->answer;
    link->answer = nullptr;
    if (is_loading(reply)) {
        context_lost(ctx, reply->str);
        freeReplyObject(reply);
        return nullptr;
    }
    return reply;
}

redisReply *ask_for(dal_ctx *ctx, int type, std::span<const Argument> arguments) {
    redisReply *reply = ask(ctx, arguments);
    if (!reply || reply->type == type)
        return reply;
    if (reply->type == REDIS_REPLY_ERROR)
        log_refusal(arguments, reply->str);
    freeReplyObject(reply);
    return nullptr;
}

Reading read_key(dal_ctx *ctx, const char *key, size_t length, bool hash_first) {
    Reading reading{Found::refused, hash_first, kUnknownDigest};
    for (const bool as_hash : {hash_first, !hash_first}) {
        const Argument arguments[] = {argument(as_hash ? "HGETALL" : "GET"), {key, length}};
        redisReply *reply = ask(ctx, arguments);
        if (!reply)
            return {Found::refused, hash_first, kUnknownDigest};
        reading = reading_of(reply, as_hash);
        freeReplyObject(reply);
        if (reading.found != Found::other_type)
            break;
    }
    return reading;
}

char *copy_bytes(const char *bytes, size_t length) {
    auto *copy = static_cast<char *>(malloc(length + 1));
    if (copy) {
        memcpy(copy, bytes, length);
        copy[length] = '\0';
    }
    return copy;
}

dal_kv *kv_make(const redisReply *key, const redisReply *value) {
    auto *entry = static_cast<dal_kv *>(calloc(1, sizeof(dal_kv)));
    if (!entry)
        return nullptr;
    entry->key = copy_bytes(key->str, key->len);
    entry->key_len = static_cast<uint32_t>(key->len);
    if (value) {
        entry->value = copy_bytes(value->str, value->len);
        entry->value_len = static_cast<uint32_t>(value->len);
    }
    if (entry->key && (entry->value || !value))
        return entry;
    kv_free(entry);
    return nullptr;
}

}  // namespace dal

using namespace dal;

int dal_get(dal_ctx *ctx, const char *key, uint32_t key_len, void *value, uint32_t *value_len) {
    const Argument arguments[] = {argument("GET"), {key, key_len}};
    redisReply *reply = ask_for(ctx, REDIS_REPLY_STRING, arguments);
    known_note_read(ctx, key, key_len, reply, false);
    return copy_out(reply, value, value_len);
}

int dal_hget(dal_ctx *ctx, const char *key, const char *field, void *value, uint32_t *value_len) {
    const Argument arguments[] = {argument("HGET"), argument(key), argument(field)};
    return copy_out(ask_for(ctx, REDIS_REPLY_STRING, arguments), value, value_len);
}

int dal_hgetall(dal_ctx *ctx, dal_hash_request *request) {
    request->kvlist = nullptr;
    const Argument arguments[] = {argument("HGETALL"), argument(request->key)};
    redisReply *reply = ask_for(ctx, REDIS_REPLY_ARRAY, arguments);
    known_note_read(ctx, request->key, strlen(request->key), reply, true);
    if (!reply)
        return -1;
    bool complete = true;
    if (reply->elements > 0) {
        request->kvlist = ListCreate();
        complete = request->kvlist && append_fields(request->kvlist, reply);
    }
    freeReplyObject(reply);
    if (complete)
        return 0;
    dal_free_slist(request->kvlist);
    ListDestroy(request->kvlist);
    request->kvlist = nullptr;
    return -1;
}

int dal_is_key_exist(dal_ctx *ctx, const char *key, uint32_t key_len, int *exists) {
    const Argument arguments[] = {argument("EXISTS"), {key, key_len}};
    redisReply *reply = ask_for(ctx, REDIS_REPLY_INTEGER, arguments);
    if (!reply)
        return -1;
    *exists = reply->integer != 0;
    freeReplyObject(reply);
    return 0;
}

int dal_sync_ctx_chk(dal_ctx *ctx) {
    const Argument arguments[] = {argument("PING")};
    redisReply *reply = ask_for(ctx, REDIS_REPLY_STATUS, arguments);
    if (!reply)
        return -1;
    freeReplyObject(reply);
    return 0;
}
