// SPDX-License-Identifier: Apache-2.0
//
// The center inside the mail application: reads "in", writes "out", clears what is stale at start
// and at quit, and, where the host may not write the data folder, gets itself the right to, asking
// the user at most once in the process.
//
// Made on the main thread, where its retries run, since they may open a modal chooser. Observers
// run as the base class says.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "base/url.h"
#include "base/value.h"
#include "messaging/DataDirectoryAccess.h"
#include "messaging/THMPCommunicationCenter.h"
#include "messaging/THMPCommunicationCenterClass.h"
#include "messaging/THMPCommunicationCenterProtocol.h"

namespace thmp {

class THMPMailCommunicationCenter : public THMPCommunicationCenter,
                                    public protocol::THMPCommunicationCenter {
 public:
  /// A center that watches its inbox, or, where it may not, tries again right after the main
  /// thread's current pass and each time the host comes to the front. `access` is the process's.
  static std::shared_ptr<THMPMailCommunicationCenter> create(
      THMPCommunicationCenterClass& centerClass, DataDirectoryAccess& access);

  using thmp::THMPCommunicationCenter::addObserver;
  void addObserver(const std::weak_ptr<void>& observer, MessageSelector selector,
                   const std::string& messageName) override;
  void removeObserver(const std::weak_ptr<void>& observer, const std::string& messageName) override;
  void removeObserver(const std::weak_ptr<void>& observer) override;

  using thmp::THMPCommunicationCenter::postMessageName;
  /// postMessageName:userInfo:
  ///
  /// Into the outbox. A failure is logged, and the message lost. Any thread.
  void postMessageName(const std::string& name, const Value& userInfo,
                       const PublishGuard& guard = {}) override;

  /// shouldAcceptMessage:
  ///
  /// Always true.
  bool shouldAcceptMessage(const Value& message) override;

  /// clearInbox
  void clearInbox();
  /// clearOutbox
  void clearOutbox();

  /// tryObservingInbox
  ///
  /// Whether the inbox is writable and being watched. May ask the user.
  bool tryObservingInbox();
  /// checkDataDirectoryAccess
  ///
  /// tryObservingInbox(); its success ends the tries at each activation.
  bool checkDataDirectoryAccess();
  /// requestDataDirectoryAccess
  ///
  /// Whether the data folder is writable after an attempt to gain access; false without asking when
  /// it does not exist.
  bool requestDataDirectoryAccess();
  /// secureURLorDataDirectoryAccess
  ///
  /// The data folder from the stored bookmark or, once in the process, from the user.
  std::optional<Url> secureURLorDataDirectoryAccess();
  /// askUserForDataDirectoryAccess
  ///
  /// The data folder or one that contains it, as the user chose it; empty when the user cancelled.
  /// Asks as often as the user chooses another.
  std::optional<Url> askUserForDataDirectoryAccess();

 protected:
  THMPMailCommunicationCenter(THMPCommunicationCenterClass& centerClass,
                              DataDirectoryAccess& access)
      : thmp::THMPCommunicationCenter(centerClass), access_(access) {}

 private:
  /// init
  void init();
  void storeBookmark(const Url& url);
  std::weak_ptr<THMPMailCommunicationCenter> weakSelf();

  DataDirectoryAccess& access_;
};

}  // namespace thmp
