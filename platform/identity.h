// SPDX-License-Identifier: Apache-2.0
//
// Who the process runs as and where. Any thread.
#pragma once

#include <optional>
#include <string>

namespace thmp {

struct UserRecord {
  std::string name;
  /// As stored in the user database, not standardized. Empty optional when the field is no UTF-8
  /// text.
  std::optional<std::string> home;
};

class Identity {
 public:
  virtual ~Identity() = default;

  /// The record of the process's real user ID; empty when the user database has none.
  virtual std::optional<UserRecord> currentUser() = 0;
  virtual std::optional<UserRecord> userByName(const std::string& name) = 0;

  /// The home folder as the process's own setting names it (HOME on Linux), which in a sandbox is
  /// the container's.
  virtual std::string processHome() = 0;

  /// Whether the host application runs in a sandbox. False when that cannot be found out. Computed
  /// afresh.
  virtual bool hostSandboxed() = 0;

  /// The version number of the system's application framework (NSAppKitVersionNumber). Empty where
  /// there is none, as on Linux.
  virtual std::optional<double> systemVersion() = 0;

  /// A text that no call on any machine has returned before: at least 128 random bits, letters,
  /// digits and hyphens only.
  virtual std::string globallyUniqueString() = 0;
};

}  // namespace thmp
