#include "linux/dal/value.h"

#include <string.h>

namespace dal {

namespace {

/* The kind is part of the digest: a hash is never taken for a string. */
constexpr uint64_t kStringSeed = 1;
constexpr uint64_t kHashSeed = 2;

constexpr uint64_t kMultiplier = 0xc6a4a7935bd1e995;
constexpr unsigned kShift = 47;

uint64_t mixed(uint64_t word) {
    word *= kMultiplier;
    word ^= word >> kShift;
    return word * kMultiplier;
}

uint64_t known(uint64_t digest) {
    return digest == kUnknownDigest ? 1 : digest;
}

uint64_t hash_text(const redisReply *text, uint64_t seed) {
    return hash_bytes(text->str, text->len, seed);
}

/** The sum over the fields, each with its value: the same in whatever order they come. */
bool digest_fields(const redisReply *reply, uint64_t *digest) {
    if (reply->elements % 2 != 0)
        return false;
    uint64_t sum = kHashSeed;
    for (size_t i = 0; i < reply->elements; i += 2) {
        const redisReply *field = reply->element[i];
        const redisReply *value = reply->element[i + 1];
        if (field->type != REDIS_REPLY_STRING || value->type != REDIS_REPLY_STRING)
            return false;
        sum += hash_text(value, hash_text(field, kHashSeed));
    }
    *digest = known(mixed(sum));
    return true;
}

bool is_other_type(const redisReply *reply) {
    constexpr char kWrongType[] = "WRONGTYPE";
    return reply->type == REDIS_REPLY_ERROR && strncmp(reply->str, kWrongType, strlen(kWrongType)) == 0;
}

}  // namespace

uint64_t hash_bytes(const char *bytes, size_t length, uint64_t seed) {
    uint64_t hash = seed ^ (length * kMultiplier);
    for (; length >= sizeof(uint64_t); length -= sizeof(uint64_t), bytes += sizeof(uint64_t)) {
        uint64_t word;
        memcpy(&word, bytes, sizeof word);
        hash = (hash ^ mixed(word)) * kMultiplier;
    }
    if (length > 0) {
        uint64_t word = 0;
        memcpy(&word, bytes, length);
        hash = (hash ^ word) * kMultiplier;
    }
    hash ^= hash >> kShift;
    hash *= kMultiplier;
    return hash ^ (hash >> kShift);
}

Reading reading_of(const redisReply *reply, bool as_hash) {
    if (is_other_type(reply))
        return {Found::other_type, as_hash, kUnknownDigest};
    if (!as_hash && reply->type == REDIS_REPLY_STRING)
        return {Found::value, false, known(hash_text(reply, kStringSeed))};
    uint64_t digest = kUnknownDigest;
    if (as_hash && reply->type == REDIS_REPLY_ARRAY && reply->elements == 0)
        return {Found::nothing, true, kUnknownDigest};
    if (as_hash && reply->type == REDIS_REPLY_ARRAY && digest_fields(reply, &digest))
        return {Found::value, true, digest};
    const bool nothing = !as_hash && reply->type == REDIS_REPLY_NIL;
    return {nothing ? Found::nothing : Found::refused, as_hash, kUnknownDigest};
}

}  // namespace dal
