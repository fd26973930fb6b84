/* Hash tables: buckets of entries that are also linked in the order of insertion. */
#include "linux/hash.h"

#include <stdlib.h>
#include <string.h>

#include "platform/cmnutil.h"

namespace {

struct Entry {
    char *name; /**< owned; NULL in a table keyed by numbers */
    int number;
    uint32_t hash;
    void *value;
    Entry *bucket_next;
    Entry *older;
    Entry *newer;
};

uint32_t hash_bytes(const void *bytes, size_t length) {
    // FNV-1a, 32 bits
    uint32_t hash = 2166136261U;
    for (size_t i = 0; i < length; i++)
        hash = (hash ^ static_cast<const uint8_t *>(bytes)[i]) * 16777619U;
    return hash;
}

bool same_key(const Entry *entry, const char *name, int number) {
    return name ? entry->name && strcmp(entry->name, name) == 0 : !entry->name && entry->number == number;
}

uint32_t hash_key(const char *name, int number) {
    return name ? hash_bytes(name, strlen(name)) : hash_bytes(&number, sizeof number);
}

}  // namespace

struct HashTable {
    Entry **buckets;
    uint32_t bucket_count;
    uint32_t count;
    Entry *oldest;
    Entry *newest;
    Entry *cursor; /**< entry that HASH_NEXT returns */
};

namespace {

/** The link that points at the entry with that key, or the empty link at the end of its bucket. */
Entry **find_link(const HashTable *table, const char *name, int number) {
    const uint32_t hash = hash_key(name, number);
    Entry **link = &table->buckets[hash % table->bucket_count];
    while (*link && !((*link)->hash == hash && same_key(*link, name, number)))
        link = &(*link)->bucket_next;
    return link;
}

/** Doubles the buckets; without memory the table goes on with those that it has. */
void grow(HashTable *table) {
    const uint32_t bucket_count = table->bucket_count * 2;
    auto **buckets = static_cast<Entry **>(calloc(bucket_count, sizeof(void *)));
    if (!buckets)
        return;
    for (Entry *entry = table->oldest; entry; entry = entry->newer) {
        Entry **head = &buckets[entry->hash % bucket_count];
        entry->bucket_next = *head;
        *head = entry;
    }
    free(table->buckets);
    table->buckets = buckets;
    table->bucket_count = bucket_count;
}

int insert(HashTable *table, const char *name, int number, void *value) {
    if (Entry *entry = *find_link(table, name, number)) {
        if (entry->value != value)
            free(entry->value);
        entry->value = value;
        return 0;
    }
    auto *entry = static_cast<Entry *>(calloc(1, sizeof(Entry)));
    if (!entry)
        return -1;
    if (name && !(entry->name = strdup(name))) {
        free(entry);
        return -1;
    }
    entry->number = number;
    entry->hash = hash_key(name, number);
    entry->value = value;
    if (table->count >= table->bucket_count)
        grow(table);
    Entry **head = &table->buckets[entry->hash % table->bucket_count];
    entry->bucket_next = *head;
    *head = entry;
    entry->older = table->newest;
    (table->newest ? table->newest->newer : table->oldest) = entry;
    table->newest = entry;
    table->count++;
    return 0;
}

}  // namespace

HashTable *_HashCreate(uint32_t size_hint) {
    auto *table = static_cast<HashTable *>(calloc(1, sizeof(HashTable)));
    if (!table)
        return nullptr;
    table->bucket_count = size_hint ? size_hint : 1;
    table->buckets = static_cast<Entry **>(calloc(table->bucket_count, sizeof(void *)));
    if (!table->buckets) {
        free(table);
        return nullptr;
    }
    return table;
}

int HashStringInsertKeyAndValue(HashTable *table, const char *key, void *value) {
    return insert(table, key, 0, value);
}

int hash_insert_number(HashTable *table, int key, void *value) {
    return insert(table, nullptr, key, value);
}

void *HashStringFind(HashTable *table, const char *key) {
    const Entry *entry = *find_link(table, key, 0);
    return entry ? entry->value : nullptr;
}

void *HashFind(HashTable *table, int key) {
    const Entry *entry = *find_link(table, nullptr, key);
    return entry ? entry->value : nullptr;
}

int HashStringRemove(HashTable *table, const char *key) {
    Entry **link = find_link(table, key, 0);
    Entry *entry = *link;
    if (!entry)
        return -1;
    *link = entry->bucket_next;
    (entry->older ? entry->older->newer : table->oldest) = entry->newer;
    (entry->newer ? entry->newer->older : table->newest) = entry->older;
    if (table->cursor == entry)
        table->cursor = entry->newer;
    table->count--;
    free(entry->name);
    free(entry);
    return 0;
}

void *HashGet(HashTable *table, int operation) {
    if (operation == HASH_FIRST)
        table->cursor = table->oldest;
    else if (operation != HASH_NEXT)
        return nullptr;
    Entry *entry = table->cursor;
    if (!entry)
        return nullptr;
    table->cursor = entry->newer;
    return entry->value;
}

uint32_t HashCount(const HashTable *table) {
    return table->count;
}
