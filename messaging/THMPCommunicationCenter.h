// SPDX-License-Identifier: Apache-2.0
//
// The exchange of messages through files: writes a message as one property-list file into a folder,
// watches another folder, hands each message that arrives there to the observers of its name, and
// deletes its file.
//
// This class alone receives nothing: messages are dispatched only by a center that also derives
// from protocol::THMPCommunicationCenter.
//
// Threads: posts and the observer registry, any. Scans run on the exchange queue, but for the one
// that starts a watch, which runs on its caller's thread and may overlap one on the queue;
// observers run inside scans, and no lock is held meanwhile. Lifetime: shared; a scan keeps its
// center alive, a watch does not, and destruction never waits.
#pragma once

#include <concepts>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>

#include "base/error.h"
#include "base/mutex.h"
#include "base/plist.h"
#include "base/url.h"
#include "base/value.h"
#include "messaging/ObserverRegistry.h"
#include "messaging/SnapshotCell.h"
#include "messaging/THMPCommunicationCenterClass.h"
#include "messaging/THMPCommunicationCenterProtocol.h"
#include "platform/execution.h"

namespace thmp {

class THMPCommunicationCenter : public std::enable_shared_from_this<THMPCommunicationCenter> {
 public:
  /// Paths of entries, as listed.
  using KnownMessageFiles = std::unordered_set<std::string>;

  /// A center with both folders made, or their failure logged; not watching.
  static std::shared_ptr<THMPCommunicationCenter> create(THMPCommunicationCenterClass& centerClass);
  /// dealloc
  virtual ~THMPCommunicationCenter();
  THMPCommunicationCenter(const THMPCommunicationCenter&) = delete;
  THMPCommunicationCenter& operator=(const THMPCommunicationCenter&) = delete;

  /// addObserver:selector:messageName:
  ///
  /// `observer` is held weakly: one that is destroyed needs no removal. One selector for each
  /// observer and name: a later one takes the place of the earlier.
  void addObserver(const std::weak_ptr<void>& observer, MessageSelector selector,
                   const std::string& messageName);
  template <typename T, typename Owner>
  requires std::derived_from<T, Owner>
  void addObserver(const std::weak_ptr<T>& observer, void (Owner::*selector)(const Value& message),
                   const std::string& messageName) {
    addObserver(std::weak_ptr<void>(observer), makeMessageSelector<T>(selector), messageName);
  }
  template <typename T, typename Owner>
  requires std::derived_from<T, Owner>
  void addObserver(const std::shared_ptr<T>& observer,
                   void (Owner::*selector)(const Value& message), const std::string& messageName) {
    addObserver(std::weak_ptr<T>(observer), selector, messageName);
  }

  /// removeObserver:messageName:
  ///
  /// Works from the observer's destructor too. Unknown names and observers are no error.
  void removeObserver(const std::weak_ptr<void>& observer, const std::string& messageName);
  /// removeObserver:
  ///
  /// For all names.
  void removeObserver(const std::weak_ptr<void>& observer);

  /// postMessageName:userInfo:directory:prefix:error:
  ///
  /// Writes a message file into `directory`, which must exist, under a fresh unique name, after
  /// `prefix` and a hyphen if there is one. A null `userInfo` leaves the key out. The file appears
  /// whole or not at all. `guard` is asked once it is prepared; a post that it declines leaves
  /// nothing and counts as success. On failure logs, and returns false. `error` is written in every
  /// case, not set on success.
  bool postMessageName(const std::string& name, const Value& userInfo, const Url& directory,
                       const std::optional<std::string>& prefix, Error* error,
                       const PublishGuard& guard = {});

  /// dispatchMessage:
  ///
  /// Calls every living observer of the message's name with the whole message, on this thread, in
  /// no particular order. What an observer throws ends there.
  void dispatchMessage(const Value& message);

  /// startObserving:
  ///
  /// Watches `directory` and scans it once before it returns. Does nothing while a watch runs, even
  /// for another folder. A missing folder is logged.
  void startObserving(const Url& directory);
  /// directoryChanged:
  ///
  /// One scan: dispatches and deletes the message files that were not there at the last one.
  void directoryChanged(const Url& directory);
  /// stopObservingDirectory
  ///
  /// Never waits: a running scan finishes. What is known of the folder is kept.
  void stopObservingDirectory();

  /// Every entry that the last scan listed; null before the first.
  std::shared_ptr<const KnownMessageFiles> knownMessageFiles() const {
    return knownMessageFiles_.get();
  }
  /// Fixed at construction.
  const Url& communicationInboxURL() const noexcept { return communicationInboxURL_; }
  const Url& communicationOutboxURL() const noexcept { return communicationOutboxURL_; }

 protected:
  explicit THMPCommunicationCenter(THMPCommunicationCenterClass& centerClass)
      : class_(centerClass) {}
  /// init
  void init();

  THMPCommunicationCenterClass& centerClass() const noexcept { return class_; }

 private:
  void callObserver(const std::weak_ptr<void>& observer, const MessageSelector& selector,
                    const Value& message) noexcept;
  /// Prepares one file and publishes it unless `guard` declines.
  bool writeMessageFile(const std::string& bytes, const Url& directory, const std::string& fileName,
                        const PublishGuard& guard, Error* error);
  std::optional<Value> readMessageFile(const std::string& path, Error* error);
  void handleMessageFile(const Url& directory, const std::string& name,
                         protocol::THMPCommunicationCenter* receiver);

  THMPCommunicationCenterClass& class_;
  ObserverRegistry observersByMessageName_;
  Url communicationInboxURL_;
  Url communicationOutboxURL_;
  SnapshotCell<KnownMessageFiles> knownMessageFiles_;
  Mutex watcherMutex_;  // guards the pointer; nothing is called under it
  std::shared_ptr<DirectoryWatch> watcherSource_ THMP_GUARDED_BY(watcherMutex_);
};

}  // namespace thmp
