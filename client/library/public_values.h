// SPDX-License-Identifier: Apache-2.0
//
// What a batch holds, as the public header has it. Pure functions; any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "base/value.h"
#include "client/library/tallyhive/client.h"

namespace thmp::client {

/// What is neither of the kinds that an attribute can have is left out.
tallyhive::Message publicMessage(const Dictionary& item);

std::vector<tallyhive::Message> publicMessages(const Value& resultsBatch);
std::vector<std::uint64_t> publicRemovals(const Value& removalBatch);

}  // namespace thmp::client
