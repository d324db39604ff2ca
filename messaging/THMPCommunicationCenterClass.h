// SPDX-License-Identifier: Apache-2.0
//
// The class operations of THMPCommunicationCenter, callable without a center: where the folders of
// the exchange lie, and the queue it runs on. Centers call them through the object that they were
// made with, so a derived class can override them. One object for the process, made by the entry
// point; it outlives every center. Any thread.
#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "base/error.h"
#include "base/format.h"
#include "base/url.h"
#include "messaging/MessageClaims.h"
#include "paths/THMPPathAdditions.h"
#include "platform/platform.h"

namespace thmp {

class THMPCommunicationCenterClass {
 public:
  /// Whether the entry may be deleted.
  using Filter = std::function<bool(const Url& entry)>;

  THMPCommunicationCenterClass(Platform& platform, const THMPPathAdditions& paths)
      : platform_(platform), paths_(paths) {}
  virtual ~THMPCommunicationCenterClass() = default;
  THMPCommunicationCenterClass(const THMPCommunicationCenterClass&) = delete;
  THMPCommunicationCenterClass& operator=(const THMPCommunicationCenterClass&) = delete;

  /// pluginDataDirectoryURL
  ///
  /// Creates nothing. Empty when the system names no application-support folder.
  virtual Url pluginDataDirectoryURL();

  /// communicationInboxURL
  ///
  /// Creates the folder if it is missing; a failure is logged, and the URL is returned all the
  /// same.
  virtual Url communicationInboxURL();
  /// communicationOutboxURL
  virtual Url communicationOutboxURL();
  /// createCommunicationMessageDirectories
  virtual void createCommunicationMessageDirectories();

  /// messageCenterQueue
  ///
  /// The one serial queue of the exchange, made at the first call.
  virtual std::shared_ptr<SerialQueue> messageCenterQueue();

  /// clearDirectory:filter:
  ///
  /// Deletes the message files at the folder's top level that `filter`, if there is one, agrees to.
  /// A folder with a message file's name goes with all it holds. Failures are ignored.
  virtual void clearDirectory(const Url& directory, const Filter& filter = {});

  /// Deletes what posts that were cut off have left in `directory`: our temporary files, which are
  /// no message files yet. Failures are ignored.
  void removeTemporaryFiles(const Url& directory);

  Platform& platform() const noexcept { return platform_; }
  const THMPPathAdditions& paths() const noexcept { return paths_; }
  /// Shared by all centers of the process.
  MessageClaims& messageClaims() noexcept { return messageClaims_; }

 private:
  Url messageFolder(const char* name, LogFormat<Error> failure);

  Platform& platform_;
  const THMPPathAdditions& paths_;
  MessageClaims messageClaims_;
  std::once_flag queueOnce_;
  std::shared_ptr<SerialQueue> queue_;  // written under queueOnce_ only
};

}  // namespace thmp
