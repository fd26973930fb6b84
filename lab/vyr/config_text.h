/*
 * The routing daemon's configuration language, as far as a translation needs it: words, strings, punctuation, and
 * statements that end with a semicolon or a block.
 */
#pragma once

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

namespace vyr {

enum class TokenKind { kWord, kString, kPunctuation };

/** `text` points into the source; a string's text has its quotes. */
struct Token {
    TokenKind kind;
    std::string_view text;
};

struct Source {
    std::vector<Token> tokens;
    bool complete;  ///< false when a string or comment has no end; the tokens before it are there
};

/** Comments are left out. */
Source tokenize(std::string_view text);

/** A statement: its tokens with the semicolon, and how many of them come before its outermost block. */
struct Statement {
    std::span<const Token> tokens;
    bool complete;  ///< ended by a semicolon or by the end of its block
};

/** Splits at top level: what is inside braces stays in its statement. */
std::vector<Statement> split_statements(std::span<const Token> tokens);

/** The tokens between the statement's first opening brace and its last closing one; empty when there is no block. */
std::span<const Token> block_of(const Statement &statement);

/** The source text from the first token to the last one. */
std::string_view text_of(std::span<const Token> tokens);

/** A string token's content. */
std::string_view unquoted(const Token &token);

/** Whether the tokens begin with these words, in order. */
bool begins_with(std::span<const Token> tokens, std::initializer_list<std::string_view> words);

}  // namespace vyr
