// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as a message file, of each format. Whatever could be read can be written as a property
// list and stays within the limits; the text is UTF-8; reading again gives the same; and a message
// that is renamed for its flags has the attributes that it has when it is read under the new name.
#include <array>
#include <cstddef>
#include <string>

#include "base/plist.h"
#include "host/store/MessageParser.h"
#include "platform/linux/utf8.h"
#include "tests/fuzz/fuzzing.h"

namespace thmp::fuzz {
namespace {

MessagePlace place(MessageFormat format, std::string fileName, std::size_t size) {
  MessagePlace place;
  place.format = format;
  place.fileName = std::move(fileName);
  place.mailboxIdentifier = "mailbox.inbox";
  place.facts.size = static_cast<std::int64_t>(size);
  place.facts.modifiedSeconds = 1'700'000'000;
  place.facts.createdSeconds = 1'700'000'000;
  return place;
}

void checkWritable(const Dictionary& dictionary) {
  const auto written = writeBinaryPropertyList(dictionary);
  THMP_FUZZ_CHECK(written.has_value());
  THMP_FUZZ_CHECK(readBinaryPropertyList(*written, kBatchLimits).has_value());
}

bool same(const Dictionary& a, const Dictionary& b) { return Value::identical(Value(a), Value(b)); }

void checkRenaming(const MessageParser& parser, std::string_view bytes, ParsedMessage message,
                   std::size_t flags) {
  static constexpr std::array<const char*, 4> kNames{"1700000000.M1.host:2,S", "1700000000.M1.host",
                                                     "1700000000.M1.host:2,FRST,a=1", "x:2,D"};
  MessagePlace renamed =
      place(MessageFormat::kMaildir, kNames[flags % kNames.size()], bytes.size());
  renamed.isNew = flags % 5 == 4;
  if (flags % 2 == 1) renamed.mailboxIdentifier = "mailbox.sent";
  const ParsedMessage read = parser.parse(bytes, renamed);
  renameMessage(renamed, message.attributes, message.queryOnly);
  THMP_FUZZ_CHECK(same(message.attributes, read.attributes));
  THMP_FUZZ_CHECK(same(message.queryOnly, read.queryOnly));
  THMP_FUZZ_CHECK(message.textContent == read.textContent);
}

// The first byte says which format.
MessagePlace placeOf(std::string_view bytes) {
  static constexpr std::array<const char*, 3> kNames{"1700000000.M1.host:2,FS", "message.eml",
                                                     "7.emlx"};
  const std::size_t format = static_cast<unsigned char>(bytes.front()) % kNames.size();
  return place(static_cast<MessageFormat>(format), kNames[format], bytes.size() - 1);
}

void parseOnce(std::string_view bytes) {
  if (!bytes.empty()) MessageParser().parse(bytes.substr(1), placeOf(bytes));
}

}  // namespace

const Bounds kBounds{1, 64 * kMiB, parseOnce};

void runInput(std::string_view bytes) {
  if (bytes.empty()) return;
  const MessageParser parser;
  const MessagePlace where = placeOf(bytes);
  const auto choice = static_cast<unsigned char>(bytes.front());
  bytes.remove_prefix(1);
  const ParsedMessage message = parser.parse(bytes, where);

  checkWritable(message.attributes);
  checkWritable(message.queryOnly);
  THMP_FUZZ_CHECK(message.textContent.size() <= parser.limits().textBytes);
  THMP_FUZZ_CHECK(isUtf8(message.textContent));
  if (where.format == MessageFormat::kMaildir) {
    checkRenaming(parser, bytes, message, choice / 3);
  }
}

}  // namespace thmp::fuzz
