// SPDX-License-Identifier: Apache-2.0
//
// Times in a query: the $time expressions and ISO 8601 text, both worked out once, when the query
// is parsed. Pure functions; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/date.h"
#include "host/query/query_options.h"

namespace thmp::query {

/// An instant, or a period that includes its begin and not its end.
struct TimeSpan {
  Date begin;
  Date end;  // equal to `begin` for an instant
  bool isPeriod = false;

  bool contains(double secondsSinceReference) const {
    return isPeriod ? begin.secondsSinceReference <= secondsSinceReference &&
                          secondsSinceReference < end.secondsSinceReference
                    : secondsSinceReference == begin.secondsSinceReference;
  }
};

/// The instant of `YYYY-MM-DD`, or that with `THH:MM`, `THH:MM:SS` or `THH:MM:SS.f` and then
/// nothing, `Z`, `+HH`, `+HHMM` or `+HH:MM` (or `-`). Without a zone it is local time, without a
/// time midnight. Empty for other texts, for days and times that no calendar has, and outside the
/// years 1 to 9999.
std::optional<TimeSpan> readIsoTime(std::string_view text, const QueryOptions& options);

/// What `$time.NAME(OFFSET)` denotes; `offset` is empty without parentheses or with nothing in
/// them. Null with one line in `*problem` when there is no such name, the name takes no such
/// offset, or the result lies outside the years 1 to 9999.
std::optional<TimeSpan> evaluateTime(std::string_view name, std::string_view offset,
                                     const QueryOptions& options, std::string* problem);

/// The names that evaluateTime() knows, for messages and help.
std::string_view timeNames();

}  // namespace thmp::query
