// SPDX-License-Identifier: Apache-2.0
//
// How far a run over all mail is, in words: for the bar of `index` and the log of `serve`.
#pragma once

#include <chrono>
#include <string>

#include "host/index/Indexer.h"

namespace thmp {

/// "1000 of 20000, 500 a second, 38 s left", the last where it can be told.
std::string progressText(const IndexProgress& progress);

/// Paces what is told again and again. One thread.
class Pace {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// The first time comes one `interval` after `begun`.
  Pace(std::chrono::milliseconds interval, Time begun) : interval_(interval), last_(begun) {}

  /// Whether another one is due; then the next is one interval after `now`.
  bool isDue(Time now);

 private:
  const std::chrono::milliseconds interval_;
  Time last_;
};

}  // namespace thmp
