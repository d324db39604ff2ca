// SPDX-License-Identifier: Apache-2.0
//
// Values as JSON, written without a tree in between: a search prints tens of attributes for each
// message that it finds. Any thread.
#pragma once

#include <fmt/format.h>

#include <string_view>

#include "base/value.h"

namespace thmp::console {

/// Appends `value` as JSON on one line: dates in ISO 8601 and UTC, data in base64, what is no UTF-8
/// as U+FFFD. REQUIRES: a value of bounded depth, as the property-list reader gives it.
void appendJson(const Value& value, fmt::memory_buffer& json);

/// Appends `text` as a JSON text, in its quotes.
void appendJsonText(std::string_view text, fmt::memory_buffer& json);

}  // namespace thmp::console
