// SPDX-License-Identifier: Apache-2.0
//
// The clock and calendar that queries of this host go by: now, and the user's time zone. Any
// thread.
#pragma once

#include "host/query/query_options.h"

namespace thmp {

query::QueryOptions queryOptionsNow();

}  // namespace thmp
