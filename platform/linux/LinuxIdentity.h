// SPDX-License-Identifier: Apache-2.0
//
// The user database, the process's home folder and the marks of a sandbox. Any thread; keeps
// nothing.
#pragma once

#include <optional>
#include <string>

#include "platform/identity.h"

namespace thmp {

class LinuxIdentity final : public Identity {
 public:
  /// Where a sandbox shows itself to the processes inside.
  struct SandboxMarks {
    /// Exists in every Flatpak.
    std::string flatpakInfo = "/.flatpak-info";
    /// Begins with "snap." in every Snap.
    std::string securityLabel = "/proc/self/attr/current";
  };

  explicit LinuxIdentity(std::string home) : LinuxIdentity(std::move(home), SandboxMarks()) {}
  LinuxIdentity(std::string home, SandboxMarks marks);

  std::optional<UserRecord> currentUser() override;
  std::optional<UserRecord> userByName(const std::string& name) override;
  std::string processHome() override;
  /// Never by an environment variable: a process's children inherit those.
  bool hostSandboxed() override;
  /// None: no application framework here counts in these numbers.
  std::optional<double> systemVersion() override;
  std::string globallyUniqueString() override;

 private:
  const std::string home_;
  const SandboxMarks marks_;
};

}  // namespace thmp
