/*
 * Texts in fields of a fixed size.
 */
#pragma once

#include <stddef.h>
#include <string.h>

/** Copies at most `size` - 1 characters of `text`; the rest of the field is NUL. `size` is at least 1. */
inline void copy_text(char *field, size_t size, const char *text) {
    const size_t length = strnlen(text, size - 1);
    memcpy(field, text, length);
    memset(field + length, 0, size - length);
}
