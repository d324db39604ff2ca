// SPDX-License-Identifier: Apache-2.0
//
// Which calls of the boundary fail. While armed, every call that may fail asks here, and the one
// with the given number is told to: that one alone, or that one and all after it. One thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/error.h"

namespace thmp::faults {

enum class Mode { kThatCallAlone, kAllFromThereOn };

class FaultPlan {
 public:
  /// `nth` counts from 1. File operations fail with `errorNumber`.
  void arm(std::size_t nth, Mode mode, int errorNumber) {
    nth_ = nth;
    mode_ = mode;
    errorNumber_ = errorNumber;
    calls_ = 0;
    armed_ = true;
  }
  void disarm() { armed_ = false; }

  /// Asked once by each call that may fail; `call` is what it is, `path` what it concerns.
  bool fails(const char* call, const std::string& path = {}) {
    if (point_) point_(call);
    if (!armed_) return false;
    ++calls_;
    if (calls_ != nth_ && (mode_ == Mode::kThatCallAlone || calls_ < nth_)) return false;
    faults_.emplace_back(call, path);
    return true;
  }
  /// The same, with the operating system's error in `error`.
  bool fails(const char* call, const std::string& path, Error* error) {
    return fails(call, path) && !fail(error, Error::posix(errorNumber_, path));
  }

  /// Is told of each call before it happens, armed or not.
  using Point = std::function<void(std::string_view call)>;
  void atEachCall(Point point) { point_ = std::move(point); }
  void tell(std::string_view call) {
    if (point_) point_(call);
  }

  /// How many calls have failed so far.
  std::size_t count() const { return faults_.size(); }
  bool hit(const std::string& call, const std::string& path = {}) const {
    return std::any_of(faults_.begin(), faults_.end(), [&](const auto& fault) {
      return fault.first == call && (path.empty() || fault.second == path);
    });
  }
  std::string firstFault() const {
    return faults_.empty() ? "no fault" : faults_.front().first + " " + faults_.front().second;
  }

 private:
  std::size_t nth_ = 0;
  std::size_t calls_ = 0;
  Mode mode_ = Mode::kThatCallAlone;
  int errorNumber_ = 0;
  bool armed_ = false;
  Point point_;
  std::vector<std::pair<std::string, std::string>> faults_;
};

}  // namespace thmp::faults
