/*
 * What the platform itself needs of its hash tables beyond platform/cmnutil.h.
 */
#pragma once

#include "platform/cmnutil.h"

/** As HashStringInsertKeyAndValue, in a table keyed by numbers. */
int hash_insert_number(HashTable *table, int key, void *value);
