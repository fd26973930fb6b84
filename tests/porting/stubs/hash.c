/* In place of a hash table a chain that is searched: enough for a few entries. */
#include "hash.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "platform/cmnutil.h"

typedef struct Entry {
    struct Entry *next;
    char *key;
    void *value;
} Entry;

struct HashTable {
    Entry *first;
    Entry *cursor;
};

HashTable *_HashCreate(uint32_t size_hint) {
    (void)size_hint;
    return calloc(1, sizeof(HashTable));
}

/* Where the entry of that key is linked, or would be. */
static Entry **place(HashTable *table, const char *key) {
    Entry **link = &table->first;
    while (*link && strcmp((*link)->key, key) != 0)
        link = &(*link)->next;
    return link;
}

int HashStringInsertKeyAndValue(HashTable *table, const char *key, void *value) {
    Entry **link = place(table, key);
    if (*link) {
        if ((*link)->value != value)
            free((*link)->value);
        (*link)->value = value;
        return 0;
    }
    Entry *entry = calloc(1, sizeof *entry);
    char *copy = strdup(key);
    if (!entry || !copy) {
        free(entry);
        free(copy);
        return -1;
    }
    entry->key = copy;
    entry->value = value;
    *link = entry;
    return 0;
}

void *HashStringFind(HashTable *table, const char *key) {
    Entry *entry = *place(table, key);
    return entry ? entry->value : NULL;
}

int HashStringRemove(HashTable *table, const char *key) {
    Entry **link = place(table, key);
    Entry *entry = *link;
    if (!entry)
        return -1;
    if (table->cursor == entry)
        table->cursor = NULL;
    *link = entry->next;
    free(entry->key);
    free(entry);
    return 0;
}

void *HashGet(HashTable *table, int operation) {
    if (operation == HASH_FIRST)
        table->cursor = table->first;
    else if (table->cursor)
        table->cursor = table->cursor->next;
    return table->cursor ? table->cursor->value : NULL;
}

uint32_t HashCount(const HashTable *table) {
    uint32_t count = 0;
    for (const Entry *entry = table->first; entry; entry = entry->next)
        count++;
    return count;
}

int hash_insert_number(HashTable *table, int number, void *value) {
    char key[16];
    snprintf(key, sizeof key, "%d", number);
    return HashStringInsertKeyAndValue(table, key, value);
}

void *HashFind(HashTable *table, int number) {
    char key[16];
    snprintf(key, sizeof key, "%d", number);
    return HashStringFind(table, key);
}
