// SPDX-License-Identifier: Apache-2.0
//
// Cuts a message down to what a MIME parser can be given without harm. The parser builds an object
// for everything it meets and follows the nesting of addresses and comments on its stack, so header
// blocks, lists in them, the number of parts and their depth are bounded beforehand, and of the
// fields it only sees those that say what a part is. One pass over the lines. Any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/store/MessageParser.h"

namespace thmp {

struct LimitedMessage {
  /// The message's own header fields, a line end behind each.
  std::string headers;
  /// For the MIME parser: of the fields, in the message and in its parts, only type, disposition
  /// and encoding of the content.
  std::string mime;
  /// What was cut, in words.
  std::vector<std::string> reasons;
};

/// Lines of a header block that are no field are left out, NULs in fields become spaces.
LimitedMessage limitMessage(std::string_view bytes, const ParseLimits& limits);

}  // namespace thmp
