// SPDX-License-Identifier: Apache-2.0
//
// The place of the named pasteboards: "tallyhive/pasteboards/NAME/TYPE" below the user's cache, and
// beside it "tallyhive/pasteboards.locks" with what is no pasteboard. Each folder must be the
// user's own and no link, has mode 0700, and is opened anew for each operation, since a cleaner may
// remove all of it at any time. Any thread; no state but the path.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/Descriptor.h"

namespace thmp {

class PasteboardFolder {
 public:
  explicit PasteboardFolder(std::string cacheHome) : cacheHome_(std::move(cacheHome)) {}

  /// The folder of all pasteboards; none, with errno, when it is missing or refused (EPERM).
  Descriptor openPasteboards(bool create) const { return open("pasteboards", create); }
  Descriptor openLocks(bool create) const { return open("pasteboards.locks", create); }

  /// For messages: the folder of all pasteboards.
  std::string path() const { return cacheHome_ + "/tallyhive/pasteboards"; }

  /// The name of the file of `type`: every byte but letters, digits and ".", "_", "-", "~" as
  /// "%XX". Empty for a type that gives no file name.
  static std::optional<std::string> fileName(std::string_view type);

 private:
  Descriptor open(const char* name, bool create) const;

  std::string cacheHome_;
};

}  // namespace thmp
