#include "linux/key_values.h"

#include <stdlib.h>

void kv_free(dal_kv *entry) {
    free(entry->key);
    free(entry->value);
    free(entry);
}

void dal_free_slist(List *list) {
    if (!list)
        return;
    ListGet(list, LIST_REWIND);
    while (void *entry = ListGet(list, LIST_NEXT))
        kv_free(static_cast<dal_kv *>(entry));
    ListClear(list);
}
