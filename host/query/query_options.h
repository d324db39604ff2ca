// SPDX-License-Identifier: Apache-2.0
//
// What the meaning of a query depends on besides its text. Nothing else plays a part: no locale, no
// clock, no environment.
#pragma once

#include <cstdint>
#include <functional>

#include "base/date.h"

namespace thmp::query {

struct QueryOptions {
  /// The time at which the query starts; fractions of a second are cut.
  Date now;
  /// 1 = Sunday to 7 = Saturday; other numbers count as 1.
  int firstWeekday = 1;
  /// How many seconds local time is ahead of UTC at a time given in Unix seconds. Empty means UTC.
  /// Called by parse() on its own thread, and kept by nobody.
  std::function<std::int64_t(std::int64_t unixSeconds)> utcOffsetAt;
};

}  // namespace thmp::query
