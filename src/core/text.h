/*
 * Texts in fields of a fixed size.
 */
#pragma once

#include <stddef.h>
#include <string.h>

#include <algorithm>

/** Copies at most `size` - 1 characters of `text`; the rest of the field is NUL. `size` is at least 1. */
inline void copy_text(char *field, size_t size, const char *text) {
    const size_t length = strnlen(text, size - 1);
    memcpy(field, text, length);
    memset(field + length, 0, size - length);
}

/** Copies the characters from `begin` up to `end`, none when `end` lies before. Returns whether all of them fit. */
inline bool copy_between(char *text, size_t size, const char *begin, const char *end) {
    const size_t length = end > begin ? static_cast<size_t>(end - begin) : 0;
    const size_t copied = std::min(length, size - 1);
    memcpy(text, begin, copied);
    text[copied] = '\0';
    return copied == length;
}
