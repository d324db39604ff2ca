// SPDX-License-Identifier: Apache-2.0
//
// The text and the attachments of a message, from its MIME structure. REQUIRES: a GMimeUse of the
// calling thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/store/MessageParser.h"

namespace thmp {

struct Attachment {
  std::string name;
  /// Uniform type, such as "public.jpeg".
  std::string_view type;
  /// Such as "image".
  std::string_view kind;
};

struct MessageBody {
  std::string text;
  std::vector<Attachment> attachments;
};

/// Reads the message in `bytes`, which limitMessage() has been over. What was left out is added to
/// `reasons`.
MessageBody readBody(std::string_view bytes, const ParseLimits& limits,
                     std::vector<std::string>& reasons);

}  // namespace thmp
