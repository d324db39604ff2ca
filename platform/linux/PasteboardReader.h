// SPDX-License-Identifier: Apache-2.0
//
// The clients' side of the named pasteboards. Any thread.
#pragma once

#include <optional>
#include <string>

#include "base/error.h"
#include "base/plist.h"
#include "base/value.h"
#include "platform/linux/PasteboardFolder.h"

namespace thmp {

class PasteboardReader {
 public:
  /// `cacheHome`: the folder of XDG_CACHE_HOME.
  explicit PasteboardReader(std::string cacheHome) : folder_(std::move(cacheHome)) {}

  /// The bytes that the pasteboard `name` holds under `type`. Empty, with `error` filled, when
  /// there is no such pasteboard, when it is without that content, or when that is more than
  /// `maxBytes`.
  std::optional<std::string> readBytes(const std::string& name, const std::string& type,
                                       std::size_t maxBytes, Error* error = nullptr) const;
  /// The property list in them; empty, too, when they are none within `limits`.
  std::optional<Value> read(const std::string& name, const std::string& type,
                            const PropertyListLimits& limits = kBatchLimits,
                            Error* error = nullptr) const;

 private:
  const PasteboardFolder folder_;
};

}  // namespace thmp
