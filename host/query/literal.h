// SPDX-License-Identifier: Apache-2.0
//
// From a token to a literal in all its readings. Pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

#include "host/query/lexer.h"
#include "host/query/query.h"
#include "host/query/query_options.h"

namespace thmp::query {

/// The literal of a string or word token, with the modifiers that apply to it. `forText` says that
/// it will be compared for equality, so that its pattern is needed.
Literal makeLiteral(const Token& token, Modifiers modifiers, bool forText,
                    const QueryOptions& options);

/// The literal of a $time expression that stands as `source` in the text.
Literal makeTimeLiteral(std::string_view source, const TimeSpan& time);

/// What a string or word says once its escapes are taken away. Wildcards stand for themselves.
std::string unescaped(std::string_view content);

}  // namespace thmp::query
