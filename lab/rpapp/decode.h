/*
 * Datagrams of the link as text.
 */
#pragma once

#include <stddef.h>

#include <string>

/**
 * The records of one datagram, one line each, every line ended by a newline; a datagram of several records has one more
 * line with its length and their number. Whatever the bytes are, no line of theirs looks like another one's.
 */
std::string decode_datagram(const void *datagram, size_t length);
