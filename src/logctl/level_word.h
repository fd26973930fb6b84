/*
 * Level words as they stand in the DAL, and the notifications of their keys.
 */
#pragma once

#include <stdint.h>

#include "platform/dal.h"

inline constexpr char kKeyspaceChannel[] = "__keyspace@0__:"; /**< stands before the key in a notification's channel */

/** A value; what is longer than 16 characters is cut. */
struct LevelWord {
    char text[17];
    uint32_t length;
};

/** Reads a key's value. False when there is none or the DAL fails. */
bool read_level_word(const char *key, LevelWord *word);

/** The command that subscribes to a key's notifications. */
void format_key_subscription(char *command, size_t size, const char *key);
