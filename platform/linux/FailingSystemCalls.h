// SPDX-License-Identifier: Apache-2.0
//
// System calls of this folder's code that fail instead of being made, in test programs that are
// linked with thmp_failing_system_calls(). One plan at a time; it is its thread's own unless it
// says otherwise.
#pragma once

#include <cerrno>
#include <cstddef>
#include <string_view>
#include <vector>

namespace thmp::testing {

struct FailingCall {
  /// As "openat"; when empty every call but getrandom(2), without which the process ends.
  std::string_view name = {};
  /// From 1, among the calls of that name.
  int nth = 1;
  int error = EIO;
  /// All calls after it fail, too.
  bool fromThenOn = false;
  bool anyThread = false;
};

class FailingSystemCalls {
 public:
  explicit FailingSystemCalls(FailingCall call);
  explicit FailingSystemCalls(const std::vector<FailingCall>& calls);
  ~FailingSystemCalls();
  FailingSystemCalls(const FailingSystemCalls&) = delete;
  FailingSystemCalls& operator=(const FailingSystemCalls&) = delete;

  /// How many calls have failed so far, in all or by one of the plan's entries.
  int failures() const;
  int failures(std::size_t entry) const;
};

}  // namespace thmp::testing
