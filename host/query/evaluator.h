// SPDX-License-Identifier: Apache-2.0
//
// Answers a query for one message by looking at its attributes one by one. It defines what a query
// means; whatever answers faster must agree with it.
#pragma once

#include "host/query/message_view.h"
#include "host/query/query.h"

namespace thmp::query {

/// Whether the message matches. Any thread; many threads may ask about one query at the same time.
/// Asks for no more attributes than it takes to know.
bool matches(const Query& query, const MessageView& message);

}  // namespace thmp::query
