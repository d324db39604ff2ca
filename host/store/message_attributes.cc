// SPDX-License-Identifier: Apache-2.0
#include "host/store/message_attributes.h"

#include <array>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "base/date.h"
#include "host/store/MailFolders.h"

namespace thmp {

namespace {

using Key = AttributeKey;

std::string lowerAscii(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

Value dateValue(std::int64_t unixSeconds) {
  return Value(Date::fromUnixSeconds(static_cast<double>(unixSeconds)));
}

std::string trimmed(std::string_view text) { return collapseWhiteSpace(text); }

// Cut at commas; those inside double quotes only if `quotesCount` is false.
std::vector<std::string> cutAtCommas(std::string_view text, bool quotesCount) {
  std::vector<std::string> pieces;
  std::string piece;
  bool quoted = false;
  const auto end = [&] {
    std::string whole = trimmed(piece);
    if (!whole.empty()) pieces.push_back(std::move(whole));
    piece.clear();
  };
  for (const char c : text) {
    if (quotesCount && c == '"') {
      quoted = !quoted;
    } else if (c == ',' && !quoted) {
      end();
    } else {
      piece.push_back(c);
    }
  }
  end();
  return pieces;
}

// The constant values, made once and shared by all messages.
struct Constants {
  Value bundle{"com.apple.mail"};
  Value contentType{"public.email-message"};
  Value kind{"Mail Message"};
  Value maildirTree = tree("com.apple.mail.email");
  Value emlxTree = tree("com.apple.mail.emlx");

  static Value tree(std::string_view first) {
    return Value(Array{Value(first), Value("public.data"), Value("public.item"),
                       Value("public.email-message"), Value("public.message")});
  }
};

const Constants& constants() {
  static const Constants& all = *new Constants;
  return all;
}

class Fields {
 public:
  explicit Fields(const std::vector<RawHeader>& headers) : headers_(headers) {}

  /// The first field of that name; empty when there is none.
  std::string text(std::string_view name) const {
    for (const RawHeader& header : headers_) {
      if (equalsIgnoringCase(header.name, name)) return decodeHeaderText(header.value);
    }
    return {};
  }

  std::vector<MailAddress> addresses(std::string_view name) const {
    std::vector<MailAddress> all;
    for (const RawHeader& header : headers_) {
      if (!equalsIgnoringCase(header.name, name)) continue;
      for (MailAddress& entry : parseAddresses(header.value)) all.push_back(std::move(entry));
    }
    return all;
  }

  std::vector<std::string> texts(std::string_view name) const {
    std::vector<std::string> all;
    for (const RawHeader& header : headers_) {
      if (equalsIgnoringCase(header.name, name)) all.push_back(decodeHeaderText(header.value));
    }
    return all;
  }

  /// Of the topmost Received field whose date parses.
  std::optional<std::int64_t> received() const {
    for (const RawHeader& header : headers_) {
      if (!equalsIgnoringCase(header.name, "Received")) continue;
      const std::size_t semicolon = header.value.rfind(';');
      if (semicolon == std::string_view::npos) continue;
      const auto date = parseMailDate(header.value.substr(semicolon + 1));
      if (date) return date;
    }
    return std::nullopt;
  }

  Value dictionary() const {
    struct Field {
      std::string_view name;
      std::vector<Value> values;
    };
    std::vector<Field> fields;
    std::unordered_map<std::string, std::size_t> places;
    for (const RawHeader& header : headers_) {
      const std::string value = decodeHeaderText(header.value);
      if (value.empty()) continue;
      const auto [place, isNew] = places.try_emplace(lowerAscii(header.name), fields.size());
      if (isNew) fields.push_back({header.name, {}});
      fields[place->second].values.emplace_back(value);
    }
    std::vector<Dictionary::Entry> entries;
    entries.reserve(fields.size());
    for (Field& field : fields) {
      entries.push_back({Text(field.name), Value(Array(std::move(field.values)))});
    }
    return entries.empty() ? Value() : Value(Dictionary(std::move(entries)));
  }

 private:
  const std::vector<RawHeader>& headers_;
};

Value namesOf(const std::vector<MailAddress>& people) {
  std::vector<Value> names;
  names.reserve(people.size());
  for (const MailAddress& person : people) names.emplace_back(person.name);
  return names.empty() ? Value() : Value(Array(std::move(names)));
}

Value addressesOf(const std::vector<MailAddress>& people) {
  std::vector<Value> addresses;
  addresses.reserve(people.size());
  for (const MailAddress& person : people) addresses.emplace_back(person.address);
  return addresses.empty() ? Value() : Value(Array(std::move(addresses)));
}

void setPeople(const Fields& fields, AttributeSet& out, AttributeSet& queryOnly) {
  std::vector<MailAddress> authors = fields.addresses("From");
  if (authors.empty()) authors = fields.addresses("Sender");
  const std::vector<MailAddress> to = fields.addresses("To");
  const std::vector<MailAddress> cc = fields.addresses("Cc");
  const std::vector<MailAddress> bcc = fields.addresses("Bcc");
  std::vector<MailAddress> recipients = to;
  recipients.insert(recipients.end(), cc.begin(), cc.end());
  recipients.insert(recipients.end(), bcc.begin(), bcc.end());

  const Value authorAddresses = addressesOf(authors);
  out.set(Key::kAuthors, namesOf(authors));
  out.set(Key::kAuthorEmailAddresses, authorAddresses);
  out.set(Key::kAuthorAddresses, authorAddresses);
  // Most messages have no others; then the same objects serve twice.
  const bool isToAll = cc.empty() && bcc.empty();
  const Value toNames = namesOf(to);
  const Value toAddresses = addressesOf(to);
  const Value recipientAddresses = isToAll ? toAddresses : addressesOf(recipients);
  out.set(Key::kRecipients, isToAll ? toNames : namesOf(recipients));
  out.set(Key::kRecipientEmailAddresses, recipientAddresses);
  out.set(Key::kRecipientAddresses, recipientAddresses);
  out.set(Key::kPrimaryRecipients, toNames);
  out.set(Key::kPrimaryRecipientEmailAddresses, toAddresses);
  out.set(Key::kAdditionalRecipients, namesOf(cc));
  out.set(Key::kHiddenAdditionalRecipients, namesOf(bcc));
  queryOnly.set(Key::kAdditionalRecipientEmailAddresses, addressesOf(cc));
  queryOnly.set(Key::kHiddenAdditionalRecipientEmailAddresses, addressesOf(bcc));

  std::vector<Value> everyone;
  std::unordered_set<std::string> seen;
  for (const auto* people : {&authors, &recipients}) {
    for (const MailAddress& person : *people) {
      if (seen.insert(lowerAscii(person.address)).second) everyone.emplace_back(person.address);
    }
  }
  if (!everyone.empty()) out.set(Key::kEmailAddresses, Value(Array(std::move(everyone))));
}

constexpr std::array<bool, 256> kPlainInUrl = [] {
  std::array<bool, 256> plain{};
  for (const char c : std::string_view("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                       "0123456789-._~")) {
    plain[static_cast<unsigned char>(c)] = true;
  }
  return plain;
}();

void setIdentity(const Fields& fields, AttributeSet& out) {
  const std::string field = fields.text("Message-ID");
  const std::size_t opens = field.find('<');
  const std::size_t closes = field.find('>', opens == std::string::npos ? 0 : opens);
  if (opens == std::string::npos || closes == std::string::npos || closes == opens + 1) return;
  const std::string id = field.substr(opens + 1, closes - opens - 1);
  out.setText(Key::kIdentifier, "<" + id + ">");
  out.setText(Key::kMessageID, id);
  out.setText(Key::kURL, messageUrl(id));
}

std::int64_t priorityOf(const Fields& fields) {
  const std::string xPriority = fields.text("X-Priority");
  if (!xPriority.empty() && xPriority[0] >= '1' && xPriority[0] <= '5') return xPriority[0] - '0';
  const std::string importance = lowerAscii(fields.text("Importance"));
  if (importance == "high") return 1;
  if (importance == "normal") return 3;
  if (importance == "low") return 5;
  const std::string priority = lowerAscii(fields.text("Priority"));
  if (priority == "urgent") return 1;
  if (priority == "non-urgent") return 5;
  return 3;
}

void setSubjectAndState(const Fields& fields, const MessagePlace& place, const MessageFlags& flags,
                        AttributeSet& out, AttributeSet& queryOnly) {
  const std::string subject = fields.text("Subject");
  if (!subject.empty()) {
    const Value shared(subject);
    out.set(Key::kSubject, shared);
    out.set(Key::kDisplayName, shared);
    queryOnly.set(Key::kTitle, shared);
  }
  out.setText(Key::kComment, fields.text("Comments"));
  out.setTexts(Key::kKeywords, cutAtCommas(fields.text("Keywords"), /*quotesCount=*/false));
  out.setTexts(Key::kAccountHandles, fields.texts("Delivered-To"));
  out.set(Key::kPriority, Value(priorityOf(fields)));
  out.setTexts(Key::kGmailLabels, cutAtCommas(fields.text("X-Gmail-Labels"), /*quotesCount=*/true));
  const bool junkFolder = place.mailboxIdentifier == "mailbox.junk";
  const bool junkHeaders = equalsIgnoringCase(fields.text("X-Spam-Flag"), "YES") ||
                           startsIgnoringCase(fields.text("X-Spam-Status"), "Yes");
  out.set(Key::kIsLikelyJunk, Value(junkFolder || junkHeaders || flags.junk));
  out.set(Key::kEmailHeadersDictionary, fields.dictionary());
}

void setDates(const Fields& fields, const MessagePlace& place, const EmlxTrailer& trailer,
              AttributeSet& out) {
  const FileFacts& facts = place.facts;
  const std::int64_t delivered =
      place.format == MessageFormat::kMaildir ? deliverySecond(place.fileName) : -1;
  std::optional<std::int64_t> received = trailer.received;
  if (!received) received = fields.received();
  if (!received && delivered >= 0) received = delivered;
  const Value receivedDate = dateValue(received.value_or(facts.modifiedSeconds));
  out.set(Key::kDateReceived, receivedDate);
  out.set(Key::kMailDateReceived, receivedDate);
  out.set(Key::kInterestingDate, receivedDate);

  const auto sent = parseMailDate(fields.text("Date"));
  out.set(Key::kContentCreationDate, sent ? dateValue(*sent) : receivedDate);

  const Value modified = dateValue(facts.modifiedSeconds);
  out.set(Key::kContentModificationDate, modified);
  out.set(Key::kFSContentChangeDate, modified);
  out.set(Key::kContentChangeDate, modified);
  const Value created = dateValue(facts.createdSeconds);
  out.set(Key::kFSCreationDate, created);
  out.set(Key::kCreationDate, created);
  out.set(Key::kDateAdded, delivered >= 0 ? dateValue(delivered) : created);
  if (trailer.lastViewed) {
    const Value viewed = dateValue(*trailer.lastViewed);
    out.set(Key::kLastUsedDate, viewed);
    out.set(Key::kDateLastViewed, viewed);
  }
  out.set(Key::kModtime,
          Value(facts.modifiedSeconds - static_cast<std::int64_t>(kReferenceDateInUnixSeconds)));
}

void setAttachments(const std::vector<Attachment>& attachments, AttributeSet& out) {
  if (attachments.empty()) return;
  std::vector<Value> names;
  std::vector<Value> types;
  std::vector<Value> kinds;
  for (const Attachment& attachment : attachments) {
    names.emplace_back(attachment.name);
    types.emplace_back(attachment.type);
    kinds.emplace_back(attachment.kind);
  }
  const Value allNames{Array(std::move(names))};
  const Value allTypes{Array(std::move(types))};
  out.set(Key::kAttachmentNames, allNames);
  out.set(Key::kMailAttachmentNames, allNames);
  out.set(Key::kAttachmentTypes, allTypes);
  out.set(Key::kMailAttachmentTypes, allTypes);
  out.set(Key::kAttachmentKinds, Value(Array(std::move(kinds))));
}

void setFile(const MessagePlace& place, AttributeSet& out) {
  const FileFacts& facts = place.facts;
  const Constants& shared = constants();
  out.set(Key::kBundleID, shared.bundle);
  out.set(Key::kContentType, shared.contentType);
  out.set(Key::kContentTypeTree,
          place.format == MessageFormat::kEmlx ? shared.emlxTree : shared.maildirTree);
  out.set(Key::kKind, shared.kind);
  out.set(Key::kFileIdentifier, Value(facts.inode));
  out.set(Key::kDeviceId, Value(facts.device));
  out.set(Key::kFSSize, Value(facts.size));
  out.set(Key::kLogicalSize, Value(facts.size));
  out.set(Key::kPhysicalSize, Value(facts.blocks * 512));
  out.set(Key::kFSOwnerUserID, Value(facts.owner));
  out.set(Key::kOwnerUserID, Value(facts.owner));
  out.set(Key::kFSOwnerGroupID, Value(facts.group));
  out.set(Key::kOwnerGroupID, Value(facts.group));
  for (const Key key : {Key::kFSInvisible, Key::kFSIsExtensionHidden, Key::kIsExtensionHidden}) {
    out.set(key, Value(false));
  }
  for (const Key key : {Key::kFSFinderFlags, Key::kFinderFlags, Key::kFSLabel, Key::kFinderLabel}) {
    out.set(key, Value(0));
  }
  out.setTexts(Key::kAttachmentPaths, place.attachmentPaths);
}

// Of a loose message, as old mail programs note it in the message itself; empty without a note.
MessageFlags headerFlags(const Fields& fields) {
  const std::string status = fields.text("Status");
  const std::string xStatus = fields.text("X-Status");
  MessageFlags flags;
  if (status.empty() && xStatus.empty()) return flags;
  const std::string both = status + xStatus;
  flags.read = both.find('R') != std::string::npos;
  flags.repliedTo = both.find('A') != std::string::npos;
  flags.flagged = both.find('F') != std::string::npos;
  return flags;
}

MessageFlags emlxFlags(const EmlxTrailer& trailer) {
  MessageFlags flags;
  if (!trailer.flags) return flags;
  const auto bit = [&](unsigned number) { return ((*trailer.flags >> number) & 1U) != 0; };
  flags.read = bit(0);
  flags.trashed = bit(1);
  flags.repliedTo = bit(2);
  flags.flagged = bit(4);
  flags.draft = bit(6);
  flags.junk = bit(24);
  return flags;
}

}  // namespace

void AttributeSet::set(AttributeKey key, Value value) {
  if (!value.isNull()) entries_.push_back({keyText(key), std::move(value)});
}

void AttributeSet::setText(AttributeKey key, std::string_view text) {
  if (!text.empty()) set(key, Value(text));
}

void AttributeSet::setTexts(AttributeKey key, const std::vector<std::string>& texts) {
  std::vector<Value> values;
  for (const std::string& text : texts) {
    if (!text.empty()) values.emplace_back(text);
  }
  if (!values.empty()) set(key, Value(Array(std::move(values))));
}

void setMessageUrl(std::string_view messageID, std::string& url) {
  constexpr std::string_view kHex = "0123456789ABCDEF";
  url = "message:%3C";
  for (const char c : messageID) {
    const auto byte = static_cast<unsigned char>(c);
    if (kPlainInUrl[byte]) {
      url += c;
    } else {
      url += {'%', kHex[byte >> 4], kHex[byte & 0xF]};
    }
  }
  url += "%3E";
}

std::string messageUrl(std::string_view messageID) {
  std::string url;
  setMessageUrl(messageID, url);
  return url;
}

MessageFlags maildirFlags(std::string_view fileName, bool isNew) {
  const std::size_t info = isNew ? std::string_view::npos : fileName.rfind(":2,");
  const std::string_view letters =
      info == std::string_view::npos ? std::string_view() : fileName.substr(info + 3);
  const auto has = [&](char letter) { return letters.find(letter) != std::string_view::npos; };
  MessageFlags flags;
  flags.read = has('S');
  flags.flagged = has('F');
  flags.repliedTo = has('R');
  flags.draft = has('D');
  flags.trashed = has('T');
  return flags;
}

void setPlaceAttributes(const MessagePlace& place, const MessageFlags& flags,
                        AttributeSet& attributes, AttributeSet& queryOnly) {
  const Value name(place.fileName);
  attributes.set(Key::kDisplayNameWithExtensions, name);
  attributes.set(Key::kFSName, name);
  attributes.set(Key::kFileName, name);
  if (flags.read) attributes.set(Key::kRead, Value(*flags.read));
  if (flags.flagged) attributes.set(Key::kFlagged, Value(*flags.flagged));
  if (flags.repliedTo) attributes.set(Key::kRepliedTo, Value(*flags.repliedTo));

  std::vector<std::string> mailboxes{place.mailboxIdentifier};
  const auto add = [&](std::string_view mailbox) {
    if (mailboxes[0] != mailbox) mailboxes.emplace_back(mailbox);
  };
  if (flags.draft) add("mailbox.drafts");
  if (flags.trashed) add("mailbox.trash");
  queryOnly.setTexts(Key::kMailboxes, mailboxes);
}

void setMessageAttributes(const std::vector<RawHeader>& headers, const MessagePlace& place,
                          const EmlxTrailer& trailer, const std::vector<Attachment>& attachments,
                          AttributeSet& attributes, AttributeSet& queryOnly) {
  const Fields fields(headers);
  MessageFlags flags;
  switch (place.format) {
    case MessageFormat::kMaildir:
      flags = maildirFlags(place.fileName, place.isNew);
      break;
    case MessageFormat::kEml:
      flags = headerFlags(fields);
      break;
    case MessageFormat::kEmlx:
      flags = emlxFlags(trailer);
      break;
  }
  setFile(place, attributes);
  setPlaceAttributes(place, flags, attributes, queryOnly);
  setIdentity(fields, attributes);
  setSubjectAndState(fields, place, flags, attributes, queryOnly);
  setPeople(fields, attributes, queryOnly);
  setDates(fields, place, trailer, attributes);
  setAttachments(attachments, attributes);
}

}  // namespace thmp
