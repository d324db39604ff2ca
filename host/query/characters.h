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

/// Whether every byte of `text` is ASCII, NUL included.
bool isAscii(std::string_view text);

/// The code point at `position`, which moves behind it. A byte that is no part of well-formed UTF-8
/// gives U+FFFD and counts one. REQUIRES: position < text.size().
char32_t decodeNext(std::string_view text, std::size_t& position);

/// REQUIRES: a Unicode scalar value.
void appendUtf8(char32_t codePoint, std::string& out);

/// Where the first byte stands that is not well-formed UTF-8; empty when all is.
std::optional<std::size_t> firstInvalidUtf8(std::string_view text);

/// General category M: belongs to the character before it.
bool isMark(char32_t codePoint);

/// General category L or N.
bool isWordCharacter(char32_t codePoint);

/// Ideographs and kana, which are written without spaces: each is a word of its own.
constexpr bool isWordByItself(char32_t c) {
  return (c >= 0x3040 && c <= 0x30FF) || (c >= 0x31F0 && c <= 0x31FF) ||
         (c >= 0x3400 && c <= 0x4DBF) || (c >= 0x4E00 && c <= 0x9FFF) ||
         (c >= 0xF900 && c <= 0xFAFF) || (c >= 0x20000 && c <= 0x3FFFF);
}

/// Whether a word may begin or end between two neighbouring characters, each given by its base:
/// always, unless both are word characters; then only at a step from lower to upper case and beside
/// an ideograph or kana.
bool isWordBoundary(char32_t left, char32_t right);

}  // namespace thmp::query
