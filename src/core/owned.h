/*
 * Owners of memory and lists, so that both are freed on every path.
 */
#pragma once

#include <stdlib.h>

#include <memory>

#include "platform/cmnutil.h"
#include "platform/dal.h"

struct FreeMemory {
    void operator()(void *memory) const { free(memory); }
};

/** Memory of malloc's. */
template <typename T>
using Owned = std::unique_ptr<T, FreeMemory>;

struct FreeDalList {
    void operator()(List *list) const {
        dal_free_slist(list);
        ListDestroy(list);
    }
};

/** A list of dal_kv with its entries. */
using OwnedDalList = std::unique_ptr<List, FreeDalList>;
