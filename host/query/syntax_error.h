// SPDX-License-Identifier: Apache-2.0
//
// Why a text is no query, and where. A value; any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace thmp::query {

struct SyntaxError {
  /// The byte of the text at which the message points; the text's size when it points at its end.
  std::size_t offset = 0;
  /// One line without a full stop, as "expected a value".
  std::string message;
  /// What to write instead, in the same form; empty when there is nothing to say.
  std::string hint;
};

/// Two lines to print one below the other: the part of `text` around the error's place, at most
/// some 70 columns of one line with control characters as spaces, and a caret under the place.
std::string pointOut(std::string_view text, const SyntaxError& error);

/// `source` in quotes for a message: cut when long, control characters and ill-formed bytes as
/// U+FFFD.
std::string inQuotes(std::string_view source);

}  // namespace thmp::query
