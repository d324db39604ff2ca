// SPDX-License-Identifier: Apache-2.0
//
// Holds the current one of a sequence of immutable values. Readers take the value that is current
// and keep it as long as they like; writers put another in its place. Any thread; the lock inside
// covers the exchange of a pointer only, and no value is ever freed under it.
#pragma once

#include <memory>
#include <utility>

#include "base/mutex.h"

namespace thmp {

template <typename T>
class SnapshotCell {
 public:
  /// Null before the first set().
  std::shared_ptr<const T> get() const {
    const Lock lock(mutex_);
    return value_;
  }

  void set(std::shared_ptr<const T> value) {
    const Lock lock(mutex_);
    value_.swap(value);
  }

 private:
  mutable Mutex mutex_;
  std::shared_ptr<const T> value_ THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
