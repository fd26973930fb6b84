/*
 * The keys of a pattern that its subscriber knows of, each with a digest of the value that it has seen at least.
 *
 * A digest may be older than what the subscriber has seen, which costs a delivery too many. It is never newer: then a
 * change lost later would stay unnoticed.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace dal {

struct KnownKey {
    KnownKey *next;
    uint64_t digest;
    uint32_t hash;
    uint32_t born;  /**< number of the comparison that ran, or had run, when the key became known */
    uint32_t seen;  /**< number of the last comparison that found the key; `born` before the first */
    bool is_hash;   /**< what it was last, as a hint for the next reading */
    bool reads;     /**< the subscriber reads this key's whole value by itself when it changes */
    bool too_large; /**< the last comparison could not read it, which was said */
    size_t length;
    char *text; /**< NUL-terminated, behind the record */
};

/** A chained table: it takes keys also when there is no memory to widen it. */
struct Known {
    KnownKey **slots;
    size_t width; /**< a power of two; 0 while empty */
    size_t count;
};

/** NULL when the key is not known. */
KnownKey *known_find(const Known *known, const char *key, size_t length);

/** The key's record, made where there is none, with an unknown digest then. NULL when memory is short. */
KnownKey *known_put(Known *known, const char *key, size_t length, uint32_t comparison);

void known_remove(Known *known, const char *key, size_t length);
void known_free(Known *known);

/** Calls `each` for every key. */
template <typename Each>
void known_for_each(const Known *known, Each each) {
    for (size_t i = 0; i < known->width; i++)
        for (KnownKey *key = known->slots[i]; key; key = key->next)
            each(key);
}

}  // namespace dal
