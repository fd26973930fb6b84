#include <stdlib.h>

#include "platform/cmnutil.h"

struct List {
    void **entries;
    uint32_t count;
    uint32_t next; /* entry that LIST_NEXT returns */
};

List *ListCreate(void) {
    return calloc(1, sizeof(List));
}

int ListAppend(List *list, void *entry) {
    void **entries = realloc(list->entries, (list->count + 1) * sizeof *entries);
    if (!entries)
        return -1;
    list->entries = entries;
    entries[list->count++] = entry;
    return 0;
}

void *ListGet(List *list, int operation) {
    if (operation == LIST_REWIND)
        list->next = 0;
    if (operation != LIST_NEXT || list->next >= list->count)
        return NULL;
    return list->entries[list->next++];
}

uint32_t ListCount(const List *list) {
    return list->count;
}

void ListClear(List *list) {
    list->count = 0;
    list->next = 0;
}

void ListDestroy(List *list) {
    if (!list)
        return;
    free(list->entries);
    free(list);
}
