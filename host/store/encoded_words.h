// SPDX-License-Identifier: Apache-2.0
//
// Encoded words in header text (RFC 2047). Neighbouring words of one charset are decoded as one, as
// mail programs cut characters in two, each with its own padding. REQUIRES: a GMimeUse of the
// calling thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace thmp {

/// `text`, UTF-8 in one line, with its encoded words decoded; white space between two is dropped.
/// What is no well-formed word stays.
std::string decodeEncodedWords(std::string_view text);

/// Stand-ins for encoded words while a parser looks at the structure around them.
class EncodedWordMask {
 public:
  /// Replaces each run of encoded words by one character that means nothing to a parser.
  explicit EncodedWordMask(std::string_view text);
  const std::string& masked() const { return masked_; }
  /// Puts the decoded words back into a piece of the masked text.
  std::string unmask(std::string_view piece) const;

 private:
  std::string masked_;
  std::vector<std::string> decoded_;
};

/// Whether text in that charset can be converted.
bool isCharset(const std::string& charset);

/// `bytes` as UTF-8, U+FFFD for what the charset does not have; as UTF-8 or Windows-1252 when the
/// charset is not known.
std::string convertToUtf8(std::string_view bytes, const std::string& charset);

}  // namespace thmp
