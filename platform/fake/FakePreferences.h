// SPDX-License-Identifier: Apache-2.0
//
// User defaults in memory, with a record of what was set. Any thread.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "platform/preferences.h"

namespace thmp {

class FakePreferences : public Preferences {
 public:
  using ChangeCallback = std::function<void(const std::string& key)>;

  /// Called inside each set() and remove(), on the caller's thread with nothing locked here: shows
  /// what happens when a system's defaults notify at once.
  void setChangeCallback(ChangeCallback callback);
  /// Every set() and remove() in order, a removal with the null value.
  std::vector<std::pair<std::string, Value>> sets() const;
  /// Puts a value there without a record or callback.
  void store(const std::string& key, const Value& value);

  // Preferences.
  Value get(const std::string& key) override;
  void set(const std::string& key, const Value& value) override;
  void remove(const std::string& key) override;

 private:
  mutable Mutex mutex_;
  std::map<std::string, Value> values_ THMP_GUARDED_BY(mutex_);
  std::vector<std::pair<std::string, Value>> sets_ THMP_GUARDED_BY(mutex_);
  ChangeCallback changed_ THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
