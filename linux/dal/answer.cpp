#include "linux/dal/answer.h"

namespace dal {

namespace {

/** An array is allocated at the length that the server claims, before any of it has come. */
constexpr size_t kMostElements = 1 << 22;

redisReplyObjectFunctions library; /**< the library's own */
redisReplyObjectFunctions own;

/** Stands for every answer, and every part of one, of which only the digest is kept. */
redisReply digested;

bool is_value(const redisReadTask *task) {
    const auto *link = static_cast<const Link *>(task->privdata);
    return !task->parent && link->first && link->first->question == Question::value;
}

bool is_part_of_value(const redisReadTask *task) {
    return task->parent && task->parent->obj == &digested;
}

ValueAnswer *value_of(const redisReadTask *task) {
    return &static_cast<Link *>(task->privdata)->value;
}

void *take_wrong_part(const redisReadTask *task) {
    value_of(task)->wrong = true;
    return &digested;
}

void *create_string(const redisReadTask *task, char *text, size_t length) {
    const bool is_string = task->type == REDIS_REPLY_STRING;
    if (is_string && is_value(task)) {
        *value_of(task) = {false, false, digest_of_string(text, length), {}};
        return &digested;
    }
    if (!is_part_of_value(task))
        return library.createString(task, text, length);
    if (!is_string)
        return take_wrong_part(task);
    hash_digest_add(&value_of(task)->fields, text, length);
    return &digested;
}

template <typename Count>
void *create_array(const redisReadTask *task, Count elements) {
    if (is_part_of_value(task))
        return take_wrong_part(task);
    if (is_value(task)) {
        *value_of(task) = {false, true, kUnknownDigest, {}};
        return &digested;
    }
    return static_cast<size_t>(elements) > kMostElements ? nullptr : library.createArray(task, elements);
}

void *create_integer(const redisReadTask *task, long long number) {
    return is_part_of_value(task) ? take_wrong_part(task) : library.createInteger(task, number);
}

void *create_nil(const redisReadTask *task) {
    return is_part_of_value(task) ? take_wrong_part(task) : library.createNil(task);
}

void free_object(void *object) {
    if (object != &digested)
        library.freeObject(object);
}

/** Newer libraries know kinds that a server sends to none who has not asked for them. */
template <typename Functions>
void refuse_newer_kinds(Functions *functions) {
    if constexpr (requires { functions->createBool; }) {
        functions->createDouble = [](const redisReadTask *, double, char *, size_t) -> void * { return nullptr; };
        functions->createBool = [](const redisReadTask *, int) -> void * { return nullptr; };
    }
}

}  // namespace

void answer_prepare(Link *link) {
    redisReader *reader = link->context->reader;
    if (!library.createString) {
        library = *reader->fn;
        own = library;
        own.createString = create_string;
        own.createArray = create_array;
        own.createInteger = create_integer;
        own.createNil = create_nil;
        own.freeObject = free_object;
        refuse_newer_kinds(&own);
    }
    reader->fn = &own;
    reader->privdata = link;
}

Reading answer_reading(const Link *link, const redisReply *reply, bool as_hash) {
    if (reply != &digested)
        return reading_of(reply, as_hash);
    const ValueAnswer *value = &link->value;
    if (value->wrong || value->is_hash != as_hash)
        return {Found::refused, as_hash, kUnknownDigest};
    return as_hash ? reading_of_fields(&value->fields) : Reading{Found::value, false, value->digest};
}

void answer_free(redisReply *reply) {
    free_object(reply);
}

}  // namespace dal
