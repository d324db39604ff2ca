// SPDX-License-Identifier: Apache-2.0
//
// A user "ada" at "/home/ada" and whoever else a test adds. Any thread.
#pragma once

#include <map>
#include <string>

#include "base/mutex.h"
#include "platform/identity.h"

namespace thmp {

class FakeIdentity : public Identity {
 public:
  /// Empty: the user database has no record of this process's user.
  void setCurrentUser(std::optional<UserRecord> user);
  void addUser(UserRecord user);
  void setProcessHome(std::string home);
  void setHostSandboxed(bool sandboxed);
  /// Empty at first, as on Linux.
  void setSystemVersion(std::optional<double> version);
  /// How often hostSandboxed() was asked.
  int sandboxedCount() const;

  // Identity.
  std::optional<UserRecord> currentUser() override;
  std::optional<UserRecord> userByName(const std::string& name) override;
  std::string processHome() override;
  bool hostSandboxed() override;
  std::optional<double> systemVersion() override;
  /// "UNIQUE-000001", "UNIQUE-000002", and so on.
  std::string globallyUniqueString() override;

 private:
  mutable Mutex mutex_;
  std::optional<UserRecord> currentUser_ THMP_GUARDED_BY(mutex_) = UserRecord{"ada", "/home/ada"};
  std::map<std::string, UserRecord> users_ THMP_GUARDED_BY(mutex_);
  std::string processHome_ THMP_GUARDED_BY(mutex_) = "/home/ada";
  bool sandboxed_ THMP_GUARDED_BY(mutex_) = false;
  std::optional<double> systemVersion_ THMP_GUARDED_BY(mutex_);
  int sandboxedCount_ THMP_GUARDED_BY(mutex_) = 0;
  int uniqueStrings_ THMP_GUARDED_BY(mutex_) = 0;
};

}  // namespace thmp
