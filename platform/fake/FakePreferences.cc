// SPDX-License-Identifier: Apache-2.0
#include "platform/fake/FakePreferences.h"

namespace thmp {

void FakePreferences::setChangeCallback(ChangeCallback callback) {
  const Lock lock(mutex_);
  changed_ = std::move(callback);
}

std::vector<std::pair<std::string, Value>> FakePreferences::sets() const {
  const Lock lock(mutex_);
  return sets_;
}

void FakePreferences::store(const std::string& key, const Value& value) {
  const Lock lock(mutex_);
  if (value.isNull()) {
    values_.erase(key);
  } else {
    values_[key] = value;
  }
}

Value FakePreferences::get(const std::string& key) {
  const Lock lock(mutex_);
  const auto found = values_.find(key);
  return found == values_.end() ? Value() : found->second;
}

void FakePreferences::set(const std::string& key, const Value& value) {
  store(key, value);
  ChangeCallback changed;
  {
    const Lock lock(mutex_);
    sets_.emplace_back(key, value);
    changed = changed_;
  }
  if (changed) changed(key);
}

void FakePreferences::remove(const std::string& key) { set(key, Value()); }

}  // namespace thmp
