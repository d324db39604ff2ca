// SPDX-License-Identifier: Apache-2.0
//
// Where this user's files lie, by the XDG base directories. Computed once by an entry point and
// handed down: nothing else in the system asks the environment for a folder. A plain value; any
// thread.
#pragma once

#include <functional>
#include <string>

#include "base/error.h"

namespace thmp {

struct XdgFolders {
  /// HOME; without one the home of the user record, and "/" without a record.
  std::string home;
  std::string data;     // XDG_DATA_HOME
  std::string config;   // XDG_CONFIG_HOME
  std::string cache;    // XDG_CACHE_HOME
  std::string runtime;  // XDG_RUNTIME_DIR
  /// Whether `runtime` is the folder that takes the place of an absent XDG_RUNTIME_DIR.
  bool runtimeIsSubstitute = false;

  /// The value of a variable, null without one.
  using Lookup = std::function<const char*(const char* name)>;

  static XdgFolders fromEnvironment();
  /// Relative values count as absent. `temporary` holds the runtime folder's substitute,
  /// "tallyhive-UID".
  static XdgFolders from(const Lookup& lookup, const std::string& temporary = "/tmp");

  /// Makes the runtime folder if it is missing. The substitute must be the user's own folder, and
  /// gets mode 0700; it is refused when somebody else owns it, or when it is a link.
  [[nodiscard]] bool prepareRuntime(Error* error = nullptr) const;
};

}  // namespace thmp
