// SPDX-License-Identifier: Apache-2.0
//
// Which allocation of the C++ runtime fails, in the one program that replaces `operator new`. One
// thread.
#pragma once

#include <cstddef>

#include "tests/faults/FaultPlan.h"

namespace thmp::faults {

class AllocationPlan {
 public:
  void arm(std::size_t nth, Mode mode) {
    nth_ = nth;
    mode_ = mode;
    calls_ = 0;
    failed_ = 0;
    armed_ = true;
  }
  /// How many allocations have failed since arm().
  std::size_t disarm() {
    armed_ = false;
    return failed_;
  }

  /// Asked by each allocation.
  bool fails() {
    if (!armed_ || paused_ > 0) return false;
    ++calls_;
    if (calls_ != nth_ && (mode_ == Mode::kThatCallAlone || calls_ < nth_)) return false;
    ++failed_;
    return true;
  }

  /// Nothing fails during its life: for what a fake does in a call that promises not to throw.
  class Pause {
   public:
    explicit Pause(AllocationPlan& plan) : plan_(plan) { ++plan_.paused_; }
    ~Pause() { --plan_.paused_; }
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;

   private:
    AllocationPlan& plan_;
  };

 private:
  std::size_t nth_ = 0;
  std::size_t calls_ = 0;
  std::size_t failed_ = 0;
  int paused_ = 0;
  Mode mode_ = Mode::kThatCallAlone;
  bool armed_ = false;
};

inline AllocationPlan allocationPlan;

}  // namespace thmp::faults
