// SPDX-License-Identifier: Apache-2.0
//
// What one thread hands to another, so many at most: the one that makes waits for the one that
// takes. Any thread.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <utility>

#include "base/mutex.h"

namespace thmp {

template <typename T>
class BoundedQueue {
 public:
  explicit BoundedQueue(std::size_t most) : most_(most) {}

  /// Waits while the queue is full. False, and nothing is put in, once it is closed.
  bool put(T one) {
    const Lock lock(mutex_);
    while (queue_.size() >= most_ && !closed_) changed_.wait(mutex_);
    if (closed_) return false;
    queue_.push_back(std::move(one));
    changed_.notify_all();
    return true;
  }

  /// Waits while the queue is empty. Empty once it is closed and all is taken.
  std::optional<T> take() {
    const Lock lock(mutex_);
    while (queue_.empty() && !closed_) changed_.wait(mutex_);
    if (queue_.empty()) return std::nullopt;
    std::optional<T> one(std::move(queue_.front()));
    queue_.pop_front();
    changed_.notify_all();
    return one;
  }

  void close() {
    const Lock lock(mutex_);
    closed_ = true;
    changed_.notify_all();
  }

 private:
  const std::size_t most_;
  Mutex mutex_;
  ConditionVariable changed_;
  std::deque<T> queue_ THMP_GUARDED_BY(mutex_);
  bool closed_ THMP_GUARDED_BY(mutex_) = false;
};

}  // namespace thmp
