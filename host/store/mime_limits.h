// SPDX-License-Identifier: Apache-2.0
//
// Cuts a message down to what a MIME parser can be given without harm: header blocks, the number
// of parts and their depth are bounded beforehand, in one pass over the lines, because the parser
// builds an object for everything it meets. Any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/store/MessageParser.h"

namespace thmp {

struct LimitedMessage {
  /// The message, or `storage` where something had to be taken out; valid while both live.
  std::string_view bytes;
  std::string storage;
  /// What was cut, in words.
  std::vector<std::string> reasons;
};

/// A leading mbox line is taken off, NULs in headers become spaces. Fills `out` in place, as it
/// refers to itself.
void limitMessage(std::string_view bytes, const ParseLimits& limits, LimitedMessage& out);

}  // namespace thmp
