/*
 * What the library's reader makes of an answer's bytes: replies of its own, whose arrays are bounded; of an answer to
 * Question::value a digest alone, taken of each field as it comes, so that a value is never copied and a hash never
 * held.
 */
#pragma once

#include "linux/dal/link.h"

namespace dal {

/** Has an open link's answers made so. */
void answer_prepare(Link *link);

/** What the answer to Question::value, which `reply` stands for, says of a key asked for with GET, or with `as_hash`
 * with HGETALL. */
Reading answer_reading(const Link *link, const redisReply *reply, bool as_hash);

/** Frees what the reader has made. */
void answer_free(redisReply *reply);

}  // namespace dal
