/*
 * What the C library does with memory.
 */
#pragma once

#include <stddef.h>

/** Has freed memory kept for the next export. */
void keep_freed_memory();

/** KiB that are allocated now, what the C library keeps of freed memory apart; 0 where it does not tell. */
size_t memory_in_use_kib();
