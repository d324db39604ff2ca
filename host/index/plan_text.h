// SPDX-License-Identifier: Apache-2.0
//
// How the index answers a query, in words. Any thread.
#pragma once

#include <string>

#include "host/query/query.h"

namespace thmp {

/// One step a line.
std::string describePlan(const query::Query& query);

}  // namespace thmp
