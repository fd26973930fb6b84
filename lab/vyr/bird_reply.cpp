#include <algorithm>
#include <charconv>
#include <sstream>

#include "lab/vyr/bird.h"

namespace vyr {

namespace {

constexpr std::string_view kKernelMetric = "Kernel.metric: ";

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

/** A line begins with four digits and a dash, or with one blank when it has the same code as the line before. */
std::string without_code(const std::string &line) {
    const bool has_code = line.size() >= 5 && std::all_of(line.begin(), line.begin() + 4, is_digit) && line[4] == '-';
    return line.substr(std::min(line.size(), has_code ? size_t{5} : size_t{1}));
}

}  // namespace

std::vector<std::string> reply_lines(const std::string &reply) {
    std::vector<std::string> lines;
    std::istringstream stream(reply);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(without_code(line));
    if (!lines.empty())
        lines.pop_back();
    return lines;
}

std::vector<RouteKey> parse_chosen_routes(const std::string &reply) {
    std::vector<RouteKey> keys;
    for (const std::string &line : reply_lines(reply)) {
        if (const auto key = parse_prefix(line.substr(0, line.find(' '))))
            keys.push_back(*key);
        const size_t place = line.find(kKernelMetric);
        if (place != std::string::npos && !keys.empty())
            std::from_chars(line.data() + place + kKernelMetric.size(), line.data() + line.size(), keys.back().metric);
    }
    std::sort(keys.begin(), keys.end());
    return keys;
}

}  // namespace vyr
