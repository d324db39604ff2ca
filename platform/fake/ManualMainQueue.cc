// SPDX-License-Identifier: Apache-2.0
#include "platform/fake/ManualMainQueue.h"

#include <algorithm>
#include <utility>

namespace thmp {

bool ManualMainQueue::runOne() {
  std::function<void()> closure;
  const std::thread::id self = std::this_thread::get_id();
  {
    const Lock lock(mutex_);
    // Delayed closures wait until the current pass is over.
    if (closures_.empty()) collectDue();
    if (closures_.empty()) return false;
    closure = std::move(closures_.front());
    closures_.pop_front();
    runners_.insert(self);
  }
  bool threw = false;
  try {
    closure();
  } catch (...) {
    threw = true;
  }
  closure = nullptr;
  const Lock lock(mutex_);
  runners_.erase(runners_.find(self));
  if (threw) ++thrown_;
  return true;
}

std::size_t ManualMainQueue::runUntilIdle() {
  std::size_t ran = 0;
  while (runOne()) ++ran;
  return ran;
}

void ManualMainQueue::advance(std::chrono::milliseconds by) {
  std::chrono::milliseconds end;
  {
    const Lock lock(mutex_);
    end = now_ + by;
  }
  for (bool more = true; more;) {
    runUntilIdle();
    const Lock lock(mutex_);
    more = !delayed_.empty() && delayed_.front().due <= end;
    now_ = more ? std::max(now_, delayed_.front().due) : end;
  }
}

std::size_t ManualMainQueue::pending() const {
  const Lock lock(mutex_);
  return closures_.size() + delayed_.size();
}

void ManualMainQueue::close() {
  std::deque<std::function<void()>> dropped;
  std::vector<Delayed> droppedDelayed;
  const Lock lock(mutex_);
  closed_ = true;
  dropped.swap(closures_);
  droppedDelayed.swap(delayed_);
}

std::size_t ManualMainQueue::thrownCount() const {
  const Lock lock(mutex_);
  return thrown_;
}

void ManualMainQueue::post(std::function<void()> closure) {
  const Lock lock(mutex_);
  if (!closed_) closures_.push_back(std::move(closure));
}

void ManualMainQueue::postAfter(std::chrono::milliseconds delay, std::function<void()> closure) {
  const Lock lock(mutex_);
  if (closed_) return;
  const std::chrono::milliseconds due = now_ + delay;
  const auto place =
      std::upper_bound(delayed_.begin(), delayed_.end(), due,
                       [](auto time, const Delayed& other) { return time < other.due; });
  delayed_.insert(place, Delayed{due, std::move(closure)});
}

bool ManualMainQueue::isCurrent() const {
  const std::thread::id self = std::this_thread::get_id();
  const Lock lock(mutex_);
  return self == maker_ || runners_.contains(self);
}

void ManualMainQueue::collectDue() {
  while (!delayed_.empty() && delayed_.front().due <= now_) {
    closures_.push_back(std::move(delayed_.front().closure));
    delayed_.erase(delayed_.begin());
  }
}

}  // namespace thmp
