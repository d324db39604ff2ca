// SPDX-License-Identifier: Apache-2.0
//
// A serial queue without a thread: closures wait until a test runs them, on the test's own thread.
//
// Any thread may post and run; while one closure runs, a call to run another does nothing. A
// closure that throws ends there and is counted.
#pragma once

#include <deque>
#include <string>
#include <thread>

#include "base/mutex.h"
#include "platform/execution.h"

namespace thmp {

class ManualQueue : public SerialQueue {
 public:
  explicit ManualQueue(std::string label);

  /// Runs the oldest closure. False when there is none, or when one is running.
  bool runOne();
  /// Runs closures, those posted meanwhile too, until none is left. Returns how many it ran.
  std::size_t runUntilIdle();
  std::size_t pending() const;
  /// Destroys what is pending, unrun.
  void dropPending();
  /// Closures that ended with an exception.
  std::size_t thrownCount() const;

  // SerialQueue.
  void post(std::function<void()> closure) override;
  bool isCurrent() const override;
  const std::string& label() const override { return label_; }

 private:
  const std::string label_;
  mutable Mutex mutex_;
  std::deque<std::function<void()>> closures_ THMP_GUARDED_BY(mutex_);
  bool running_ THMP_GUARDED_BY(mutex_) = false;
  std::thread::id runner_ THMP_GUARDED_BY(mutex_);
  std::size_t thrown_ THMP_GUARDED_BY(mutex_) = 0;
};

}  // namespace thmp
