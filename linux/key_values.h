/*
 * Entries of the lists that calls of the DAL give out; for whatever stands behind these calls.
 */
#pragma once

#include "platform/dal.h"

/** Frees an entry with its key and its value, which may be NULL. */
void kv_free(dal_kv *entry);
