// SPDX-License-Identifier: Apache-2.0
//
// Cuts a query text into tokens, one at a time, so that a hostile text costs no more memory than it
// has itself. Tokens are views of the text, which must outlive them. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "host/query/syntax_error.h"

namespace thmp::query {

struct Token {
  enum class Kind : std::uint8_t {
    kEnd,
    kInvalid,  // Lexer::error() says why; no token follows
    kString,
    kWord,
    kAnd,
    kOr,
    kNot,
    kEqual,  // = and ==
    kNotEqual,
    kLess,
    kLessOrEqual,
    kGreater,
    kGreaterOrEqual,
    kOpenGroup,
    kCloseGroup,
    kOpenBracket,
    kCloseBracket,
    kComma,
  };

  Kind kind = Kind::kEnd;
  std::size_t offset = 0;
  std::string_view source;  // as it stands in the text, quotes and escapes included

  std::size_t end() const { return offset + source.size(); }
  /// What a string holds between its quotes, or a word; escapes not yet taken away.
  std::string_view content() const {
    return kind == Kind::kString ? source.substr(1, source.size() - 2) : source;
  }
};

/// The kind in words, as "string" or "and".
std::string_view kindName(Token::Kind kind);

class Lexer {
 public:
  /// A text that is not UTF-8, or has a NUL in it, gives an invalid token at once.
  explicit Lexer(std::string_view text);

  /// The next token; kEnd again and again at the end.
  Token next();

  const SyntaxError& error() const { return error_; }

 private:
  void skipWhiteSpace();
  Token take(Token::Kind kind, std::size_t length);
  Token invalid(std::size_t offset, std::string_view message, std::string_view hint);
  Token string();
  Token word();
  Token sign();

  std::string_view text_;
  std::size_t position_ = 0;
  SyntaxError error_;
};

}  // namespace thmp::query
