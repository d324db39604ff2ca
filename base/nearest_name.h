// SPDX-License-Identifier: Apache-2.0
//
// What somebody may have meant who wrote a name that does not exist. Pure; any thread.
#pragma once

#include <span>
#include <string_view>

namespace thmp {

/// The one of `names` that slips of the keyboard make `name` of: letters left out, added, exchanged
/// or swapped with their neighbour, ASCII capitals not counted. Empty when none is near enough, or
/// `name` is longer than any name.
std::string_view nearestName(std::string_view name, std::span<const std::string_view> names);

}  // namespace thmp
