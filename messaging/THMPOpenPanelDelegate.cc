// SPDX-License-Identifier: Apache-2.0
#include "messaging/THMPOpenPanelDelegate.h"

#include <utf8proc.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string_view>

namespace thmp {
namespace {

/// `text` decomposed and without differences of case; empty when it is not UTF-8.
std::optional<std::string> folded(std::string_view text) {
  utf8proc_uint8_t* mapped = nullptr;
  const auto options =
      static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_DECOMPOSE | UTF8PROC_CASEFOLD);
  const utf8proc_ssize_t size =
      utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                   static_cast<utf8proc_ssize_t>(text.size()), &mapped, options);
  const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(mapped, &std::free);
  if (size < 0) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(mapped), static_cast<std::size_t>(size));
}

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  if (a == b) return true;
  const std::optional<std::string> foldedA = folded(a);
  return foldedA && foldedA == folded(b);
}

}  // namespace

bool THMPOpenPanelDelegate::panel(const Url& shouldEnableURL) const {
  return shouldEnableURL.isFile() && equalIgnoringCase(shouldEnableURL.path(), path_);
}

}  // namespace thmp
