// SPDX-License-Identifier: Apache-2.0
#include "host/query/syntax_error.h"

#include <utf8proc.h>

#include <algorithm>

#include "host/query/characters.h"

namespace thmp::query {

namespace {

constexpr std::size_t kBytesBefore = 40;
constexpr std::size_t kBytesAfter = 30;
constexpr std::size_t kQuotedBytes = 32;

bool isContinuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80; }
bool isControl(char32_t c) { return c < 0x20 || (c >= 0x7F && c < 0xA0); }

/// The nearest place at or after `position` that is not inside a UTF-8 sequence.
std::size_t sequenceEdge(std::string_view text, std::size_t position) {
  while (position < text.size() && isContinuation(text[position])) ++position;
  return position;
}

}  // namespace

std::string pointOut(std::string_view text, const SyntaxError& error) {
  const std::size_t place = std::min(error.offset, text.size());
  const std::size_t begin =
      place > kBytesBefore ? std::min(sequenceEdge(text, place - kBytesBefore), place) : 0;
  const std::size_t end = sequenceEdge(text, std::min(text.size(), place + kBytesAfter));
  std::string line;
  std::size_t column = 0;
  for (std::size_t position = begin; position < end;) {
    const bool before = position < place;
    char32_t c = decodeNext(text, position);
    if (isControl(c)) c = ' ';
    appendUtf8(c, line);
    const int width = utf8proc_charwidth(static_cast<utf8proc_int32_t>(c));
    if (before) column += static_cast<std::size_t>(std::max(width, 0));
  }
  return line + "\n" + std::string(column, ' ') + "^";
}

std::string inQuotes(std::string_view source) {
  const bool cut = source.size() > kQuotedBytes;
  if (cut) source = source.substr(0, sequenceEdge(source, kQuotedBytes));
  std::string result = "\"";
  for (std::size_t position = 0; position < source.size();) {
    const char32_t c = decodeNext(source, position);
    appendUtf8(isControl(c) ? kReplacementCharacter : c, result);
  }
  return result + (cut ? "...\"" : "\"");
}

}  // namespace thmp::query
