#include "linux/dal/walk.h"

#include <stdio.h>
#include <stdlib.h>

#include "linux/dal/answer.h"

namespace dal {

namespace {

constexpr size_t kBatch = 64;     /**< values asked for at a time */
constexpr size_t kTogether = 256; /**< values asked for with one command */
static_assert(kTogether < kMaxArguments);

void refuse(Walk *walk, const char *reason) {
    snprintf(walk->reason, sizeof walk->reason, "%s", reason);
    walk->state = WalkState::refused;
}

void refuse_answer(Walk *walk, const redisReply *reply) {
    refuse(walk, reply->type == REDIS_REPLY_ERROR ? reply->str : "the server gave an answer of the wrong kind");
}

void append(WalkKeys *keys, WalkKey *key) {
    key->next = nullptr;
    (keys->last ? keys->last->next : keys->first) = key;
    keys->last = key;
    keys->count++;
}

WalkKey *take_first(WalkKeys *keys) {
    WalkKey *key = keys->first;
    keys->first = key->next;
    if (!keys->first)
        keys->last = nullptr;
    keys->count--;
    return key;
}

bool add_key(Walk *walk, const char *text, size_t length, bool as_hash) {
    auto *key = static_cast<WalkKey *>(calloc(1, sizeof(WalkKey) + length + 1));
    if (!key)
        return false;
    key->length = length;
    key->as_hash = as_hash;
    key->text = reinterpret_cast<char *>(key + 1);
    memcpy(key->text, text, length);
    append(&walk->to_read, key);
    return true;
}

bool queue_scan(Walk *walk) {
    const Argument arguments[] = {argument("SCAN"),  argument(walk->cursor.text),
                                  argument("COUNT"), argument(kKeysPerStep),
                                  argument("MATCH"), argument(walk->match ? walk->match : "*")};
    const size_t count = walk->match ? 6 : 4;
    return link_queue(walk->link, Question::scan, nullptr, {arguments, count});
}

bool queue_read(Walk *walk) {
    WalkKey *key = take_first(&walk->to_read);
    append(&walk->asked, key);
    const Argument arguments[] = {argument(key->as_hash ? "HGETALL" : "GET"), {key->text, key->length}};
    return link_queue(walk->link, Question::value, nullptr, arguments);
}

bool queue_together(Walk *walk) {
    Argument arguments[kTogether + 1] = {argument("MGET")};
    size_t count = 1;
    while (walk->to_read.first && !walk->to_read.first->as_hash && count <= kTogether) {
        WalkKey *key = take_first(&walk->to_read);
        append(&walk->asked, key);
        arguments[count++] = {key->text, key->length};
    }
    return link_queue(walk->link, Question::values, nullptr, {arguments, count});
}

bool queue_reads(Walk *walk) {
    if (walk->together && !walk->to_read.first->as_hash)
        return queue_together(walk);
    bool sent = true;
    while (sent && walk->to_read.first && walk->asked.count < kBatch)
        sent = queue_read(walk);
    return sent;
}

/** With no answer to wait for any more: asks for the next values, or else for the next keys. */
void go_on(Walk *walk) {
    if (walk->state != WalkState::running || walk->asked.first)
        return;
    bool sent = true;
    if (walk->to_read.first)
        sent = queue_reads(walk);
    else if (walk->cursor.text[0] == '\0' || cursor_at_end(&walk->cursor))
        walk->state = WalkState::done;
    else
        sent = queue_scan(walk);
    if (walk->state == WalkState::running && !(sent && link_flush(walk->link)))
        walk->state = WalkState::broken;
}

/** Keys with a NUL are left out, as their notifications are. */
void take_keys(Walk *walk, const redisReply *keys) {
    for (size_t i = 0; i < keys->elements; i++) {
        const redisReply *key = keys->element[i];
        bool as_hash = false;
        if (key->type != REDIS_REPLY_STRING)
            return refuse_answer(walk, key);
        if (memchr(key->str, '\0', key->len) || !walk->wanted(walk, key->str, key->len, &as_hash))
            continue;
        if (!add_key(walk, key->str, key->len, as_hash))
            return refuse(walk, "memory is short");
    }
}

void take_step(Walk *walk, const redisReply *reply) {
    if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 2 || reply->element[1]->type != REDIS_REPLY_ARRAY ||
        !cursor_move(&walk->cursor, reply->element[0]))
        return refuse_answer(walk, reply);
    take_keys(walk, reply->element[1]);
}

void take_value(Walk *walk, const redisReply *reply) {
    WalkKey *key = take_first(&walk->asked);
    const Reading reading = answer_reading(walk->link, reply, key->as_hash);
    if (reading.found == Found::other_type && !key->again) {
        key->again = true;
        key->as_hash = !key->as_hash;
        return append(&walk->to_read, key);
    }
    if (reading.found == Found::refused)
        refuse_answer(walk, reply);
    else if (!walk->take(walk, key, &reading))
        refuse(walk, "memory is short");
    free(key);
}

/** What MGET has no value of may be a hash. */
void take_values(Walk *walk, const redisReply *reply) {
    if (reply->type != REDIS_REPLY_ARRAY || reply->elements != walk->asked.count)
        return refuse_answer(walk, reply);
    for (size_t i = 0; i < reply->elements && walk->state == WalkState::running; i++) {
        WalkKey *key = take_first(&walk->asked);
        const Reading reading = reading_of(reply->element[i], false);
        if (reading.found != Found::value) {
            key->as_hash = true;
            key->again = true;
            append(&walk->to_read, key);
            continue;
        }
        if (!walk->take(walk, key, &reading))
            refuse(walk, "memory is short");
        free(key);
    }
}

}  // namespace

void walk_begin(Walk *walk) {
    walk->state = WalkState::running;
    walk->cursor = cursor_begin();
    go_on(walk);
}

void walk_begin_with_key(Walk *walk, const char *key, size_t length) {
    walk->state = WalkState::running;
    walk->cursor = {};
    if (add_key(walk, key, length, false))
        go_on(walk);
    else
        refuse(walk, "memory is short");
}

bool walk_resume(Walk *walk) {
    if (!walk->asked.first)
        return false;
    // Of values asked for together it is not known whose it was: from now on each is asked for by itself.
    if (!walk->together) {
        WalkKey *key = take_first(&walk->asked);
        const Reading reading{Found::too_large, key->as_hash, kUnknownDigest};
        if (!walk->take(walk, key, &reading))
            refuse(walk, "memory is short");
        free(key);
    }
    walk->together = false;
    while (walk->asked.first)
        append(&walk->to_read, take_first(&walk->asked));
    go_on(walk);
    return true;
}

void walk_answered(Walk *walk, Question question, const redisReply *reply) {
    if (walk->state != WalkState::running)
        return;
    if (question == Question::scan)
        take_step(walk, reply);
    else if (question == Question::values)
        take_values(walk, reply);
    else
        take_value(walk, reply);
    go_on(walk);
}

void walk_end(Walk *walk) {
    for (WalkKeys *keys : {&walk->to_read, &walk->asked})
        while (keys->first)
            free(take_first(keys));
}

}  // namespace dal
