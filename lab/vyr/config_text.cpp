#include "lab/vyr/config_text.h"

#include <cctype>

namespace vyr {

namespace {

constexpr std::string_view kPunctuation = "{}()[];,=~!<>&|+*?";

bool is_blank(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0 || c == '\0';
}

/** Length of the comment at the start of `text`: 0 when there is none, npos when it does not end. */
size_t comment_length(std::string_view text) {
    if (text.starts_with('#')) {
        const size_t end = text.find('\n');
        return end == std::string_view::npos ? text.size() : end;
    }
    if (!text.starts_with("/*"))
        return 0;
    const size_t end = text.find("*/", 2);
    return end == std::string_view::npos ? end : end + 2;
}

/** Length of the string at the start of `text` with its quotes, npos when it does not end on its line. */
size_t string_length(std::string_view text) {
    const size_t end = text.find_first_of("\"\n", 1);
    return end == std::string_view::npos || text[end] == '\n' ? std::string_view::npos : end + 1;
}

size_t word_length(std::string_view text) {
    size_t length = 0;
    while (length < text.size() && !is_blank(text[length]) && text[length] != '"' && text[length] != '#' &&
           kPunctuation.find(text[length]) == std::string_view::npos && !text.substr(length).starts_with("/*"))
        ++length;
    return length;
}

/** The token at the start of `text`; its text is empty when it does not end. */
Token first_token(std::string_view text) {
    if (text.front() == '"') {
        const size_t length = string_length(text);
        return {TokenKind::kString, length == std::string_view::npos ? text.substr(0, 0) : text.substr(0, length)};
    }
    if (kPunctuation.find(text.front()) != std::string_view::npos)
        return {TokenKind::kPunctuation, text.substr(0, 1)};
    return {TokenKind::kWord, text.substr(0, word_length(text))};
}

}  // namespace

Source tokenize(std::string_view text) {
    Source source{{}, true};
    while (!text.empty()) {
        if (is_blank(text.front())) {
            text.remove_prefix(1);
            continue;
        }
        const size_t comment = comment_length(text);
        if (comment == std::string_view::npos)
            return {std::move(source.tokens), false};
        if (comment > 0) {
            text.remove_prefix(comment);
            continue;
        }
        const Token token = first_token(text);
        if (token.text.empty())
            return {std::move(source.tokens), false};
        source.tokens.push_back(token);
        text.remove_prefix(token.text.size());
    }
    return source;
}

std::vector<Statement> split_statements(std::span<const Token> tokens) {
    std::vector<Statement> statements;
    size_t begin = 0;
    int depth = 0;
    for (size_t i = 0; i < tokens.size(); ++i) {
        const std::string_view text = tokens[i].text;
        const bool closes_block = text == "}" && --depth <= 0;
        depth += text == "{" ? 1 : 0;
        const bool semicolon_follows = i + 1 < tokens.size() && tokens[i + 1].text == ";";
        if ((text == ";" && depth <= 0) || (closes_block && !semicolon_follows)) {
            statements.push_back({tokens.subspan(begin, i + 1 - begin), true});
            begin = i + 1;
            depth = 0;
        }
    }
    if (begin < tokens.size())
        statements.push_back({tokens.subspan(begin), false});
    return statements;
}

std::span<const Token> block_of(const Statement &statement) {
    const auto tokens = statement.tokens;
    size_t first = 0;
    while (first < tokens.size() && tokens[first].text != "{")
        ++first;
    size_t last = tokens.size();
    while (last > first && tokens[last - 1].text != "}")
        --last;
    return last > first + 1 ? tokens.subspan(first + 1, last - first - 2) : std::span<const Token>{};
}

std::string_view text_of(std::span<const Token> tokens) {
    if (tokens.empty())
        return {};
    const char *begin = tokens.front().text.data();
    const char *end = tokens.back().text.data() + tokens.back().text.size();
    return {begin, static_cast<size_t>(end - begin)};
}

std::string_view unquoted(const Token &token) {
    return token.kind == TokenKind::kString ? token.text.substr(1, token.text.size() - 2) : token.text;
}

bool begins_with(std::span<const Token> tokens, std::initializer_list<std::string_view> words) {
    if (tokens.size() < words.size())
        return false;
    size_t i = 0;
    for (const std::string_view word : words)
        if (tokens[i++].text != word)
            return false;
    return true;
}

}  // namespace vyr
