// SPDX-License-Identifier: Apache-2.0
#include "plugin/ProcessState.h"

#include <utility>

#include "plugin/THMPMailPlugin.h"

namespace thmp {

ProcessState::ProcessState(Platform& hostPlatform)
    : platform(hostPlatform),
      log(hostPlatform),
      paths(hostPlatform.identity),
      fullDiskAccess(paths, hostPlatform.files, hostPlatform.identity, hostPlatform.application,
                     hostPlatform.log),
      centerClass(hostPlatform, paths),
      mailLibrary(hostPlatform.mail, hostPlatform.files) {}

ProcessState::~ProcessState() = default;

PluginStage ProcessState::stage() const {
  const Lock lock(mutex_);
  return stage_;
}

bool ProcessState::moveTo(PluginStage next) {
  const Lock lock(mutex_);
  if (stage_ == PluginStage::kInert || next <= stage_) return false;
  stage_ = next;
  return true;
}

std::shared_ptr<THMPMailPlugin> ProcessState::instance() const {
  const Lock lock(mutex_);
  return instance_;
}

std::shared_ptr<THMPMailPlugin> ProcessState::exchangeInstance(
    std::shared_ptr<THMPMailPlugin> next) {
  const Lock lock(mutex_);
  return std::exchange(instance_, std::move(next));
}

}  // namespace thmp
