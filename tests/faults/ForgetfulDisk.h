// SPDX-License-Identifier: Apache-2.0
//
// The disk below a platform in memory, for the moment when the power goes. Nothing that the core
// writes is promised to last: of the messages that stood in "in" and "out" at any time before, each
// may be there afterwards or not, whole, cut off or empty; the user defaults are whole, and those
// of some time before. One thread.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "tests/faults/FaultWorld.h"

namespace thmp::faults {

class ForgetfulDisk {
 public:
  /// Looks at `world` at each of its calls from now on, until it is destroyed.
  explicit ForgetfulDisk(FaultWorld& world);
  ~ForgetfulDisk();
  ForgetfulDisk(const ForgetfulDisk&) = delete;
  ForgetfulDisk& operator=(const ForgetfulDisk&) = delete;

  /// How many moments there have been.
  std::size_t moments() const { return moments_.size(); }

  /// What may be left after `moment`, from 0, as `seed` says: the folders and defaults of `next`,
  /// a machine that has not started yet.
  void leave(std::size_t moment, unsigned seed, FaultWorld& next) const;

 private:
  struct Moment {
    /// Path to bytes.
    std::map<std::string, std::string> messages;
    Value log;
  };
  void look();

  FaultWorld& world_;
  std::vector<Moment> moments_;
};

}  // namespace thmp::faults
