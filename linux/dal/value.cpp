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

Reading reading_of_array(const redisReply *reply) {
    HashDigest digest{};
    for (size_t i = 0; i < reply->elements; i++) {
        const redisReply *text = reply->element[i];
        if (text->type != REDIS_REPLY_STRING)
            return {Found::refused, true, kUnknownDigest};
        hash_digest_add(&digest, text->str, text->len);
    }
    return reading_of_fields(&digest);
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

uint64_t digest_of_string(const char *text, size_t length) {
    return known(hash_bytes(text, length, kStringSeed));
}

/** The sum over the fields, each with its value. */
void hash_digest_add(HashDigest *digest, const char *text, size_t length) {
    if (digest->texts++ % 2 == 0)
        digest->field = hash_bytes(text, length, kHashSeed);
    else
        digest->sum += hash_bytes(text, length, digest->field);
}

Reading reading_of_fields(const HashDigest *digest) {
    if (digest->texts == 0)
        return {Found::nothing, true, kUnknownDigest};
    if (digest->texts % 2 != 0)
        return {Found::refused, true, kUnknownDigest};
    return {Found::value, true, known(mixed(kHashSeed + digest->sum))};
}

Reading reading_of(const redisReply *reply, bool as_hash) {
    if (is_other_type(reply))
        return {Found::other_type, as_hash, kUnknownDigest};
    if (!as_hash && reply->type == REDIS_REPLY_STRING)
        return {Found::value, false, digest_of_string(reply->str, reply->len)};
    if (as_hash && reply->type == REDIS_REPLY_ARRAY)
        return reading_of_array(reply);
    const bool nothing = !as_hash && reply->type == REDIS_REPLY_NIL;
    return {nothing ? Found::nothing : Found::refused, as_hash, kUnknownDigest};
}

}  // namespace dal
