// SPDX-License-Identifier: Apache-2.0
//
// What a search can be sorted by: the attributes that the plug-in has fetched, and short names for
// the usual ones. Constant data; any thread.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "base/result.h"

namespace thmp::client {

/// The fetched attributes, in the order of their bytes.
std::span<const std::string_view> fetchedAttributes();

/// The attribute meant by `name`: "date", "from", "to", "subject", "size", or an attribute's own
/// name. An error for any other, with what may have been meant.
Result<std::string> sortingAttribute(std::string_view name);

}  // namespace thmp::client
