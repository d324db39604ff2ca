// SPDX-License-Identifier: Apache-2.0
//
// What a search can be sorted by: the attributes that the plug-in has fetched, and short names for
// the usual ones. Constant data; any thread.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"

namespace thmp::client {

/// The fetched attributes, in the order of their bytes.
std::span<const std::string_view> fetchedAttributes();

/// What a person may write to sort by: the short names, and those of attributes that shells take as
/// one word.
std::vector<std::string> sortingWords();

/// The attribute meant by `name`: "date", "from", "to", "subject", "size", or an attribute's own
/// name. An error for any other, with what may have been meant.
Result<std::string> sortingAttribute(std::string_view name);

}  // namespace thmp::client
