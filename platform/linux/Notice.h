// SPDX-License-Identifier: Apache-2.0
//
// One notice and who wants it. Registrations are weak: the observer is promoted for each call, and
// a registration whose observer is gone is dropped. Any thread may register and remove; nothing is
// called under a lock.
#pragma once

#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "platform/linux/thread.h"

namespace thmp {

template <typename... Args>
class Notice {
 public:
  using Callback = std::function<void(const Args&...)>;

  void add(std::weak_ptr<void> observer, Callback callback) {
    const Lock lock(mutex_);
    registrations_.push_back(
        std::make_shared<Registration>(std::move(observer), std::move(callback)));
  }

  /// A registration that is removed while the notice is given is not called any more.
  void remove(const std::weak_ptr<void>& observer) {
    const Lock lock(mutex_);
    std::erase_if(registrations_, [&](const std::shared_ptr<Registration>& each) {
      each->removed = same(each->observer, observer);
      return each->removed;
    });
  }

  /// Calls the observers that were registered when it began, in that order.
  void give(const Args&... args) noexcept {
    runGuarded([&] {
      for (const auto& registration : current()) {
        const std::shared_ptr<void> observer = observerOf(*registration);
        if (observer == nullptr) continue;
        runGuarded([&] { registration->callback(args...); });
      }
    });
  }

 private:
  struct Registration {
    Registration(std::weak_ptr<void> weak, Callback called)
        : observer(std::move(weak)), callback(std::move(called)) {}
    const std::weak_ptr<void> observer;
    const Callback callback;
    bool removed = false;
  };
  using Registrations = std::vector<std::shared_ptr<Registration>>;

  static bool same(const std::weak_ptr<void>& a, const std::weak_ptr<void>& b) {
    return !a.owner_before(b) && !b.owner_before(a);
  }

  Registrations current() THMP_EXCLUDES(mutex_) {
    Registrations dropped;  // freed outside the lock
    const Lock lock(mutex_);
    Registrations kept;
    for (auto& each : registrations_) {
      (each->observer.expired() ? dropped : kept).push_back(std::move(each));
    }
    registrations_ = std::move(kept);
    return registrations_;
  }

  std::shared_ptr<void> observerOf(const Registration& registration) THMP_EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    return registration.removed ? nullptr : registration.observer.lock();
  }

  Mutex mutex_;
  Registrations registrations_ THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
