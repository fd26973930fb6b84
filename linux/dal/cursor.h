/*
 * The cursor of a SCAN walk. No server that walks well gives the same one twice in a walk: one that does would walk for
 * ever.
 */
#pragma once

#include <hiredis/hiredis.h>
#include <stdint.h>

namespace dal {

struct Cursor {
    char text[32];
    char marked[32]; /**< an earlier one, looked out for; renewed at growing distances */
    uint32_t steps;
};

constexpr char kKeysPerStep[] = "512"; /**< that the server looks at for one answer */

Cursor cursor_begin();

/** Takes the cursor of an answer. False when it is none, or when the walk does not come to an end with it. */
bool cursor_move(Cursor *cursor, const redisReply *next);

/** Whether the walk has come to its end. */
bool cursor_at_end(const Cursor *cursor);

}  // namespace dal
