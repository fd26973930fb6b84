/* Many keys: walks with SCAN, which never stalls the server, and reads in batches. */
#include <stdlib.h>

#include "linux/dal/context.h"
#include "linux/key_values.h"
#include "linux/platform_log.h"

namespace dal {

namespace {

constexpr size_t kBatch = 256; /**< keys read with one command */
static_assert(kBatch < kMaxArguments);

/** Keys of a walk: a growing array of entries that it owns. */
struct Keys {
    dal_kv **entries;
    size_t count;
    size_t capacity;
};

void free_keys(Keys *keys) {
    for (size_t i = 0; i < keys->count; i++)
        kv_free(keys->entries[i]);
    free(keys->entries);
}

bool add_key(Keys *keys, const redisReply *key) {
    if (keys->count == keys->capacity) {
        const size_t capacity = keys->capacity ? keys->capacity * 2 : 64;
        void *entries = realloc(keys->entries, capacity * sizeof(dal_kv *));
        if (!entries)
            return false;
        keys->entries = static_cast<dal_kv **>(entries);
        keys->capacity = capacity;
    }
    dal_kv *entry = kv_make(key, nullptr);
    if (entry)
        keys->entries[keys->count++] = entry;
    return entry;
}

/** A key with a NUL cannot be told apart from the text before it, and is left out as its notifications are. */
bool add_found(Keys *keys, const redisReply *found) {
    for (size_t i = 0; i < found->elements; i++) {
        const redisReply *key = found->element[i];
        if (key->type != REDIS_REPLY_STRING)
            return false;
        if (memchr(key->str, '\0', key->len))
            platform_error("<DAL>: a key with a NUL in it is not read; it begins %s", key->str);
        else if (!add_key(keys, key))
            return false;
    }
    return true;
}

int compare(const void *left, const void *right) {
    return strcmp((*static_cast<dal_kv *const *>(left))->key, (*static_cast<dal_kv *const *>(right))->key);
}

/** Sorts, and drops what a walk gave more than once. */
void sort_unique(Keys *keys) {
    if (keys->count == 0)
        return;
    qsort(keys->entries, keys->count, sizeof(dal_kv *), compare);
    size_t kept = 1;
    for (size_t i = 1; i < keys->count; i++) {
        if (compare(&keys->entries[i], &keys->entries[kept - 1]) == 0)
            kv_free(keys->entries[i]);
        else
            keys->entries[kept++] = keys->entries[i];
    }
    keys->count = kept;
}

/** One step of the walk. */
bool scan_step(dal_ctx *ctx, const char *pattern, Cursor *cursor, Keys *keys) {
    const Argument arguments[] = {argument("SCAN"),  argument(cursor->text), argument("MATCH"),
                                  argument(pattern), argument("COUNT"),      argument(kKeysPerStep)};
    redisReply *reply = ask_for(ctx, REDIS_REPLY_ARRAY, arguments);
    if (!reply)
        return false;
    const bool taken = reply->elements == 2 && cursor_move(cursor, reply->element[0]) &&
                       reply->element[1]->type == REDIS_REPLY_ARRAY && add_found(keys, reply->element[1]);
    freeReplyObject(reply);
    return taken;
}

bool walk(dal_ctx *ctx, const char *pattern, Keys *keys) {
    Cursor cursor = cursor_begin();
    do {
        if (!scan_step(ctx, pattern, &cursor, keys))
            return false;
    } while (!cursor_at_end(&cursor));
    sort_unique(keys);
    return true;
}

/** Values of up to kBatch keys. A key that is gone or no string has no value afterwards. */
bool read_batch(dal_ctx *ctx, dal_kv **entries, size_t count) {
    Argument arguments[kBatch + 1] = {argument("MGET")};
    for (size_t i = 0; i < count; i++)
        arguments[i + 1] = {entries[i]->key, entries[i]->key_len};
    redisReply *reply = ask_for(ctx, REDIS_REPLY_ARRAY, {arguments, count + 1});
    if (!reply)
        return false;
    bool complete = reply->elements == count;
    for (size_t i = 0; complete && i < count; i++) {
        const redisReply *value = reply->element[i];
        if (value->type != REDIS_REPLY_STRING)
            continue;
        known_note_read(ctx, entries[i]->key, entries[i]->key_len, value, false);
        entries[i]->value = copy_bytes(value->str, value->len);
        entries[i]->value_len = static_cast<uint32_t>(value->len);
        complete = entries[i]->value;
    }
    freeReplyObject(reply);
    return complete;
}

bool read_values(dal_ctx *ctx, Keys *keys) {
    for (size_t at = 0; at < keys->count; at += kBatch) {
        const size_t left = keys->count - at;
        if (!read_batch(ctx, keys->entries + at, left < kBatch ? left : kBatch))
            return false;
    }
    return true;
}

/** Hands the entries over to the list; with `valued` those only that have a value. */
int give(Keys *keys, List *list, bool valued) {
    int result = 0;
    for (size_t i = 0; i < keys->count; i++) {
        dal_kv *entry = keys->entries[i];
        if (result == 0 && (entry->value || !valued) && (result = ListAppend(list, entry)) == 0)
            continue;
        kv_free(entry);
    }
    free(keys->entries);
    return result;
}

}  // namespace

}  // namespace dal

using namespace dal;

int dal_scan(dal_ctx *ctx, const char *pattern, List *keys) {
    Keys found{};
    if (walk(ctx, pattern, &found))
        return give(&found, keys, false);
    free_keys(&found);
    return -1;
}

int dal_mget_by_wildcard(dal_ctx *ctx, const char *pattern, List *kvlist, dal_ctx ** /*platform*/) {
    Keys found{};
    if (walk(ctx, pattern, &found) && read_values(ctx, &found))
        return give(&found, kvlist, true);
    free_keys(&found);
    return -1;
}
