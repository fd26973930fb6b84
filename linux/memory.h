/*
 * What the C library does with memory.
 */
#pragma once

#include <stddef.h>

/** Has freed memory kept for the next export, on 64-bit machines; has it given back on others. */
void choose_memory_kept();

/** KiB that are allocated now, what the C library keeps of freed memory apart; 0 where it does not tell. */
size_t memory_in_use_kib();
