/*
 * Text for a log line.
 */
#pragma once

#include <stddef.h>

/**
 * Copies `text` into `line` of `size` bytes, terminated, with control characters as C escapes (\n, \t, \033); an escape
 * that does not fit whole ends the copy. Returns the length.
 */
size_t escape_controls(const char *text, char *line, size_t size);
