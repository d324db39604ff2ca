// SPDX-License-Identifier: Apache-2.0
//
// Two facts about the process that are found out once, at the first question, and never change
// afterwards. Made once by the entry point. Any thread; finding out asks `identity` only and calls
// nobody back.
#pragma once

#include <mutex>
#include <string>

#include "platform/identity.h"

namespace thmp {

class ProcessPaths {
 public:
  explicit ProcessPaths(Identity& identity) : identity_(identity) {}

  /// THMPUserHomeDirectory
  ///
  /// The user's real home folder, standardized; empty when the user database has none to give. From
  /// the database on purpose: in a sandbox the process's own setting names the container.
  const std::string& THMPUserHomeDirectory() const;

  /// THMPApplicationSandboxed
  ///
  /// Whether the host application runs in a sandbox; false when that cannot be found out.
  bool THMPApplicationSandboxed() const;

 private:
  Identity& identity_;
  mutable std::once_flag homeOnce_;
  mutable std::string home_;  // written under homeOnce_ only
  mutable std::once_flag sandboxedOnce_;
  mutable bool sandboxed_ = false;  // written under sandboxedOnce_ only
};

}  // namespace thmp
