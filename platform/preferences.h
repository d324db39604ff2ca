// SPDX-License-Identifier: Apache-2.0
//
// The host's user defaults: property-list values under text keys, kept across launches. Any thread;
// each call but change() is atomic and calls nothing of its caller's. Failures of the storage
// behind it are the implementation's to report, never the caller's.
#pragma once

#include <functional>
#include <string>

#include "base/value.h"

namespace thmp {

class Preferences {
 public:
  virtual ~Preferences() = default;
  /// The null value when the key is absent.
  virtual Value get(const std::string& key) = 0;
  /// A null value removes the key. Seen at once by get(); written to disk soon after.
  virtual void set(const std::string& key, const Value& value) = 0;
  virtual void remove(const std::string& key) = 0;

  /// Sets what `edit`, which uses no user defaults, makes of the value, or of null. By get() and
  /// set(), unless the value can be changed where it is; then nothing of it is copied.
  virtual void change(const std::string& key, const std::function<void(Value& value)>& edit) {
    Value value = get(key);
    edit(value);
    set(key, value);
  }
};

}  // namespace thmp
