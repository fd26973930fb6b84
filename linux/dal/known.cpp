#include "linux/dal/known.h"

#include <stdlib.h>
#include <string.h>

#include "linux/dal/value.h"

namespace dal {

namespace {

constexpr size_t kFirstWidth = 16;

uint32_t hash_key(const char *key, size_t length) {
    return static_cast<uint32_t>(hash_bytes(key, length, 0));
}

/** The link that leads to the key, or to where it would be. */
KnownKey **find_link(const Known *known, const char *key, size_t length, uint32_t hash) {
    KnownKey **link = &known->slots[hash & (known->width - 1)];
    while (*link && !((*link)->hash == hash && (*link)->length == length && memcmp((*link)->text, key, length) == 0))
        link = &(*link)->next;
    return link;
}

/** Keeps the chains short. Without memory they get longer. */
void widen(Known *known) {
    const size_t width = known->width ? known->width * 2 : kFirstWidth;
    auto **slots = static_cast<KnownKey **>(calloc(width, sizeof(void *)));
    if (!slots)
        return;
    for (size_t i = 0; i < known->width; i++) {
        while (KnownKey *key = known->slots[i]) {
            known->slots[i] = key->next;
            key->next = slots[key->hash & (width - 1)];
            slots[key->hash & (width - 1)] = key;
        }
    }
    free(known->slots);
    known->slots = slots;
    known->width = width;
}

KnownKey *make(const char *key, size_t length, uint32_t hash, uint32_t comparison) {
    auto *made = static_cast<KnownKey *>(calloc(1, sizeof(KnownKey) + length + 1));
    if (!made)
        return nullptr;
    made->hash = hash;
    made->born = comparison;
    made->seen = comparison;
    made->length = length;
    made->text = reinterpret_cast<char *>(made + 1);
    memcpy(made->text, key, length);
    return made;
}

}  // namespace

KnownKey *known_find(const Known *known, const char *key, size_t length) {
    return known->width ? *find_link(known, key, length, hash_key(key, length)) : nullptr;
}

KnownKey *known_put(Known *known, const char *key, size_t length, uint32_t comparison) {
    if (known->count >= known->width)
        widen(known);
    if (!known->width)
        return nullptr;
    const uint32_t hash = hash_key(key, length);
    KnownKey **link = find_link(known, key, length, hash);
    if (!*link && (*link = make(key, length, hash, comparison)))
        known->count++;
    return *link;
}

void known_remove(Known *known, const char *key, size_t length) {
    if (!known->width)
        return;
    KnownKey **link = find_link(known, key, length, hash_key(key, length));
    KnownKey *removed = *link;
    if (!removed)
        return;
    *link = removed->next;
    free(removed);
    known->count--;
}

void known_free(Known *known) {
    for (size_t i = 0; i < known->width; i++) {
        while (KnownKey *key = known->slots[i]) {
            known->slots[i] = key->next;
            free(key);
        }
    }
    free(known->slots);
    *known = {};
}

}  // namespace dal
