/*
 * The DAL channels of the platform's events.
 */
#pragma once

#include <stdint.h>

/** Identifier of the event that this daemon publishes. */
inline constexpr uint16_t kRouteLimitEid = 116;

inline constexpr unsigned kEventRowSize = 128;  /**< bytes of a row in the lists of eid_mapping_table */
inline constexpr unsigned kEventTableSize = 20; /**< entries of eid_mapping_table, of which 15 are filled */

/**
 * Entry 0 is the list of channel templates; entries 1 to 14 are the lists of event names, one a category, each with the
 * wildcard "*" in its row 0. NULL throughout until the first publication, and behind entry 14.
 */
extern const char *eid_mapping_table[kEventTableSize];

/** The channel of an event, in a buffer of vyrwrap_format_rotating; NULL when the identifier has none. */
const char *event_channel(uint16_t eid);

/** Formats into one of 32 buffers of 96 bytes, used in turn: the 32nd call from here overwrites the result. */
const char *vyrwrap_format_rotating(const char *format, ...) __attribute__((format(printf, 1, 2)));
