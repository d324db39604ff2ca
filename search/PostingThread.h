// SPDX-License-Identifier: Apache-2.0
//
// Posts a batch while the next one is gathered. The thread stays: one that was begun for each batch
// would start on its maker's processor, and so run after it. It is no queue: who finds it busy
// posts by himself. It begins on an engine's thread and blocks the signals that that one does.
#pragma once

#include <cstdint>
#include <functional>
#include <thread>

#include "base/mutex.h"

namespace thmp {

/// Any thread.
class PostingThread {
 public:
  PostingThread() = default;
  /// Waits for the task that runs. Not on the thread itself.
  ~PostingThread();
  PostingThread(const PostingThread&) = delete;
  PostingThread& operator=(const PostingThread&) = delete;

  /// What wait() is told; tasks that are done have any.
  using Ticket = std::uint64_t;

  /// Runs `task`, which throws nothing, beside the caller; before the return when another's is not
  /// done, or when there can be no thread. May throw std::bad_alloc, and nothing has run then.
  Ticket begin(std::function<void()> task);
  /// Until that task is done and destroyed.
  void wait(Ticket ticket);

 private:
  bool isReady() THMP_REQUIRES(mutex_);
  void work() noexcept;

  Mutex mutex_;
  ConditionVariable changed_;
  std::thread thread_ THMP_GUARDED_BY(mutex_);  // begins with the first task
  std::function<void()> task_ THMP_GUARDED_BY(mutex_);
  Ticket begun_ THMP_GUARDED_BY(mutex_) = 0;
  Ticket done_ THMP_GUARDED_BY(mutex_) = 0;
  bool ends_ THMP_GUARDED_BY(mutex_) = false;
};

}  // namespace thmp
