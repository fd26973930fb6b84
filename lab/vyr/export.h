/*
 * Answers to export requests: the routes that BIRD really holds, as lines of text.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace vyr {

/** BIRD's whole answer to a command, or nothing. */
using AskBird = std::function<std::optional<std::string>(const std::string &command)>;

/**
 * Answers one packed request with one frame: the length, which counts its own four bytes, then the packed answer. The
 * result is 2 for success; anything else means that the request is unknown or cannot be met.
 */
std::string answer_request(const std::string &request, const AskBird &ask);

/** The entries from `offset` on, `count` of them at most (0: all), `limit` bytes at most. A line that begins with a
 * blank belongs to the entry before it. */
std::string select_entries(const std::string &reply, uint32_t offset, uint32_t count, size_t limit);

/** A packed event: BIRD holds more routes than the application protocol's limit. */
std::string pack_limit_event(uint32_t routes, uint32_t limit);

/** Reads the answer to "show route count": the networks of the main table. */
std::optional<uint32_t> parse_route_count(const std::string &reply);

}  // namespace vyr
