/*
 * Turns the configuration that the daemon writes into one that stock BIRD 2 reads.
 *
 * Includes are followed, so that the result is one text. What stock BIRD does not know is left out. Each static route
 * stands on a line of its own, so that BIRD's complaint about one leads back to it and costs only that route.
 */
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vyr {

/** Where included files come from. */
struct Files {
    std::function<std::optional<std::string>(const std::string &path)> read;
    std::function<std::vector<std::string>(const std::string &pattern)> match;  ///< paths that a wildcard stands for
};

/** What tells one static route from another in the kernel's table. Addresses are in host order. */
struct RouteKey {
    uint32_t address;
    unsigned length;
    uint32_t metric;

    auto operator<=>(const RouteKey &) const = default;
};

enum class PieceKind {
    kText,   ///< has to stand
    kRoute,  ///< one static route, may be left out
    kLog     ///< one log target, may be left out
};

/** Reads "10.1.0.0/16"; host bits are masked away and the metric is 0. */
std::optional<RouteKey> parse_prefix(std::string_view text);

struct Piece {
    PieceKind kind;
    std::string text;             ///< ends with a newline
    std::string name;             ///< the route as messages show it, the log file's path
    std::optional<RouteKey> key;  ///< of a route whose prefix could be read
};

struct Translation {
    std::vector<Piece> pieces;
    std::vector<std::string> left_out;     ///< routes and next hops, one message each
    std::optional<uint32_t> max_prefixes;  ///< of the application protocol
};

/** Nothing when the file itself cannot be read. Text that cannot be followed is passed on for BIRD to complain about.
 */
std::optional<Translation> translate(const std::string &path, const Files &files);

/** The configuration file's text. */
std::string render(const Translation &translation);

/** Takes out the piece at that line of the rendered text, if it may go, and notes the reason. False when it may not. */
bool leave_out_line(Translation &translation, unsigned line, std::string_view reason);

/** Takes out one piece and notes the reason. */
void leave_out(Translation &translation, size_t piece, std::string_view reason);

/** The keys of all routes that are left, sorted. */
std::vector<RouteKey> route_keys(const Translation &translation);

}  // namespace vyr
