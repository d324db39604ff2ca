// SPDX-License-Identifier: Apache-2.0
//
// A center that posts real files, below a folder of its own; the rest of its platform is in memory.
#pragma once

#include <memory>
#include <string>

#include "messaging/messaging_test_support.h"
#include "platform/linux/LinuxFiles.h"

namespace thmp::disk {

class RealCenter {
 public:
  explicit RealCenter(const std::string& dataHome) : files_(dataHome) {}

  /// Into "out".
  bool post(const std::string& name, const Value& userInfo) {
    return center_->postMessageName(name, userInfo, center_->communicationOutboxURL(), std::nullopt,
                                    nullptr);
  }
  std::string outbox() const { return center_->communicationOutboxURL().path(); }

 private:
  FakePlatform fake_;
  LinuxFiles files_;
  Platform platform_ = fake_.platform({.files = &files_});
  const THMPPathAdditions paths_{fake_.identity};
  THMPCommunicationCenterClass class_{platform_, paths_};
  const std::shared_ptr<THMPCommunicationCenter> center_ = THMPCommunicationCenter::create(class_);
};

}  // namespace thmp::disk
