/*
 * Routes as they were rendered last. At each change all routes but one are as they were.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string_view>

#include "staticroute/table.h"

/**
 * Whether the same bytes in the entry mean the same text: a name behind a pointer may change, and its absence is
 * logged.
 */
bool route_text_can_be_kept(const StaticRouteEntry *entry, uint8_t filter_mode);

/** The text kept for a place in the table; empty when there is none, or the entry, without names, has another by now.
 */
std::string_view kept_route_text(size_t index, const StaticRouteEntry *entry);

/** Keeps the text of the entry at a place in the table; an empty or long one is not, and what was kept stays. */
void keep_route_text(size_t index, const StaticRouteEntry *entry, std::string_view text);
