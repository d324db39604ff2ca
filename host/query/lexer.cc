// SPDX-License-Identifier: Apache-2.0
#include "host/query/lexer.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>

#include "host/query/characters.h"

namespace thmp::query {

namespace {

/// Offsets into folded text are 32 bits wide, and folding can make a text three times as long.
constexpr std::size_t kMaxTextBytes = std::size_t{256} << 20;

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

/// For each byte whether it ends a word.
constexpr std::array<bool, 256> kEndsWord = [] {
  std::array<bool, 256> ends{};
  for (const char c : std::string_view(" \t\n\v\f\r(),[]&|!=<>\"'")) {
    ends[static_cast<unsigned char>(c)] = true;
  }
  return ends;
}();

bool endsWord(char byte) { return kEndsWord[static_cast<unsigned char>(byte)]; }

struct Sign {
  std::string_view text;
  Token::Kind kind;
};

/// Longer ones before their beginnings.
constexpr std::array kSigns{
    Sign{"&&", Token::Kind::kAnd},         Sign{"||", Token::Kind::kOr},
    Sign{"==", Token::Kind::kEqual},       Sign{"!=", Token::Kind::kNotEqual},
    Sign{"<=", Token::Kind::kLessOrEqual}, Sign{">=", Token::Kind::kGreaterOrEqual},
    Sign{"=", Token::Kind::kEqual},        Sign{"<", Token::Kind::kLess},
    Sign{">", Token::Kind::kGreater},      Sign{"!", Token::Kind::kNot},
    Sign{"(", Token::Kind::kOpenGroup},    Sign{")", Token::Kind::kCloseGroup},
    Sign{"[", Token::Kind::kOpenBracket},  Sign{"]", Token::Kind::kCloseBracket},
    Sign{",", Token::Kind::kComma},
};

}  // namespace

std::string_view kindName(Token::Kind kind) {
  switch (kind) {
    case Token::Kind::kEnd:
      return "end";
    case Token::Kind::kInvalid:
      return "invalid";
    case Token::Kind::kString:
      return "string";
    case Token::Kind::kWord:
      return "word";
    case Token::Kind::kAnd:
      return "and";
    case Token::Kind::kOr:
      return "or";
    case Token::Kind::kNot:
      return "not";
    case Token::Kind::kEqual:
      return "equal";
    case Token::Kind::kNotEqual:
      return "not equal";
    case Token::Kind::kLess:
      return "less";
    case Token::Kind::kLessOrEqual:
      return "less or equal";
    case Token::Kind::kGreater:
      return "greater";
    case Token::Kind::kGreaterOrEqual:
      return "greater or equal";
    case Token::Kind::kOpenGroup:
      return "group opens";
    case Token::Kind::kCloseGroup:
      return "group closes";
    case Token::Kind::kOpenBracket:
      return "bracket opens";
    case Token::Kind::kCloseBracket:
      return "bracket closes";
    case Token::Kind::kComma:
      return "comma";
  }
  return "";
}

Lexer::Lexer(std::string_view text) : text_(text) {
  if (text.size() > kMaxTextBytes) {
    invalid(0, "the text is too long", "queries may have up to 256 MiB");
    return;
  }
  const std::optional<std::size_t> broken = firstInvalidUtf8(text);
  const std::size_t nul = text.find('\0');
  if (broken && *broken < nul) {
    invalid(*broken, "the text is not valid UTF-8 here", "");
  } else if (nul != std::string_view::npos) {
    invalid(nul, "a NUL character cannot stand in a query", "");
  }
}

Token Lexer::next() {
  if (!error_.message.empty()) return {Token::Kind::kInvalid, error_.offset, {}};
  skipWhiteSpace();
  if (position_ == text_.size()) return {Token::Kind::kEnd, position_, {}};
  const char byte = text_[position_];
  if (byte == '"' || byte == '\'') return string();
  return endsWord(byte) ? sign() : word();
}

void Lexer::skipWhiteSpace() {
  position_ = std::min(text_.find_first_not_of(kWhiteSpace, position_), text_.size());
}

Token Lexer::take(Token::Kind kind, std::size_t length) {
  const Token token{kind, position_, text_.substr(position_, length)};
  position_ += length;
  return token;
}

Token Lexer::invalid(std::size_t offset, std::string_view message, std::string_view hint) {
  error_ = {offset, std::string(message), std::string(hint)};
  return {Token::Kind::kInvalid, offset, {}};
}

Token Lexer::string() {
  const char quote = text_[position_];
  for (std::size_t i = position_ + 1; i < text_.size(); ++i) {
    if (text_[i] == quote) return take(Token::Kind::kString, i + 1 - position_);
    if (text_[i] == '\\') ++i;
  }
  return invalid(position_, "this string is not closed",
                 std::string("close it with ") + quote + "; inside a string write \\" + quote);
}

Token Lexer::word() {
  std::size_t end = position_;
  while (end < text_.size() && !endsWord(text_[end])) {
    if (text_[end] == '\\' && end + 1 == text_.size()) {
      return invalid(end, "nothing follows this backslash", "write \\\\ for a backslash itself");
    }
    end += text_[end] == '\\' ? 2 : 1;
  }
  return take(Token::Kind::kWord, end - position_);
}

Token Lexer::sign() {
  for (const Sign& candidate : kSigns) {
    if (text_.substr(position_).starts_with(candidate.text)) {
      return take(candidate.kind, candidate.text.size());
    }
  }
  const std::string lone(1, text_[position_]);
  return invalid(position_, "a single " + lone + " means nothing",
                 "write " + lone + lone + ", or put the text in quotes");
}

}  // namespace thmp::query
