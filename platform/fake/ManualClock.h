// SPDX-License-Identifier: Apache-2.0
//
// The time of day, which stands still until a test moves it. Any thread.
#pragma once

#include <chrono>

#include "base/date.h"
#include "base/mutex.h"

namespace thmp {

class ManualClock {
 public:
  Date now() const {
    const Lock lock(mutex_);
    return now_;
  }

  void set(Date now) {
    const Lock lock(mutex_);
    now_ = now;
  }

  void advance(std::chrono::milliseconds by) {
    const Lock lock(mutex_);
    now_.secondsSinceReference += std::chrono::duration<double>(by).count();
  }

 private:
  mutable Mutex mutex_;
  Date now_ THMP_GUARDED_BY(mutex_) = Date::fromUnixSeconds(1'700'000'000);
};

}  // namespace thmp
