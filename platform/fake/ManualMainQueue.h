// SPDX-License-Identifier: Apache-2.0
//
// The main queue without a run loop: closures wait until a test runs them. The main thread is the
// one that made the queue, and any other while it runs a closure.
//
// Running from inside a closure is allowed: so a modal window's nested loop is played.
#pragma once

#include <chrono>
#include <deque>
#include <set>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "platform/execution.h"

namespace thmp {

class ManualMainQueue : public MainQueue {
 public:
  /// Runs the oldest closure that is due. False when there is none.
  bool runOne();
  /// Runs what is due, posted meanwhile too, until nothing is. Returns how many closures ran.
  std::size_t runUntilIdle();
  /// Moves the run loop's time and runs what comes due, in the order of its times.
  void advance(std::chrono::milliseconds by);
  /// Closures waiting, delayed ones included.
  std::size_t pending() const;
  /// The host is quitting: what is pending or comes later is destroyed unrun.
  void close();
  /// Closures that ended with an exception.
  std::size_t thrownCount() const;

  // MainQueue.
  void post(std::function<void()> closure) override;
  void postAfter(std::chrono::milliseconds delay, std::function<void()> closure) override;
  bool isCurrent() const override;

 private:
  struct Delayed {
    std::chrono::milliseconds due;
    std::function<void()> closure;
  };

  /// Moves what is due by now from delayed_ to closures_.
  void collectDue() THMP_REQUIRES(mutex_);

  const std::thread::id maker_ = std::this_thread::get_id();
  mutable Mutex mutex_;
  std::deque<std::function<void()>> closures_ THMP_GUARDED_BY(mutex_);
  /// By time, equal times in the order of posting.
  std::vector<Delayed> delayed_ THMP_GUARDED_BY(mutex_);
  std::chrono::milliseconds now_ THMP_GUARDED_BY(mutex_){0};
  std::multiset<std::thread::id> runners_ THMP_GUARDED_BY(mutex_);
  bool closed_ THMP_GUARDED_BY(mutex_) = false;
  std::size_t thrown_ THMP_GUARDED_BY(mutex_) = 0;
};

}  // namespace thmp
