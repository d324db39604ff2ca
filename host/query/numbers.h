// SPDX-License-Identifier: Apache-2.0
//
// Numbers as queries write and compare them. Pure functions; any thread.
#pragma once

#include <compare>
#include <optional>
#include <string_view>

#include "base/value.h"

namespace thmp::query {

/// The number that all of `text` is: `[+-]digits[.digits][e[+-]digits]`. One without fraction and
/// exponent is an integer where 64 bits hold it, all others are reals; too large a number is
/// infinite. Empty for every other text.
std::optional<Value> readNumber(std::string_view text);

/// Integers exactly, all other pairs as reals. Booleans count as 0 and 1. Unordered when one is no
/// number.
std::partial_ordering compareNumbers(const Value& a, const Value& b);

}  // namespace thmp::query
