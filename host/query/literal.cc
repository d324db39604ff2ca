// SPDX-License-Identifier: Apache-2.0
#include "host/query/literal.h"

#include <algorithm>
#include <array>

#include "host/query/characters.h"
#include "host/query/numbers.h"

namespace thmp::query {

namespace {

bool isOneOf(std::string_view text, const std::array<std::string_view, 3>& words) {
  return std::any_of(words.begin(), words.end(),
                     [&](std::string_view word) { return equalsIgnoringAsciiCase(text, word); });
}

std::optional<bool> readBoolean(std::string_view text) {
  if (isOneOf(text, {"true", "yes", "1"})) return true;
  if (isOneOf(text, {"false", "no", "0"})) return false;
  return std::nullopt;
}

}  // namespace

std::string unescaped(std::string_view content) {
  std::string result;
  result.reserve(content.size());
  for (std::size_t i = 0; i < content.size(); ++i) {
    if (content[i] == '\\' && i + 1 < content.size()) ++i;
    result.push_back(content[i]);
  }
  return result;
}

Literal makeLiteral(const Token& token, Modifiers modifiers, bool forText,
                    const QueryOptions& options) {
  const std::string_view content = token.content();
  const std::u32string pattern = readPattern(content);
  const auto isRun = [](char32_t c) { return c == kAnyRun; };

  Literal literal;
  literal.form = token.kind == Token::Kind::kString ? Literal::Form::kString : Literal::Form::kWord;
  literal.source = token.source;
  literal.modifiers = modifiers;
  literal.isPresence = !pattern.empty() && std::all_of(pattern.begin(), pattern.end(), isRun);
  if (forText && !literal.isPresence) literal.text.emplace(pattern, modifiers);
  if (std::any_of(pattern.begin(), pattern.end(), isWildcard)) return literal;

  const std::string text = unescaped(content);
  literal.boolean = readBoolean(text);
  literal.time = readIsoTime(text, options);
  if (const std::optional<Value> number = readNumber(text)) {
    literal.number = *number;
    const Date date{number->numberValue().value_or(0)};
    literal.time = TimeSpan{date, date, false};
    // An escape makes text of what would read as a number.
    const bool plain = text.size() == content.size();
    if (literal.form == Literal::Form::kWord && plain) literal.form = Literal::Form::kNumber;
  }
  return literal;
}

Literal makeTimeLiteral(std::string_view source, const TimeSpan& time) {
  Literal literal;
  literal.form = Literal::Form::kTime;
  literal.source = source;
  literal.time = time;
  return literal;
}

}  // namespace thmp::query
