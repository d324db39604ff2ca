// SPDX-License-Identifier: Apache-2.0
//
// What the tests of the exchange share: a platform in memory, observers that record, a center that
// receives.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/plist.h"
#include "messaging/THMPCommunicationCenter.h"
#include "messaging/THMPCommunicationCenterClass.h"
#include "messaging/THMPCommunicationCenterProtocol.h"
#include "messaging/message_names.h"
#include "paths/THMPPathAdditions.h"
#include "platform/fake/FakePlatform.h"

namespace thmp {

inline constexpr char kQueueLabel[] = "com.quorvane.tallyhive.mailplugin";

/// Keeps what it receives, and does what a test gives it to do meanwhile.
class RecordingObserver {
 public:
  void received(const Value& message) {
    messages.push_back(message);
    if (whenReceived) whenReceived(message);
  }
  void receivedElsewhere(const Value& message) { elsewhere.push_back(message); }

  std::vector<Value> messages;
  std::vector<Value> elsewhere;
  std::function<void(const Value& message)> whenReceived;
};

/// A center that receives, and accepts what a test lets it accept.
class ReceivingCenter : public THMPCommunicationCenter, public protocol::THMPCommunicationCenter {
 public:
  static std::shared_ptr<ReceivingCenter> create(THMPCommunicationCenterClass& centerClass) {
    std::shared_ptr<ReceivingCenter> center(new ReceivingCenter(centerClass));
    center->init();
    return center;
  }

  using thmp::THMPCommunicationCenter::addObserver;
  void addObserver(const std::weak_ptr<void>& observer, MessageSelector selector,
                   const std::string& messageName) override {
    thmp::THMPCommunicationCenter::addObserver(observer, std::move(selector), messageName);
  }
  void removeObserver(const std::weak_ptr<void>& observer,
                      const std::string& messageName) override {
    thmp::THMPCommunicationCenter::removeObserver(observer, messageName);
  }
  void removeObserver(const std::weak_ptr<void>& observer) override {
    thmp::THMPCommunicationCenter::removeObserver(observer);
  }
  using thmp::THMPCommunicationCenter::postMessageName;
  void postMessageName(const std::string& name, const Value& userInfo,
                       const PublishGuard& guard = {}) override {
    postMessageName(name, userInfo, communicationOutboxURL(), std::nullopt, nullptr, guard);
  }
  bool shouldAcceptMessage(const Value& /*message*/) override {
    ++offered;
    return accepts;
  }

  bool accepts = true;
  /// How many messages it was asked about.
  std::atomic<std::size_t> offered = 0;

 private:
  using thmp::THMPCommunicationCenter::THMPCommunicationCenter;
};

class MessagingTest : public ::testing::Test {
 protected:
  /// A file of `folder` as another process would write it.
  void place(const std::string& path, const Value& root) {
    fake.files.writeFile(path, *writeBinaryPropertyList(root));
  }
  static Dictionary message(const std::string& name, const Value& userInfo = {}) {
    Dictionary dictionary;
    dictionary.set(kNameKey, name);
    dictionary.set(kUserInfoKey, userInfo);
    return dictionary;
  }
  static std::size_t files(const std::vector<std::string>& names) {
    return static_cast<std::size_t>(std::ranges::count_if(names, &isMessageFileName));
  }
  std::size_t filesIn(const std::string& folder) { return files(fake.files.entries(folder)); }

  FakePlatform fake;
  Platform platform = fake.platform();
  const THMPPathAdditions paths{fake.identity};
  THMPCommunicationCenterClass centerClass{platform, paths};
};

}  // namespace thmp
