// SPDX-License-Identifier: Apache-2.0
//
// A descriptor that is readable once entries of the watched folders have come or gone, or a folder
// itself has. It does not say which: the folders are looked at again. One thread.
#pragma once

#include <string>
#include <utility>

#include "base/result.h"
#include "platform/linux/Descriptor.h"

namespace thmp::client {

class FolderEvents {
 public:
  static Result<FolderEvents> open();

  /// From now on. A folder that is watched already stays so.
  Result<void> watch(const std::string& folder);
  int descriptor() const { return events_.get(); }
  /// Forgets what has happened so far; never waits.
  void drain();

 private:
  explicit FolderEvents(Descriptor events) : events_(std::move(events)) {}
  Descriptor events_;
};

}  // namespace thmp::client
