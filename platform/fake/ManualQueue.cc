// SPDX-License-Identifier: Apache-2.0
#include "platform/fake/ManualQueue.h"

#include <utility>

namespace thmp {

ManualQueue::ManualQueue(std::string label) : label_(std::move(label)) {}

bool ManualQueue::runOne() {
  std::function<void()> closure;
  {
    const Lock lock(mutex_);
    if (running_ || closures_.empty()) return false;
    closure = std::move(closures_.front());
    closures_.pop_front();
    running_ = true;
    runner_ = std::this_thread::get_id();
  }
  bool threw = false;
  try {
    closure();
  } catch (...) {
    threw = true;
  }
  closure = nullptr;  // what it held goes while the queue is still current
  const Lock lock(mutex_);
  running_ = false;
  runner_ = {};
  if (threw) ++thrown_;
  return true;
}

std::size_t ManualQueue::runUntilIdle() {
  std::size_t ran = 0;
  while (runOne()) ++ran;
  return ran;
}

std::size_t ManualQueue::pending() const {
  const Lock lock(mutex_);
  return closures_.size();
}

void ManualQueue::dropPending() {
  std::deque<std::function<void()>> dropped;
  const Lock lock(mutex_);
  dropped.swap(closures_);
}

std::size_t ManualQueue::thrownCount() const {
  const Lock lock(mutex_);
  return thrown_;
}

void ManualQueue::post(std::function<void()> closure) {
  const Lock lock(mutex_);
  closures_.push_back(std::move(closure));
}

bool ManualQueue::isCurrent() const {
  const Lock lock(mutex_);
  return running_ && runner_ == std::this_thread::get_id();
}

}  // namespace thmp
