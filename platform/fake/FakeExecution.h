// SPDX-License-Identifier: Apache-2.0
//
// Queues, watches and a clock that a test drives by hand, and that it can look at.
//
// A watch on a folder of the in-memory file system reports by itself: each change of the folder
// posts one call to the watch's queue, unless one is waiting there already. It runs when the test
// runs the queue. Any thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "platform/execution.h"
#include "platform/fake/InMemoryFileSystem.h"
#include "platform/fake/ManualClock.h"
#include "platform/fake/ManualMainQueue.h"
#include "platform/fake/ManualQueue.h"

namespace thmp {

/// What a test sees of one watch, also after the core has dropped it.
class FakeWatch : public std::enable_shared_from_this<FakeWatch> {
 public:
  FakeWatch(std::string directory, std::shared_ptr<SerialQueue> queue,
            std::function<void()> changed, bool silent);

  /// As if the folder had changed. Nothing happens before resume(), after cancel(), on a silent
  /// watch, and while an earlier call still waits.
  void fire();

  const std::string& directory() const { return directory_; }
  const std::shared_ptr<SerialQueue>& queue() const { return queue_; }
  int resumedCount() const;
  /// Calls of cancel(), the destructor's included.
  int cancelledCount() const;
  /// Whether the descriptor would be closed by now: cancelled, and the queue has run since.
  bool closed() const;
  /// Calls of `changed` that began.
  int callCount() const;

  // What the handle given to the core does.
  void resume();
  void cancel();

 private:
  void runChanged();
  void close();

  const std::string directory_;
  const std::shared_ptr<SerialQueue> queue_;
  const bool silent_;
  mutable Mutex mutex_;
  std::shared_ptr<const std::function<void()>> changed_ THMP_GUARDED_BY(mutex_);
  bool waiting_ THMP_GUARDED_BY(mutex_) = false;
  bool closed_ THMP_GUARDED_BY(mutex_) = false;
  int resumed_ THMP_GUARDED_BY(mutex_) = 0;
  int cancelled_ THMP_GUARDED_BY(mutex_) = 0;
  int calls_ THMP_GUARDED_BY(mutex_) = 0;
};

class FakeExecution : public Execution {
 public:
  /// Becomes the change listener of `files`, which must outlive this object.
  explicit FakeExecution(InMemoryFileSystem& files);
  ~FakeExecution() override;

  ManualClock& clock() { return clock_; }
  /// All serial queues made so far, in order.
  std::vector<std::shared_ptr<ManualQueue>> queues() const;
  /// The first queue of that label; null without one.
  std::shared_ptr<ManualQueue> queue(const std::string& label) const;
  /// All watches made so far, in order.
  std::vector<std::shared_ptr<FakeWatch>> watches() const;
  /// Whether watches made from now on stay silent, as on a folder that cannot be watched.
  void makeWatchesSilent(bool silent);

  /// Runs the main queue and all serial queues until nothing is due. Returns how many closures ran.
  std::size_t runUntilIdle();
  /// Moves the clock and the main queue's time, running what comes due.
  void advance(std::chrono::milliseconds by);

  // Execution.
  ManualMainQueue& mainQueue() override { return mainQueue_; }
  std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label) override;
  std::unique_ptr<DirectoryWatch> makeDirectoryWatch(const std::string& directory,
                                                     std::shared_ptr<SerialQueue> queue,
                                                     std::function<void()> changed) override;
  Date now() override { return clock_.now(); }

 private:
  void folderChanged(const std::string& folder, const std::string& name);

  InMemoryFileSystem& files_;
  ManualClock clock_;
  ManualMainQueue mainQueue_;
  mutable Mutex mutex_;
  std::vector<std::shared_ptr<ManualQueue>> queues_ THMP_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<FakeWatch>> watches_ THMP_GUARDED_BY(mutex_);
  bool silent_ THMP_GUARDED_BY(mutex_) = false;
};

}  // namespace thmp
