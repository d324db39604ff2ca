// SPDX-License-Identifier: Apache-2.0
//
// The tables of attributes in the reference of the query language, made from the attribute table.
#pragma once

#include <string>
#include <string_view>

namespace thmp {

/// `document` with everything between its two marks replaced by the tables; as it is when it has no
/// such marks.
std::string withAttributeReference(std::string_view document);

}  // namespace thmp
