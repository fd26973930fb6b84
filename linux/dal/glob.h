/*
 * Patterns as the server matches them: * ? [a-z] [^a] and \ before a character that is meant as it is.
 */
#pragma once

#include <stddef.h>

namespace dal {

bool glob_matches(const char *pattern, size_t pattern_length, const char *text, size_t length);

/** Whether the pattern is one text and no more. */
bool glob_is_plain(const char *pattern);

}  // namespace dal
