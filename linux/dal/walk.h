/*
 * A walk over the server's keys that reads the values of those that are wanted, on one link, a bounded number at a
 * time.
 *
 * It goes on with each answer, so that it runs in the loop as well as under link_wait. Values are asked for one by one:
 * however large they are, an answer holds one. Where time counts more, strings are asked for together.
 */
#pragma once

#include "linux/dal/cursor.h"
#include "linux/dal/link.h"
#include "linux/dal/value.h"

namespace dal {

struct WalkKey {
    WalkKey *next;
    size_t length;
    bool as_hash; /**< how it is asked for: with HGETALL, else with GET */
    bool again;   /**< it has been asked for in the other way before */
    char *text;   /**< NUL-terminated, behind the record */
};
struct WalkKeys {
    WalkKey *first;
    WalkKey *last;
    size_t count;
};

enum class WalkState {
    running,
    done,
    refused, /**< an answer from which it cannot go on; `reason` says which */
    broken,  /**< the link failed, whose own `reason` says why */
};

struct Walk {
    WalkState state;
    Link *link;
    const char *match; /**< glob given to the server; NULL for every key */
    bool together;     /**< strings are read with MGET */
    void *user_data;
    /** Whether the key's value is to be read, and whether it is likely a hash. A key never has a NUL in it. */
    bool (*wanted)(const Walk *walk, const char *key, size_t length, bool *as_hash);
    /** What was read. False when memory is short. */
    bool (*take)(Walk *walk, const WalkKey *key, const Reading *reading);

    Cursor cursor;
    WalkKeys to_read;
    WalkKeys asked;
    char reason[160];
};

/** Begins a walk whose link, match and functions are given; a walk that cannot begin is in another state. */
void walk_begin(Walk *walk);

/** Begins one that reads nothing but this key. */
void walk_begin_with_key(Walk *walk, const char *key, size_t length);

/** Goes on when the link failed because of an answer that is too large and was opened again: without that key's value,
 * which is taken as Found::too_large. False when it was no value's answer. */
bool walk_resume(Walk *walk);

/** Takes an answer to Question::scan, value or values. */
void walk_answered(Walk *walk, Question question, const redisReply *reply);

/** Leaves the walk and frees what it holds. */
void walk_end(Walk *walk);

}  // namespace dal
