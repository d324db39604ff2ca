// SPDX-License-Identifier: Apache-2.0
//
// Which entries of a message folder are message files.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace thmp {

// Below the data folder: "in" is read by the mail side, "out" by its clients.
inline constexpr char kInboxName[] = "in";
inline constexpr char kOutboxName[] = "out";

inline constexpr std::string_view kMessageFileExtension = "plist";

/// Whether `name` has the extension of message files, in letters of either case. A name that is
/// only an extension (".plist") has none.
constexpr bool isMessageFileName(std::string_view name) noexcept {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return false;
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  return std::ranges::equal(name.substr(dot + 1), kMessageFileExtension, {}, lower);
}

}  // namespace thmp
