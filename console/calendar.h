// SPDX-License-Identifier: Apache-2.0
//
// Dates as people read them: in the local time zone. Any thread.
#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "base/date.h"

namespace thmp::console {

/// Empty for dates so far off that their calendar is nobody's concern.
std::optional<std::tm> localCalendar(Date date);

enum class Precision { kDays, kMinutes, kSeconds };

/// `2026-05-31`, `2026-05-31 10:00` or `2026-05-31 10:00:00`; empty where there is no calendar.
std::string localTime(Date date, Precision precision);

}  // namespace thmp::console
