// SPDX-License-Identifier: Apache-2.0
//
// What one thread hands to another, bounded in number and bytes: the one that makes waits for the
// one that takes. Any thread.
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
  BoundedQueue(std::size_t most, std::size_t mostBytes) : most_(most), mostBytes_(mostBytes) {}

  /// Waits while the queue is full. False, and nothing is put in, once it is closed.
  bool put(T one, std::size_t bytes) {
    const Lock lock(mutex_);
    while ((queue_.size() >= most_ || bytes_ >= mostBytes_) && !closed_) changed_.wait(mutex_);
    if (closed_) return false;
    bytes_ += bytes;
    queue_.push_back({std::move(one), bytes});
    changed_.notify_all();
    return true;
  }

  /// Waits while the queue is empty. Empty once it is closed and all is taken.
  std::optional<T> take() {
    const Lock lock(mutex_);
    while (queue_.empty() && !closed_) changed_.wait(mutex_);
    if (queue_.empty()) return std::nullopt;
    std::optional<T> one(std::move(queue_.front().value));
    bytes_ -= queue_.front().bytes;
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
  struct Held {
    T value;
    std::size_t bytes;
  };

  const std::size_t most_;
  const std::size_t mostBytes_;
  Mutex mutex_;
  ConditionVariable changed_;
  std::deque<Held> queue_ THMP_GUARDED_BY(mutex_);
  std::size_t bytes_ THMP_GUARDED_BY(mutex_) = 0;
  bool closed_ THMP_GUARDED_BY(mutex_) = false;
};

}  // namespace thmp
