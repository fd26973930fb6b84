/*
 * Numbers in texts that others wrote.
 */
#pragma once

/**
 * What atoi yields, for every text: leading blanks and a sign, then digits up to the first other character; 0 when
 * there is no digit. A number beyond int, where atoi is undefined, is the nearest int. NULL is read as the empty text.
 */
int parse_int(const char *text);

/** The same for a text that goes on: `end` is where the number ends, `text` itself when there is no digit. Not NULL. */
int parse_int(const char *text, const char **end);
