// SPDX-License-Identifier: Apache-2.0
//
// What a query asks of a message, in words, for people who wonder why it finds nothing. Any thread.
#pragma once

#include <string>
#include <vector>

#include "host/query/query.h"
#include "host/query/query_options.h"

namespace thmp::query {

/// Each attribute name as it was written, a line each: what it stands for, of which type it is and
/// what it means; for a name that no message has, the name that is nearest.
std::string explainAttributes(const Query& query);

/// Each comparison, and under it what it asks for: the text as it is compared, the time that a
/// $time expression stands for in local time, or why it can never be true. `options` are those that
/// the query was parsed with.
std::string explainPredicates(const Query& query, const QueryOptions& options);

/// Why parts of the query find nothing whatever the mail, a line each without a full stop: unknown
/// attributes, and values that the attribute never has. Empty when there is nothing to say.
std::vector<std::string> doubts(const Query& query);

}  // namespace thmp::query
