// SPDX-License-Identifier: Apache-2.0
//
// Answers a query for one message by looking at its attributes one by one. It defines what a query
// means; whatever answers faster must agree with it.
#pragma once

#include "host/query/fold.h"
#include "host/query/message_view.h"
#include "host/query/query.h"

namespace thmp::query {

/// Whether the message matches. Any thread; many threads may ask about one query at the same time.
/// Asks for no more attributes than it takes to know.
bool matches(const Query& query, const MessageView& message);

/// The same for a part of a query.
bool matches(const Node& node, const MessageView& message);

/// Whether one value makes a comparison, range or field match true; of a comparison with != , the
/// one with == in its place. `value` is no array; `isContent` says that it is the text of the body.
/// False for other nodes. `scratch` is the caller's, for use by one thread at a time.
bool valueHolds(const Node& node, const Value& value, bool isContent, FoldedText& scratch);

}  // namespace thmp::query
