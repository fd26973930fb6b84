#include "lab/vyr/translate.h"

#include <algorithm>
#include <charconv>

#include "lab/vyr/config_text.h"
#include "lab/vyr/static_route.h"

namespace vyr {

namespace {

constexpr int kMaxIncludeDepth = 8;  // BIRD's own

void translate_file(const std::string &path, const std::string &text, const Files &files, int depth,
                    Translation &translation);

void add_text(Translation &translation, std::string text) {
    translation.pieces.push_back({PieceKind::kText, std::move(text) + "\n", {}, std::nullopt});
}

/** BIRD reads a relative path from the folder of the including file. */
std::string resolve(const std::string &including, std::string_view path) {
    if (path.starts_with('/'))
        return std::string(path);
    const size_t slash = including.rfind('/');
    return (slash == std::string::npos ? std::string() : including.substr(0, slash + 1)) + std::string(path);
}

void translate_include(const Statement &statement, const std::string &including, const Files &files, int depth,
                       Translation &translation) {
    const std::string pattern = resolve(including, unquoted(statement.tokens[1]));
    const bool wildcard = pattern.find_first_of("*?[") != std::string::npos;
    for (const std::string &path : wildcard ? files.match(pattern) : std::vector<std::string>{pattern}) {
        const auto text = depth < kMaxIncludeDepth ? files.read(path) : std::nullopt;
        if (text)
            translate_file(path, *text, files, depth + 1, translation);
        else
            add_text(translation, "include \"" + path + "\";");
    }
}

void translate_static(const Statement &statement, Translation &translation) {
    const auto block = block_of(statement);
    const auto tokens = statement.tokens;
    const auto brace = std::find_if(tokens.begin(), tokens.end(), [](const Token &token) { return token.text == "{"; });
    add_text(translation, std::string(text_of({tokens.begin(), brace + 1})));
    for (const Statement &inner : split_statements(block)) {
        if (begins_with(inner.tokens, {"route"}))
            translate_route(inner, translation);
        else
            add_text(translation, "  " + std::string(text_of(inner.tokens)));
    }
    add_text(translation, "}");
}

void read_application_limit(const Statement &statement, Translation &translation) {
    const auto tokens = statement.tokens;
    for (size_t i = 0; i + 1 < tokens.size(); ++i) {
        const std::string_view text = tokens[i + 1].text;
        uint32_t limit = 0;
        if (tokens[i].text == "max_prefixes" &&
            std::from_chars(text.data(), text.data() + text.size(), limit).ec == std::errc{})
            translation.max_prefixes = limit;
    }
}

/** Protocols that stock BIRD does not have, and the functions and filters that belong to them. */
bool is_unknown_section(std::span<const Token> tokens) {
    if (tokens.size() < 2)
        return false;
    const std::string_view kind = tokens[0].text;
    const std::string_view name = tokens[1].text;
    if (kind == "protocol")
        return name == "app" || name == "oap";
    return (kind == "function" || kind == "filter") && (name.starts_with("app_") || name.starts_with("oap_"));
}

void translate_statement(const Statement &statement, const std::string &path, const Files &files, int depth,
                         Translation &translation) {
    const auto tokens = statement.tokens;
    const bool has_string = tokens.size() > 1 && tokens[1].kind == TokenKind::kString;
    if (!statement.complete) {
        add_text(translation, std::string(text_of(tokens)));
        return;
    }
    if (begins_with(tokens, {"include"}) && has_string && tokens.size() == 3)
        translate_include(statement, path, files, depth, translation);
    else if (begins_with(tokens, {"protocol", "static"}) && !block_of(statement).empty())
        translate_static(statement, translation);
    else if (begins_with(tokens, {"log"}) && has_string)
        translation.pieces.push_back(
            {PieceKind::kLog, std::string(text_of(tokens)) + "\n", std::string(unquoted(tokens[1])), std::nullopt});
    else if (begins_with(tokens, {"protocol", "app"}))
        read_application_limit(statement, translation);
    else if (!is_unknown_section(tokens))
        add_text(translation, std::string(text_of(tokens)));
}

void translate_file(const std::string &path, const std::string &text, const Files &files, int depth,
                    Translation &translation) {
    const Source source = tokenize(text);
    for (const Statement &statement : split_statements(source.tokens))
        translate_statement(statement, path, files, depth, translation);
    if (!source.complete)
        add_text(translation, "\"");  // BIRD says what it says about a string without an end
}

}  // namespace

std::optional<Translation> translate(const std::string &path, const Files &files) {
    const auto text = files.read(path);
    if (!text)
        return std::nullopt;
    Translation translation;
    translate_file(path, *text, files, 0, translation);
    return translation;
}

std::string render(const Translation &translation) {
    std::string text;
    for (const Piece &piece : translation.pieces)
        text += piece.text;
    return text;
}

void leave_out(Translation &translation, size_t piece, std::string_view reason) {
    translation.left_out.push_back(translation.pieces[piece].name + ": " + std::string(reason));
    translation.pieces.erase(translation.pieces.begin() + static_cast<std::ptrdiff_t>(piece));
}

bool leave_out_line(Translation &translation, unsigned line, std::string_view reason) {
    unsigned first = 1;
    for (size_t i = 0; i < translation.pieces.size(); ++i) {
        const Piece &piece = translation.pieces[i];
        const auto lines = static_cast<unsigned>(std::count(piece.text.begin(), piece.text.end(), '\n'));
        if (line >= first && line < first + lines) {
            if (piece.kind == PieceKind::kText)
                return false;
            leave_out(translation, i, reason);
            return true;
        }
        first += lines;
    }
    return false;
}

std::vector<RouteKey> route_keys(const Translation &translation) {
    std::vector<RouteKey> keys;
    for (const Piece &piece : translation.pieces)
        if (piece.key)
            keys.push_back(*piece.key);
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    return keys;
}

}  // namespace vyr
