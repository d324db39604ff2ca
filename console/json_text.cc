// SPDX-License-Identifier: Apache-2.0
#include "console/json_text.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <nlohmann/json.hpp>

namespace thmp::console {
namespace {

template <typename Number>
void appendNumber(Number number, std::string& json) {
  std::array<char, 20> digits;  // enough for 64 bits
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  json.append(digits.data(), end);
}

void appendBase64(std::string_view bytes, std::string& json) {
  constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const auto byte = [&](std::size_t at) -> unsigned {
      return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0U;
    };
    const unsigned group = byte(i) << 16 | byte(i + 1) << 8 | byte(i + 2);
    for (std::size_t sextet = 0; sextet < 4; ++sextet) {
      const bool there = i + sextet < bytes.size() + 1;
      json += there ? kAlphabet[group >> (18 - 6 * sextet) & 63] : '=';
    }
  }
}

constexpr bool isPlain(unsigned char c) { return c >= 0x20 && c < 0x80 && c != '"' && c != '\\'; }

/// Whether eight bytes are all plain. A subtraction borrows from a byte's highest bit only where
/// the byte is less than what is taken from it, or above such a one.
bool arePlain(std::uint64_t bytes) {
  constexpr std::uint64_t kOnes = 0x0101010101010101;
  const std::uint64_t quotes = bytes ^ kOnes * '"';
  const std::uint64_t backslashes = bytes ^ kOnes * '\\';
  const std::uint64_t odd =
      bytes | (bytes - kOnes * 0x20) | (quotes - kOnes) | (backslashes - kOnes);
  return (odd & kOnes * 0x80) == 0;
}

/// How many bytes from `begin` on stand in JSON as they are, all ASCII.
std::size_t plainLength(const char* begin, const char* end) {
  const char* c = begin;
  for (std::uint64_t bytes = 0; end - c >= 8; c += 8) {
    std::memcpy(&bytes, c, 8);
    if (!arePlain(bytes)) break;
  }
  while (c != end && isPlain(static_cast<unsigned char>(*c))) ++c;
  return static_cast<std::size_t>(c - begin);
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

void appendEscape(char c, std::string& json) {
  constexpr std::string_view kEscaped = "\b\t\n\f\r\"\\";
  constexpr std::string_view kLetters = "btnfr\"\\";
  constexpr std::string_view kDigits = "0123456789abcdef";
  const auto code = static_cast<unsigned char>(c);
  if (const std::size_t at = kEscaped.find(c); at != std::string_view::npos) {
    json += '\\';
    json += kLetters[at];
  } else {
    json += "\\u00";
    json += kDigits[code >> 4];
    json += kDigits[code & 15];
  }
}

void appendArray(const Array& array, std::string& json) {
  json += '[';
  const char* separator = "";
  for (const Value& element : array) {
    json += separator;
    appendJson(element, json);
    separator = ",";
  }
  json += ']';
}

void appendObject(const Dictionary& dictionary, std::string& json) {
  json += '{';
  const char* separator = "";
  for (const auto& [key, member] : dictionary) {
    json += separator;
    appendJsonText(key, json);
    json += ':';
    appendJson(member, json);
    separator = ",";
  }
  json += '}';
}

}  // namespace

void appendJsonText(std::string_view text, std::string& json) {
  json += '"';
  while (true) {
    const std::size_t plain = plainLength(text.data(), text.data() + text.size());
    json += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty()) break;
    Sequence sequence;
    if (static_cast<unsigned char>(text.front()) < 0x80) {
      appendEscape(text.front(), json);
    } else {
      sequence = sequenceAt(text);
      json += sequence.isWhole ? text.substr(0, sequence.size) : "\uFFFD";
    }
    text.remove_prefix(sequence.size);
  }
  json += '"';
}

void appendJson(const Value& value, std::string& json) {
  switch (value.kind()) {
    case Value::Kind::kNull:
      json += "null";
      break;
    case Value::Kind::kBoolean:
      json += *value.asBoolean() ? "true" : "false";
      break;
    case Value::Kind::kInteger:
      appendNumber(*value.asInteger(), json);
      break;
    case Value::Kind::kUnsigned:
      appendNumber(*value.asUnsigned(), json);
      break;
    case Value::Kind::kReal:
      json += nlohmann::json(*value.asReal()).dump();
      break;
    case Value::Kind::kDate:
      json += '"' + value.asDate()->iso8601() + '"';
      break;
    case Value::Kind::kData:
      json += '"';
      appendBase64(*value.asData(), json);
      json += '"';
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
