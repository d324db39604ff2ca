// SPDX-License-Identifier: Apache-2.0
#include "host/store/folder_names.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "host/store/header_text.h"

namespace thmp {

namespace {

int modifiedBase64Digit(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  return c == ',' ? 63 : -1;
}

// The characters of one shifted stretch; false when it is none.
bool decodeShifted(std::string_view digits, std::string& out) {
  std::uint32_t bits = 0;
  unsigned count = 0;
  std::vector<std::uint16_t> units;
  for (const char c : digits) {
    const int digit = modifiedBase64Digit(c);
    if (digit < 0) return false;
    bits = (bits << 6) | static_cast<std::uint32_t>(digit);
    count += 6;
    if (count >= 16) {
      count -= 16;
      units.push_back(static_cast<std::uint16_t>(bits >> count));
    }
  }
  for (std::size_t i = 0; i < units.size(); ++i) {
    const std::uint32_t unit = units[i];
    if (unit < 0xD800 || unit > 0xDFFF) {
      appendCharacter(out, unit);
    } else if (unit < 0xDC00 && i + 1 < units.size() && (units[i + 1] & 0xFC00) == 0xDC00) {
      appendCharacter(out, 0x10000 + ((unit - 0xD800) << 10) + (units[++i] - 0xDC00U));
    } else {
      return false;
    }
  }
  return true;
}

std::string lowerCase(std::string_view text) {
  std::string out;
  const std::string terminated(text);
  for (const char* at = terminated.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
    appendCharacter(out, g_unichar_tolower(g_utf8_get_char(at)));
  }
  return out;
}

struct Role {
  std::string_view name;
  std::string_view role;
};
constexpr std::array<Role, 14> kRoles = {{{"inbox", "inbox"},
                                          {"drafts", "drafts"},
                                          {"sent", "sent"},
                                          {"sent items", "sent"},
                                          {"sent messages", "sent"},
                                          {"sent mail", "sent"},
                                          {"junk", "junk"},
                                          {"spam", "junk"},
                                          {"trash", "trash"},
                                          {"deleted items", "trash"},
                                          {"deleted messages", "trash"},
                                          {"archive", "archive"},
                                          {"archives", "archive"},
                                          {"draft", "drafts"}}};

}  // namespace

std::string escapedPath(std::string_view path) {
  constexpr std::string_view kHex = "0123456789ABCDEF";
  std::string out;
  while (!path.empty()) {
    const char* bad = nullptr;
    g_utf8_validate(path.data(), static_cast<gssize>(path.size()), &bad);
    const auto good = static_cast<std::size_t>(bad - path.data());
    out.append(path.substr(0, good));
    path.remove_prefix(good);
    if (path.empty()) break;
    const auto byte = static_cast<unsigned char>(path[0]);
    out.push_back('%');
    out.push_back(kHex[byte >> 4]);
    out.push_back(kHex[byte & 0xF]);
    path.remove_prefix(1);
  }
  return out;
}

std::string decodeModifiedUtf7(std::string_view name) {
  std::string out;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (name[i] != '&') {
      out.push_back(name[i]);
      continue;
    }
    const std::size_t end = name.find('-', i);
    if (end == std::string_view::npos) return std::string(name);
    if (end == i + 1) {
      out.push_back('&');
    } else if (!decodeShifted(name.substr(i + 1, end - i - 1), out)) {
      return std::string(name);
    }
    i = end;
  }
  return out;
}

std::string mailboxIdentifier(std::string_view root, std::string_view path, bool hasDotFolder) {
  std::string_view name = path.substr(path.rfind('/') + 1);
  const bool isDotted = name.size() > 1 && name[0] == '.';
  if (isDotted) name.remove_prefix(1);
  if (name.ends_with(".mbox")) name.remove_suffix(5);
  std::string lowered = lowerCase(decodeModifiedUtf7(name));
  if (isDotted && lowered.starts_with("inbox.")) lowered.erase(0, 6);
  const auto known = std::find_if(kRoles.begin(), kRoles.end(),
                                  [&](const Role& role) { return role.name == lowered; });
  if (path == root || (hasDotFolder && !isDotted)) return "mailbox.inbox";
  return "mailbox." + (known == kRoles.end() ? lowered : std::string(known->role));
}

}  // namespace thmp
