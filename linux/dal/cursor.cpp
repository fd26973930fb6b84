#include "linux/dal/cursor.h"

#include <string.h>

namespace dal {

namespace {

constexpr char kEnd[] = "0"; /**< where a walk begins, and what it ends with */
constexpr uint32_t kMostSteps = 1 << 20;

}  // namespace

Cursor cursor_begin() {
    Cursor cursor{};
    memcpy(cursor.text, kEnd, sizeof kEnd);
    return cursor;
}

bool cursor_move(Cursor *cursor, const redisReply *next) {
    if (next->type != REDIS_REPLY_STRING || next->len >= sizeof cursor->text || ++cursor->steps > kMostSteps)
        return false;
    const bool repeated = strcmp(next->str, cursor->text) == 0 || strcmp(next->str, cursor->marked) == 0;
    memcpy(cursor->text, next->str, next->len + 1);
    if ((cursor->steps & (cursor->steps - 1)) == 0)
        memcpy(cursor->marked, cursor->text, sizeof cursor->marked);
    return !repeated || cursor_at_end(cursor);
}

bool cursor_at_end(const Cursor *cursor) {
    return cursor->steps > 0 && strcmp(cursor->text, kEnd) == 0;
}

}  // namespace dal
