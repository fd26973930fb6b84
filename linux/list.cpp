/* Lists: a growing array with one cursor. */
#include <stdlib.h>

#include "platform/cmnutil.h"

struct List {
    void **entries;
    uint32_t count;
    uint32_t capacity;
    uint32_t next; /**< index that LIST_NEXT returns */
};

List *ListCreate(void) {
    return static_cast<List *>(calloc(1, sizeof(List)));
}

int ListAppend(List *list, void *entry) {
    if (list->count == list->capacity) {
        const uint32_t capacity = list->capacity ? list->capacity * 2 : 16;
        void *entries = realloc(list->entries, capacity * sizeof(void *));
        if (!entries)
            return -1;
        list->entries = static_cast<void **>(entries);
        list->capacity = capacity;
    }
    list->entries[list->count++] = entry;
    return 0;
}

void *ListGet(List *list, int operation) {
    if (operation == LIST_REWIND)
        list->next = 0;
    else if (operation == LIST_NEXT && list->next < list->count)
        return list->entries[list->next++];
    return nullptr;
}

uint32_t ListCount(const List *list) {
    return list->count;
}

void ListClear(List *list) {
    list->count = 0;
    list->next = 0;
}

void ListDestroy(List *list) {
    if (list)
        free(list->entries);
    free(list);
}
