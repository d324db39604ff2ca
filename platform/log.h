// SPDX-License-Identifier: Apache-2.0
//
// The system log. One call is one line; control characters are escaped by the implementation, and
// nothing in the line is ever taken for a format. Any thread.
#pragma once

#include <string_view>

namespace thmp {

class SystemLog {
 public:
  virtual ~SystemLog() = default;
  virtual void write(std::string_view line) noexcept = 0;
};

}  // namespace thmp
