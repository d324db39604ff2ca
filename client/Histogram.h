// SPDX-License-Identifier: Apache-2.0
//
// Months of mail folded to the steps that there is room for, and drawn for a terminal. Pure; any
// thread.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "client/MailSummary.h"

namespace thmp::client {

/// How many months a bar stands for, and what such a step is called.
struct Step {
  int months = 1;
  const char* name = "month";
};

struct Histogram {
  struct Bar {
    Month first;
    MailCount count;
  };
  Step step;
  std::vector<Bar> bars;
};

/// In the smallest step that needs at most `maxBars` bars. Steps begin where the calendar's do.
/// REQUIRES: maxBars > 10; `months` without a gap.
Histogram folded(std::span<const MonthCount> months, std::size_t maxBars);

/// What a bar stands for: `2026-05`, `2026 Q2`, `2026`, `2020 to 2029`.
std::string barName(const Step& step, Month first);

/// The drawing in block characters: received above, sent below, one scale, years along the foot. No
/// line is wider than `columns`, which counts as 16 when it is less. Lines end with a line feed.
std::string drawn(std::span<const MonthCount> months, std::size_t columns, bool color);

}  // namespace thmp::client
