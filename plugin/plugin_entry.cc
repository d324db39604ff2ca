// SPDX-License-Identifier: Apache-2.0
//
// The bundle's one exported symbol: where the host hands over its platform and the plug-in starts.
#include <atomic>
#include <memory>

#include "platform/platform.h"
#include "plugin/ProcessState.h"
#include "plugin/THMPMailPlugin.h"

namespace {

// Never destroyed, as the exchange queue and the engine's threads run on while the process exits,
// and reachable all the same.
std::atomic<thmp::ProcessState*> processState = nullptr;

// The first call of the process makes the state; null for every other.
thmp::ProcessState* makeProcessState(thmp::Platform& platform) {
  auto state = std::make_unique<thmp::ProcessState>(platform);
  thmp::ProcessState* expected = nullptr;
  return processState.compare_exchange_strong(expected, state.get()) ? state.release() : nullptr;
}

}  // namespace

/// See thmp::PluginEntryPoint. A second call starts nothing anew.
extern "C" __attribute__((visibility("default"))) bool THMPMailPluginStart(
    thmp::Platform* platform) noexcept {
  if (platform == nullptr || platform->interfaceVersion != thmp::kPlatformInterfaceVersion) {
    return false;
  }
  try {
    if (thmp::ProcessState* process = makeProcessState(*platform)) {
      thmp::THMPMailPlugin::load(*process);
      thmp::THMPMailPlugin::initialize(*process);
    }
  } catch (...) {
    // Nothing that the library throws reaches the host; what was started stays as far as it came.
    return false;
  }
  return true;
}
