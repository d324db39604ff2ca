// SPDX-License-Identifier: Apache-2.0
#include "host/query/characters.h"

#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace thmp::query {

namespace {

constexpr bool isWrittenWithoutSpaces(char32_t c) {
  return (c >= 0x3040 && c <= 0x30FF) || (c >= 0x31F0 && c <= 0x31FF) ||
         (c >= 0x3400 && c <= 0x4DBF) || (c >= 0x4E00 && c <= 0x9FFF) ||
         (c >= 0xF900 && c <= 0xFAFF) || (c >= 0x20000 && c <= 0x3FFFF);
}

unsigned classOfCategory(utf8proc_propval_t category) {
  switch (category) {
    case UTF8PROC_CATEGORY_MN:
    case UTF8PROC_CATEGORY_MC:
    case UTF8PROC_CATEGORY_ME:
      return kMark;
    case UTF8PROC_CATEGORY_LL:
      return kWordCharacter | kLowerCase;
    case UTF8PROC_CATEGORY_LU:
    case UTF8PROC_CATEGORY_LT:
      return kWordCharacter | kUpperCase;
    case UTF8PROC_CATEGORY_LM:
    case UTF8PROC_CATEGORY_LO:
    case UTF8PROC_CATEGORY_ND:
    case UTF8PROC_CATEGORY_NL:
    case UTF8PROC_CATEGORY_NO:
      return kWordCharacter;
    default:
      return 0;
  }
}

std::uint8_t computeClass(char32_t codePoint) {
  const utf8proc_property_t& p = *utf8proc_get_property(static_cast<utf8proc_int32_t>(codePoint));
  unsigned bits = classOfCategory(p.category);
  if (isWrittenWithoutSpaces(codePoint)) bits |= kWordByItself;
  if (p.casefold_seqindex == UINT16_MAX && p.decomp_seqindex == UINT16_MAX) {
    bits |= kUnmovedByFolds;
  }
  return static_cast<std::uint8_t>(bits);
}

/// The classes of the basic plane, which nearly all text is made of.
using ClassTable = std::array<std::uint8_t, 0x10000>;

ClassTable makeClassTable() {
  ClassTable table{};
  for (char32_t c = 0; c < table.size(); ++c) table[c] = computeClass(c);
  return table;
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

void lowerAscii(std::string_view text, char* out) {
  constexpr std::uint64_t kEach = 0x0101010101010101U;  // times a byte: that byte eight times
  std::size_t done = 0;
  for (; done + 8 <= text.size(); done += 8) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + done, 8);
    // The top bit of each byte, free in ASCII, tells whether the byte is at least A, or above Z.
    const std::uint64_t atLeastA = word + kEach * (0x80 - 'A');
    const std::uint64_t aboveZ = word + kEach * (0x7F - 'Z');
    word |= ((atLeastA ^ aboveZ) & (kEach * 0x80)) >> 2U;
    std::memcpy(out + done, &word, 8);
  }
  std::transform(text.begin() + static_cast<std::ptrdiff_t>(done), text.end(), out + done,
                 asciiLower);
}

bool isAscii(std::string_view text) { return asciiRun(text, 0) == text.size(); }

char32_t decodeNext(std::string_view text, std::size_t& position) {
  if (isAsciiByte(text[position])) return static_cast<unsigned char>(text[position++]);
  const auto byteAt = [&](std::size_t i) {
    return static_cast<unsigned>(static_cast<unsigned char>(text[position + i]));
  };
  // Two bytes, the commonest case, are told by themselves.
  if (position + 1 < text.size() && byteAt(0) >= 0xC2 && byteAt(0) < 0xE0 &&
      (byteAt(1) & 0xC0U) == 0x80) {
    const char32_t codePoint = ((byteAt(0) & 0x1FU) << 6U) | (byteAt(1) & 0x3FU);
    position += 2;
    return codePoint;
  }
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
  if (codePoint < 0x800) {
    out.push_back(static_cast<char>(0xC0U | (codePoint >> 6U)));
    out.push_back(static_cast<char>(0x80U | (codePoint & 0x3FU)));
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

unsigned classOf(char32_t codePoint) {
  static const ClassTable table = makeClassTable();
  return codePoint < table.size() ? table[codePoint] : computeClass(codePoint);
}

}  // namespace thmp::query
