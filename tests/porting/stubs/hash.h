/*
 * What the logging client needs of hash tables besides platform/cmnutil.h: their keys may be numbers.
 */
#pragma once

#include "platform/cmnutil.h"

/** Inserts a value under a number. 0, or -1 without memory. */
int hash_insert_number(HashTable *table, int number, void *value);
