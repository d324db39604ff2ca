// SPDX-License-Identifier: Apache-2.0
//
// The list of attributes in the manual page of the query language, made from the attribute table.
#pragma once

#include <string>
#include <string_view>

namespace thmp {

/// `page`, in scdoc, with the line that marks the list's place replaced by the list. Empty when it
/// has no such line.
std::string withAttributeList(std::string_view page);

}  // namespace thmp
