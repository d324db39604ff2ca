// SPDX-License-Identifier: Apache-2.0
#include "console/json_text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <nlohmann/json.hpp>
#include <utility>

namespace thmp::console {
namespace {

/// Appends to this cost less than to a string, whose every byte is a call.
using Buffer = fmt::memory_buffer;

template <typename Number>
void appendNumber(Number number, Buffer& json) {
  std::array<char, 20> digits;  // enough for 64 bits
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  json.append(digits.data(), end);
}

void appendBase64(std::string_view bytes, Buffer& json) {
  constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const auto byte = [&](std::size_t at) -> unsigned {
      return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0U;
    };
    const unsigned group = byte(i) << 16 | byte(i + 1) << 8 | byte(i + 2);
    for (std::size_t sextet = 0; sextet < 4; ++sextet) {
      const bool there = i + sextet < bytes.size() + 1;
      json.push_back(there ? kAlphabet[group >> (18 - 6 * sextet) & 63] : '=');
    }
  }
}

/// The highest bit of each of eight bytes that does not stand in JSON as it is, or is no ASCII; and
/// perhaps of bytes above the lowest such one: a subtraction borrows from a byte's highest bit only
/// where the byte is less than what is taken from it, or above such a one.
std::uint64_t oddBytes(std::uint64_t bytes) {
  constexpr std::uint64_t kOnes = 0x0101010101010101;
  const std::uint64_t quotes = bytes ^ kOnes * '"';
  const std::uint64_t backslashes = bytes ^ kOnes * '\\';
  const std::uint64_t odd =
      bytes | (bytes - kOnes * 0x20) | (quotes - kOnes) | (backslashes - kOnes);
  return odd & kOnes * 0x80;
}

constexpr bool isPlain(char c) {
  return static_cast<signed char>(c) >= 0x20 && c != '"' && c != '\\';
}

/// Copies the bytes at the front that stand in JSON as they are, all ASCII, and perhaps some that
/// follow; how many. REQUIRES: room for all of `text`.
std::size_t copyPlain(std::string_view text, char* out) {
  static_assert(std::endian::native == std::endian::little, "the first byte is the lowest");
  std::uint64_t bytes = 0;
  std::size_t at = 0;
  if (text.size() < sizeof bytes) {
    for (; at < text.size() && isPlain(text[at]); ++at) out[at] = text[at];
    return at;
  }
  // The last eight may have some of those before in them once more.
  for (;; at = std::min(at + sizeof bytes, text.size() - sizeof bytes)) {
    std::memcpy(&bytes, text.data() + at, sizeof bytes);
    std::memcpy(out + at, &bytes, sizeof bytes);
    if (const std::uint64_t odd = oddBytes(bytes); odd != 0) {
      return at + static_cast<std::size_t>(std::countr_zero(odd)) / 8;
    }
    if (at + sizeof bytes == text.size()) return text.size();
  }
}

struct Sequence {
  std::size_t size = 1;
  bool isWhole = false;
};

/// The character that `text` begins with; of one that is no UTF-8 as many bytes as could begin one.
/// REQUIRES: a first byte from 0x80 up.
Sequence sequenceAt(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned lead = byte(0);
  if (lead < 0xC2 || lead > 0xF4) return {};
  const std::size_t size = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  // The second byte keeps out long forms, surrogates and what lies above U+10FFFF.
  unsigned least = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  unsigned most = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  for (std::size_t i = 1; i < size; ++i) {
    if (i == text.size() || byte(i) < least || byte(i) > most) return {i, false};
    least = 0x80;
    most = 0xBF;
  }
  return {size, true};
}

void appendEscape(char c, Buffer& json) {
  constexpr std::string_view kEscaped = "\b\t\n\f\r\"\\";
  constexpr std::string_view kLetters = "btnfr\"\\";
  constexpr std::string_view kDigits = "0123456789abcdef";
  const auto code = static_cast<unsigned char>(c);
  if (const std::size_t at = kEscaped.find(c); at != std::string_view::npos) {
    json.push_back('\\');
    json.push_back(kLetters[at]);
  } else {
    json.append(std::string_view("\\u00"));
    json.push_back(kDigits[code >> 4]);
    json.push_back(kDigits[code & 15]);
  }
}

void appendArray(const Array& array, Buffer& json) {
  json.push_back('[');
  for (std::size_t i = 0; i < array.size(); ++i) {
    if (i > 0) json.push_back(',');
    appendJson(array[i], json);
  }
  json.push_back(']');
}

void appendObject(const Dictionary& dictionary, Buffer& json) {
  json.push_back('{');
  bool isFirst = true;
  for (const auto& [key, member] : dictionary) {
    if (!std::exchange(isFirst, false)) json.push_back(',');
    appendJsonText(key, json);
    json.push_back(':');
    appendJson(member, json);
  }
  json.push_back('}');
}

}  // namespace

void appendJsonText(std::string_view text, fmt::memory_buffer& json) {
  json.push_back('"');
  while (true) {
    const std::size_t begin = json.size();
    json.resize(begin + text.size());
    const std::size_t plain = copyPlain(text, json.data() + begin);
    json.resize(begin + plain);
    text.remove_prefix(plain);
    if (text.empty()) break;
    Sequence sequence;
    if (static_cast<unsigned char>(text.front()) < 0x80) {
      appendEscape(text.front(), json);
    } else {
      sequence = sequenceAt(text);
      json.append(sequence.isWhole ? text.substr(0, sequence.size) : "\uFFFD");
    }
    text.remove_prefix(sequence.size);
  }
  json.push_back('"');
}

void appendJson(const Value& value, fmt::memory_buffer& json) {
  switch (value.kind()) {
    case Value::Kind::kNull:
      json.append(std::string_view("null"));
      break;
    case Value::Kind::kBoolean:
      json.append(std::string_view(*value.asBoolean() ? "true" : "false"));
      break;
    case Value::Kind::kInteger:
      appendNumber(*value.asInteger(), json);
      break;
    case Value::Kind::kUnsigned:
      appendNumber(*value.asUnsigned(), json);
      break;
    case Value::Kind::kReal:
      json.append(nlohmann::json(*value.asReal()).dump());
      break;
    case Value::Kind::kDate:
      json.push_back('"');
      json.append(value.asDate()->iso8601());
      json.push_back('"');
      break;
    case Value::Kind::kData:
      json.push_back('"');
      appendBase64(*value.asData(), json);
      json.push_back('"');
      break;
    case Value::Kind::kText:
      appendJsonText(*value.asText(), json);
      break;
    case Value::Kind::kArray:
      appendArray(*value.asArray(), json);
      break;
    case Value::Kind::kDictionary:
      appendObject(*value.asDictionary(), json);
      break;
  }
}

}  // namespace thmp::console
