// SPDX-License-Identifier: Apache-2.0
#include "host/query/characters.h"

#include <utf8proc.h>

#include <algorithm>
#include <cstring>

namespace thmp::query {

namespace {

utf8proc_category_t category(char32_t codePoint) {
  return utf8proc_category(static_cast<utf8proc_int32_t>(codePoint));
}

/// The length of the well-formed sequence at `position`, its code point in `*codePoint`; 0 when
/// there is none.
std::size_t decode(std::string_view text, std::size_t position, utf8proc_int32_t* codePoint) {
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data() + position);
  const auto left = static_cast<utf8proc_ssize_t>(text.size() - position);
  const utf8proc_ssize_t length = utf8proc_iterate(bytes, left, codePoint);
  return length > 0 ? static_cast<std::size_t>(length) : 0;
}

/// How many bytes from `position` on are ASCII.
std::size_t asciiRun(std::string_view text, std::size_t position) {
  std::size_t end = position;
  std::uint64_t word = 0;
  while (end + sizeof word <= text.size()) {
    std::memcpy(&word, text.data() + end, sizeof word);
    if ((word & 0x8080808080808080U) != 0) break;
    end += sizeof word;
  }
  while (end < text.size() && isAsciiByte(text[end])) ++end;
  return end - position;
}

}  // namespace

bool equalsIgnoringAsciiCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return asciiLower(x) == asciiLower(y); });
}

bool isAscii(std::string_view text) { return asciiRun(text, 0) == text.size(); }

char32_t decodeNext(std::string_view text, std::size_t& position) {
  if (isAsciiByte(text[position])) return static_cast<unsigned char>(text[position++]);
  utf8proc_int32_t codePoint = 0;
  const std::size_t length = decode(text, position, &codePoint);
  position += std::max<std::size_t>(length, 1);
  return length == 0 ? kReplacementCharacter : static_cast<char32_t>(codePoint);
}

void appendUtf8(char32_t codePoint, std::string& out) {
  if (codePoint < 0x80) {
    out.push_back(static_cast<char>(codePoint));
    return;
  }
  utf8proc_uint8_t bytes[4];
  const utf8proc_ssize_t length =
      utf8proc_encode_char(static_cast<utf8proc_int32_t>(codePoint), bytes);
  out.append(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
}

std::optional<std::size_t> firstInvalidUtf8(std::string_view text) {
  std::size_t position = asciiRun(text, 0);
  while (position < text.size()) {
    utf8proc_int32_t codePoint = 0;
    const std::size_t length = decode(text, position, &codePoint);
    if (length == 0) return position;
    position += length;
    position += asciiRun(text, position);
  }
  return std::nullopt;
}

bool isMark(char32_t codePoint) {
  if (codePoint < 0x300) return false;
  const utf8proc_category_t c = category(codePoint);
  return c == UTF8PROC_CATEGORY_MN || c == UTF8PROC_CATEGORY_MC || c == UTF8PROC_CATEGORY_ME;
}

bool isWordCharacter(char32_t codePoint) {
  if (codePoint < 0x80) {
    return (codePoint >= 'a' && codePoint <= 'z') || (codePoint >= 'A' && codePoint <= 'Z') ||
           (codePoint >= '0' && codePoint <= '9');
  }
  switch (category(codePoint)) {
    case UTF8PROC_CATEGORY_LU:
    case UTF8PROC_CATEGORY_LL:
    case UTF8PROC_CATEGORY_LT:
    case UTF8PROC_CATEGORY_LM:
    case UTF8PROC_CATEGORY_LO:
    case UTF8PROC_CATEGORY_ND:
    case UTF8PROC_CATEGORY_NL:
    case UTF8PROC_CATEGORY_NO:
      return true;
    default:
      return false;
  }
}

bool isWordBoundary(char32_t left, char32_t right) {
  if (!isWordCharacter(left) || !isWordCharacter(right)) return true;
  if (isWordByItself(left) || isWordByItself(right)) return true;
  if (category(left) != UTF8PROC_CATEGORY_LL) return false;
  const utf8proc_category_t r = category(right);
  return r == UTF8PROC_CATEGORY_LU || r == UTF8PROC_CATEGORY_LT;
}

}  // namespace thmp::query
