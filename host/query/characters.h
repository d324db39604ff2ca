// SPDX-License-Identifier: Apache-2.0
//
// What the query language says about single code points: which are marks, which are parts of words,
// and where a word begins or ends between two of them. All functions are pure and total; any
// thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace thmp::query {

inline constexpr char32_t kReplacementCharacter = 0xFFFD;

constexpr bool isAsciiByte(char byte) { return static_cast<unsigned char>(byte) < 0x80; }

constexpr char asciiLower(char byte) {
  return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

/// Whether two texts are equal when the case of ASCII letters does not count.
bool equalsIgnoringAsciiCase(std::string_view a, std::string_view b);

/// `text`, which is ASCII, in lower case; written to `out`, which has room for as many bytes.
void lowerAscii(std::string_view text, char* out);

/// Whether every byte of `text` is ASCII, NUL included.
bool isAscii(std::string_view text);

/// The code point at `position`, which moves behind it. A byte that is no part of well-formed UTF-8
/// gives U+FFFD and counts one. REQUIRES: position < text.size().
char32_t decodeNext(std::string_view text, std::size_t& position);

/// REQUIRES: a Unicode scalar value.
void appendUtf8(char32_t codePoint, std::string& out);

/// Where the first byte stands that is not well-formed UTF-8; empty when all is.
std::optional<std::size_t> firstInvalidUtf8(std::string_view text);

/// What the rules ask about a code point, as bits.
enum CharacterClass : std::uint8_t {
  kMark = 1,            // general category M: belongs to the character before it
  kWordCharacter = 2,   // general category L or N
  kLowerCase = 4,       // Ll
  kUpperCase = 8,       // Lu or Lt
  kWordByItself = 16,   // ideographs and kana, which are written without spaces
  kUnmovedByFolds = 32  // folding leaves it as it is: it neither decomposes nor has another case
};

/// The CharacterClass bits of `codePoint`.
unsigned classOf(char32_t codePoint);

inline bool isMark(char32_t c) { return c >= 0x300 && (classOf(c) & kMark) != 0; }
inline bool isWordCharacter(char32_t c) { return (classOf(c) & kWordCharacter) != 0; }

/// Whether a word may begin or end between two neighbouring characters, given by the classes of
/// their bases: always, unless both are word characters; then only at a step from lower to upper
/// case and beside an ideograph or kana.
constexpr bool isWordBoundary(unsigned leftClass, unsigned rightClass) {
  if ((leftClass & rightClass & kWordCharacter) == 0) return true;
  if (((leftClass | rightClass) & kWordByItself) != 0) return true;
  return (leftClass & kLowerCase) != 0 && (rightClass & kUpperCase) != 0;
}

}  // namespace thmp::query
