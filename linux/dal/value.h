/*
 * What a key held when it was read: whether it was there, and a digest by which a change is noticed.
 */
#pragma once

#include <hiredis/hiredis.h>
#include <stddef.h>
#include <stdint.h>

namespace dal {

constexpr uint64_t kUnknownDigest = 0; /**< stands for no value */

enum class Found {
    value,
    nothing,    /**< no such key */
    other_type, /**< a key of another type than asked for */
    too_large,  /**< a value that is not read */
    refused,    /**< an error, or an answer of another shape */
};

struct Reading {
    Found found;
    bool is_hash;
    uint64_t digest; /**< Found::value; else kUnknownDigest */
};

uint64_t digest_of_string(const char *text, size_t length);

/** Of a hash's fields as they come, each followed by its value. In which order makes no difference. */
struct HashDigest {
    size_t texts;
    uint64_t field; /**< the last field's, whose value is still to come */
    uint64_t sum;
};
void hash_digest_add(HashDigest *digest, const char *text, size_t length);
Reading reading_of_fields(const HashDigest *digest);

/** What the answer to GET, or with `as_hash` to HGETALL, says. */
Reading reading_of(const redisReply *reply, bool as_hash);

/** 64 bits of MurmurHash2. */
uint64_t hash_bytes(const char *bytes, size_t length, uint64_t seed);

}  // namespace dal
