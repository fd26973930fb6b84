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

/** What the answer to GET, or with `as_hash` to HGETALL, says. The order of a hash's fields makes no difference. */
Reading reading_of(const redisReply *reply, bool as_hash);

/** 64 bits of MurmurHash2. */
uint64_t hash_bytes(const char *bytes, size_t length, uint64_t seed);

}  // namespace dal
