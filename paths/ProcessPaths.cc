// SPDX-License-Identifier: Apache-2.0
#include "paths/ProcessPaths.h"

#include <optional>

#include "paths/path_components.h"

namespace thmp {

const std::string& ProcessPaths::THMPUserHomeDirectory() const {
  std::call_once(homeOnce_, [this] {
    const std::optional<UserRecord> user = identity_.currentUser();
    if (!user || !user->home) return;
    home_ = pathWithComponents(standardizedComponents(pathComponents(*user->home)));
  });
  return home_;
}

bool ProcessPaths::THMPApplicationSandboxed() const {
  std::call_once(sandboxedOnce_, [this] { sandboxed_ = identity_.hostSandboxed(); });
  return sandboxed_;
}

}  // namespace thmp
