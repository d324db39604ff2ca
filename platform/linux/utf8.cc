// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/utf8.h"

#include <utf8proc.h>

#include <algorithm>

namespace thmp {
namespace {

struct Character {
  std::size_t length = 1;
  bool valid = false;
  bool control = false;
};

/// The first character of `bytes`, which are not empty.
Character firstCharacter(std::string_view bytes) {
  utf8proc_int32_t point = -1;
  const utf8proc_ssize_t length =
      utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(bytes.data()),
                       static_cast<utf8proc_ssize_t>(bytes.size()), &point);
  if (length <= 0 || point < 0) return Character();
  // U+2028 and U+2029 end a line for some readers.
  const bool control =
      point < 0x20 || (point >= 0x7f && point < 0xa0) || point == 0x2028 || point == 0x2029;
  return Character{static_cast<std::size_t>(length), true, control};
}

void appendEscaped(std::string& out, std::string_view bytes) {
  static constexpr std::string_view kDigits = "0123456789abcdef";
  for (const char byte : bytes) {
    switch (byte) {
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default: {
        const auto value = static_cast<unsigned char>(byte);
        out += "\\x";
        out += kDigits[value >> 4];
        out += kDigits[value & 15];
      }
    }
  }
}

/// How many bytes at the front are ASCII without controls.
std::size_t plainBytes(std::string_view text) {
  const auto* end = std::find_if(text.begin(), text.end(), [](char byte) {
    return static_cast<signed char>(byte) < ' ' || byte == '\x7F';
  });
  return static_cast<std::size_t>(end - text.begin());
}

}  // namespace

bool isUtf8(std::string_view bytes) {
  while (!bytes.empty()) {
    const Character character = firstCharacter(bytes);
    if (!character.valid) return false;
    bytes.remove_prefix(character.length);
  }
  return true;
}

std::string escapeControls(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const std::size_t plain = plainBytes(text);
    out += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty()) break;
    const Character character = firstCharacter(text);
    const std::string_view bytes = text.substr(0, character.length);
    if (character.valid && !character.control) {
      out += bytes;
    } else {
      appendEscaped(out, bytes);
    }
    text.remove_prefix(character.length);
  }
  return out;
}

}  // namespace thmp
