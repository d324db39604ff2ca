// SPDX-License-Identifier: Apache-2.0
//
// One found message on its way to the client.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/value.h"

namespace thmp {

struct FoundItem {
  Dictionary attributes;
  /// Absent when the engine gave the item none.
  std::optional<std::int64_t> libraryID;
  /// The message file's absolute path; under "kMDItemPath" in the dictionary.
  std::optional<std::string> path;
  /// The item's position among all items delivered for its query, from 0; meaningful once it has a
  /// path.
  std::uint64_t index = 0;

  /// The item dictionary as it stands on a pasteboard: "attributes", "libraryID", "kMDItemPath",
  /// "index".
  Dictionary dictionary() const;
};

}  // namespace thmp
