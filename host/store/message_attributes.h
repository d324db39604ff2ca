// SPDX-License-Identifier: Apache-2.0
//
// Puts the attributes of one message together: those of its header fields, of its file, and of the
// flags that its place or its mail program gives it. REQUIRES: a GMimeUse of the calling thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/value.h"
#include "host/store/MessageParser.h"
#include "host/store/attribute_keys.h"
#include "host/store/header_text.h"
#include "host/store/message_body.h"

namespace thmp {

/// What the mail program wrote behind an .emlx message. Dates in Unix seconds.
struct EmlxTrailer {
  std::optional<std::int64_t> received;
  std::optional<std::int64_t> lastViewed;
  std::optional<std::uint64_t> flags;
};

/// The flags of a message; empty where its format does not say.
struct MessageFlags {
  std::optional<bool> read;
  std::optional<bool> flagged;
  std::optional<bool> repliedTo;
  bool draft = false;
  bool trashed = false;
  bool junk = false;
};

/// Attributes as they are gathered; empty texts and arrays are left out.
class AttributeSet {
 public:
  void set(AttributeKey key, Value value);
  void setText(AttributeKey key, std::string_view text);
  void setTexts(AttributeKey key, const std::vector<std::string>& texts);
  Dictionary take() { return Dictionary(std::move(entries_)); }

 private:
  std::vector<Dictionary::Entry> entries_;
};

/// The link that opens the message with that Message-ID, which has no angle brackets.
std::string messageUrl(std::string_view messageID);
/// The same in the room that `url` has.
void setMessageUrl(std::string_view messageID, std::string& url);

MessageFlags maildirFlags(std::string_view fileName, bool isNew);

/// Names, flags and mailboxes: what a rename can change.
void setPlaceAttributes(const MessagePlace& place, const MessageFlags& flags,
                        AttributeSet& attributes, AttributeSet& queryOnly);

/// All attributes; `trailer` of an .emlx message only.
void setMessageAttributes(const std::vector<RawHeader>& headers, const MessagePlace& place,
                          const EmlxTrailer& trailer, const std::vector<Attachment>& attachments,
                          AttributeSet& attributes, AttributeSet& queryOnly);

}  // namespace thmp
