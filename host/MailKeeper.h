// SPDX-License-Identifier: Apache-2.0
//
// Keeps library and index up to date while the host serves: once over all mail at the start, then
// what the change feed tells, and anew from the mail when the index turns out to be damaged. All of
// it on one thread of its own, so that neither the plug-in nor a search ever waits for it.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "host/index/Index.h"
#include "host/index/Indexer.h"
#include "host/store/ChangeFeed.h"
#include "host/store/Library.h"
#include "platform/log.h"

namespace thmp {

class MailKeeper {
 public:
  /// All references outlive it. `roots` are the mail folders, absolute.
  MailKeeper(Library& library, Index& index, std::vector<std::string> roots, SystemLog& log);
  /// Stops.
  ~MailKeeper();
  MailKeeper(const MailKeeper&) = delete;
  MailKeeper& operator=(const MailKeeper&) = delete;

  /// Begins, with all signals blocked on its threads. Once.
  void start();
  /// Ends after the message in hand. Repeats are harmless.
  void stop();

  /// The index could not be read to its end: it will be made anew from the mail. Whether that is
  /// possible. Any thread; never waits.
  bool indexUnreadable();

 private:
  void work() noexcept;
  /// False when it is to end.
  bool waitForWork() THMP_REQUIRES(mutex_);
  /// Both give the reason when they fail; empty otherwise.
  std::string updateAll();
  std::string update(const MailChanges& changes);
  /// Once, until there are others.
  void tellOfUnreachableFolders();
  /// Keeps what failed for another try.
  void settle(const std::string& failure);
  void say(const std::string& line);

  Library& library_;
  Index& index_;
  const std::vector<std::string> roots_;
  SystemLog& log_;
  Indexer indexer_;
  ChangeFeed feed_;
  std::thread thread_;

  // The keeper's thread alone.
  MailChanges inHand_;  // taken up and not yet done
  std::string failure_;
  std::vector<std::string> unreachable_;  // folders, as they were told of
  static constexpr std::chrono::seconds kFirstRetry{1};
  std::chrono::seconds nextRetry_ = kFirstRetry;

  Mutex mutex_;
  ConditionVariable wake_;
  MailChanges changes_ THMP_GUARDED_BY(mutex_);  // told and not yet taken up
  bool remakeWanted_ THMP_GUARDED_BY(mutex_) = false;
  bool lost_ THMP_GUARDED_BY(mutex_) = false;  // it could not be made anew
  bool stopped_ THMP_GUARDED_BY(mutex_) = false;
};

}  // namespace thmp
