// SPDX-License-Identifier: Apache-2.0
//
// The host's user defaults: property-list values under text keys, kept across launches. Any thread;
// each call is atomic and calls nothing of its caller's. Failures of the storage behind it are the
// implementation's to report, never the caller's.
#pragma once

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
};

}  // namespace thmp
