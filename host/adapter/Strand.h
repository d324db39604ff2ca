// SPDX-License-Identifier: Apache-2.0
//
// The engine's threads: a small fixed pool, and strands on it. Tasks of one strand run in order and
// never two at a time, whichever thread of the pool takes them, so that thousands of live queries
// cost no thread of their own.
//
// The pool lives as long as the process: its threads start with all signals blocked and are never
// joined, so that no quit waits for a query. A strand's tasks hold what they use; the strand may be
// dropped at any time, also from inside one of its tasks.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>

#include "base/mutex.h"

namespace thmp {

class ThreadPool {
 public:
  /// The threads begin at once. Never destroyed once made: see create().
  static ThreadPool& create(std::size_t threads);
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  /// Any thread; never waits. A task that throws ends there.
  void post(std::function<void()> task);

 private:
  ThreadPool() = default;
  ~ThreadPool() = default;
  void work() noexcept;

  Mutex mutex_;
  ConditionVariable wake_;
  std::deque<std::function<void()>> tasks_ THMP_GUARDED_BY(mutex_);
};

class Strand : public std::enable_shared_from_this<Strand> {
 public:
  explicit Strand(ThreadPool& pool) : pool_(pool) {}

  /// Any thread; never waits.
  void post(std::function<void()> task);

 private:
  void runOne();

  ThreadPool& pool_;
  Mutex mutex_;
  std::deque<std::function<void()>> tasks_ THMP_GUARDED_BY(mutex_);
  bool scheduled_ THMP_GUARDED_BY(mutex_) = false;
};

}  // namespace thmp
