// SPDX-License-Identifier: Apache-2.0
//
// The readable text of an HTML body. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace thmp {

/// `html`, UTF-8, with its tags, comments, scripts and styles taken out and its entities decoded.
/// A tag that ends a line or a cell leaves a space; one inside a word leaves nothing.
std::string textOfHtml(std::string_view html);

}  // namespace thmp
