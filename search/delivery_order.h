// SPDX-License-Identifier: Apache-2.0
//
// The order of the items of one delivery.
//
// Values of all kinds have one total order: absent < number or boolean < date < text < array <
// anything else. Within a kind: numbers by value and dates by time, NaN last; texts by code point
// after canonical composition; arrays element by element, the shorter first; all else is equal.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/spotlight.h"

namespace thmp {

/// The attributes that a delivery is sorted by when a client asks for `sortingAttribute`: that one,
/// then those that order the items in which it is equal.
std::vector<std::string> sortAttributes(std::string_view sortingAttribute);

/// `items` sorted by `attributes`, the earlier ones first. Descending reverses the whole
/// comparison. Equal items, and all of them without attributes, keep their order. The pointers are
/// into `items`. Attribute names are taken whole: a dot is a character like any other.
std::vector<const SpotlightItem*> sortedItems(std::span<const SpotlightItem> items,
                                              const std::vector<std::string>& attributes,
                                              bool ascending);

}  // namespace thmp
