// SPDX-License-Identifier: Apache-2.0
//
// A point in time as property lists keep it: seconds since 2001-01-01T00:00:00Z.
#pragma once

#include <compare>
#include <optional>
#include <string>
#include <string_view>

namespace thmp {

/// Seconds from 1970-01-01 to 2001-01-01, both UTC.
inline constexpr double kReferenceDateInUnixSeconds = 978307200.0;

struct Date {
  double secondsSinceReference = 0;

  static constexpr Date fromUnixSeconds(double seconds) {
    return Date{seconds - kReferenceDateInUnixSeconds};
  }
  constexpr double unixSeconds() const {
    return secondsSinceReference + kReferenceDateInUnixSeconds;
  }

  /// `YYYY-MM-DDTHH:MM:SSZ` in UTC, fractions cut. Dates outside the years 1 to 9999, and NaN, give
  /// the nearest date inside.
  std::string iso8601() const;

  /// The inverse of iso8601(), and no other form. Used by XML property lists.
  static std::optional<Date> fromIso8601(std::string_view text);

  friend auto operator<=>(const Date&, const Date&) = default;
};

}  // namespace thmp
