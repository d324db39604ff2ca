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
  const Platform inMemory_ = fake_.platform();
  Platform platform_{.files = files_,
                     .execution = inMemory_.execution,
                     .identity = inMemory_.identity,
                     .preferences = inMemory_.preferences,
                     .application = inMemory_.application,
                     .pasteboards = inMemory_.pasteboards,
                     .spotlight = inMemory_.spotlight,
                     .mail = inMemory_.mail,
                     .log = inMemory_.log};
  const THMPPathAdditions paths_{fake_.identity};
  THMPCommunicationCenterClass class_{platform_, paths_};
  const std::shared_ptr<THMPCommunicationCenter> center_ = THMPCommunicationCenter::create(class_);
};

}  // namespace thmp::disk
