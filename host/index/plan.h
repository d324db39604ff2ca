// SPDX-License-Identifier: Apache-2.0
//
// From a query to the messages that can match it, without looking at the messages themselves: each
// predicate is answered from the columns or the table of words, and the sets are put together as
// the query says. Where that cannot tell for sure, the set holds too many rather than too few, and
// says so; whoever asks then looks at each of them with the evaluator.
#pragma once

#include <string>

#include "host/index/Columns.h"
#include "host/index/RowSet.h"
#include "host/index/ValuePool.h"
#include "host/query/query.h"
#include "host/store/sqlite_connection.h"

namespace thmp {

struct Candidates {
  /// Every message that matches is among them, and none that is hidden or gone.
  RowSet rows;
  /// Those of `rows` that have to be looked at.
  RowSet doubtful;
  /// Of the table of words, when a part could not be read from it; an SQLite code.
  int failure = 0;
};

/// What the answer is worked out from. `reader` knows the table of words.
struct PlanInput {
  const Columns& columns;
  const ValuePool& pool;
  Connection& reader;
};

/// On the thread that has `reader`; nobody changes the columns meanwhile. A part that cannot be
/// read from the table of words leaves all messages in doubt.
Candidates findCandidates(const query::Query& query, const PlanInput& input);

/// How each predicate is answered, in words; one a line. Any thread.
std::string describePlan(const query::Query& query);

}  // namespace thmp
