#include "lab/vyr/static_route.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <charconv>
#include <utility>

namespace vyr {

namespace {

struct Route {
    std::string prefix;
    std::optional<RouteKey> key;
    std::optional<uint32_t> metric;
    bool drop = false;
    std::vector<Token> hops;
    std::span<const Token> block;
};

template <typename Number>
std::optional<Number> number_of(std::string_view text) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc{} && end == text.data() + text.size() ? std::optional<Number>(number) : std::nullopt;
}

std::string prefix_text(const RouteKey &key) {
    const in_addr address{htonl(key.address)};
    char text[INET_ADDRSTRLEN];
    return std::string(inet_ntop(AF_INET, &address, text, sizeof text)) + "/" + std::to_string(key.length);
}

/** The number that the block assigns to an attribute. */
std::optional<uint32_t> attribute(std::span<const Token> block, std::string_view name) {
    for (size_t i = 0; i + 2 < block.size(); ++i)
        if (block[i].text == name && block[i + 1].text == "=")
            return number_of<uint32_t>(block[i + 2].text);
    return std::nullopt;
}

/** Nothing when the statement has another form than the daemon's. */
std::optional<Route> parse_route(const Statement &statement) {
    const auto tokens = statement.tokens;
    if (!statement.complete || tokens.size() < 4)
        return std::nullopt;
    Route route;
    route.prefix = tokens[1].text;
    route.key = parse_prefix(tokens[1].text);
    size_t i = 2;
    if (tokens[i].text == "metric") {
        route.metric = number_of<uint32_t>(tokens[i + 1].text);
        i += 2;
    }
    for (; i + 1 < tokens.size() && tokens[i].text == "via"; i += 2)
        route.hops.push_back(tokens[i + 1]);
    if (i < tokens.size() && tokens[i].text == "drop") {
        route.drop = true;
        ++i;
    }
    route.block = block_of(statement);
    if (i >= tokens.size() || (tokens[i].text != ";" && tokens[i].text != "{") || route.drop != route.hops.empty())
        return std::nullopt;
    return route;
}

/** The route's attributes, with the metric for the kernel and, so that the lower one wins, for BIRD's own choice. */
std::string block_text(const Route &route) {
    std::string text;
    for (const Token &token : route.block)
        text += (token.text == ";" ? "" : " ") + std::string(token.text);
    if (route.metric && !attribute(route.block, "krt_metric"))
        text += " krt_metric = " + std::to_string(*route.metric) + ";";
    if (route.metric && !attribute(route.block, "igp_metric"))
        text += " igp_metric = " + std::to_string(*route.metric) + ";";
    return text.empty() ? text : " {" + text + " }";
}

/** The next hops that BIRD can take; the others are noted. */
std::string hops_text(const Route &route, Translation &translation) {
    std::string text;
    for (const Token &hop : route.hops) {
        if (hop.kind == TokenKind::kString && !is_interface_name(unquoted(hop)))
            translation.left_out.push_back(route.prefix + " via " + std::string(hop.text) +
                                           ": no interface can have this name");
        else
            text += " via " + std::string(hop.text);
    }
    return text;
}

}  // namespace

std::optional<RouteKey> parse_prefix(std::string_view text) {
    const size_t slash = text.find('/');
    if (slash == std::string_view::npos)
        return std::nullopt;
    in_addr address{};
    const auto length = number_of<unsigned>(text.substr(slash + 1));
    if (!length || *length > 32 || inet_pton(AF_INET, std::string(text.substr(0, slash)).c_str(), &address) != 1)
        return std::nullopt;
    const uint32_t mask = *length == 0 ? 0 : ~uint32_t{0} << (32 - *length);
    return RouteKey{ntohl(address.s_addr) & mask, *length, 0};
}

bool is_interface_name(std::string_view name) {
    constexpr std::string_view kForbidden("/: \t\n\v\f\r\0", 9);
    return !name.empty() && name.size() < IFNAMSIZ && name != "." && name != ".." &&
           name.find_first_of(kForbidden) == std::string_view::npos;
}

void translate_route(const Statement &statement, Translation &translation) {
    auto route = parse_route(statement);
    if (!route) {
        translation.pieces.push_back({PieceKind::kRoute, "  ", std::string(text_of(statement.tokens)), std::nullopt});
        for (const Token &token : statement.tokens)
            translation.pieces.back().text += std::string(token.text) + " ";
        translation.pieces.back().text += "\n";
        return;
    }
    if (route->key) {
        route->prefix = prefix_text(*route->key);
        route->key->metric = attribute(route->block, "krt_metric").value_or(route->metric.value_or(0));
    }
    const std::string target = route->drop ? " blackhole" : hops_text(*route, translation);
    if (target.empty())
        return;
    const std::string name = route->prefix + target;
    translation.pieces.push_back({PieceKind::kRoute, "  route " + name + block_text(*route) + ";\n", name, route->key});
}

}  // namespace vyr
