// SPDX-License-Identifier: Apache-2.0
#include "host/query/attributes.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace thmp::query {

namespace {

using Type = AttributeType;

constexpr AttributeInfo fetched(std::string_view name, Type type, std::string_view meaning,
                                std::string_view example) {
  return {name, type, AttributeUse::kFetched, AttributeSource::kMessage, meaning, example};
}

constexpr AttributeInfo absent(std::string_view name, Type type, std::string_view meaning,
                               std::string_view example) {
  return {name, type, AttributeUse::kFetched, AttributeSource::kNone, meaning, example};
}

constexpr AttributeInfo queryOnly(std::string_view name, Type type, std::string_view meaning,
                                  std::string_view example) {
  return {name, type, AttributeUse::kQueryOnly, AttributeSource::kMessage, meaning, example};
}

constexpr std::array kAttributes{
    // identity and place
    fetched("_kMDItemExternalID", Type::kString,
            "row id of the message in the mail library, decimal", "_kMDItemExternalID == \"4711\""),
    fetched("kMDItemIdentifier", Type::kString, "Message-ID, with angle brackets",
            "kMDItemIdentifier == \"<k7@example.org>\""),
    fetched("com_apple_mail_messageID", Type::kString, "Message-ID, without angle brackets",
            "com_apple_mail_messageID == \"*@example.org\""),
    fetched("kMDItemURL", Type::kString, "link that opens the message",
            "kMDItemURL == \"message:*\""),
    absent("kMDItemRelatedUniqueIdentifier", Type::kString, "identifier of a related item",
           "kMDItemRelatedUniqueIdentifier != \"*\""),
    fetched("_kMDItemBundleID", Type::kString, "program that owns the item",
            "_kMDItemBundleID == \"com.apple.mail\""),
    absent("kMDItemDocumentIdentifier", Type::kNumber, "document id of the file system",
           "kMDItemDocumentIdentifier != \"*\""),
    fetched("kMDItemFileIdentifier", Type::kNumber, "file id", "kMDItemFileIdentifier == 1048577"),
    fetched(":MD:DeviceId", Type::kNumber, "device of the file", ":MD:DeviceId > 0"),
    fetched("kMDItemPath", Type::kString, "absolute path of the file",
            "kMDItemPath == \"*/Archive/*\""),
    fetched(":MD:kMDItemPath", Type::kString, "the same path in the name space of the index",
            ":MD:kMDItemPath == \"*/Archive/*\""),
    // type
    fetched("kMDItemContentType", Type::kString, "always public.email-message",
            "kMDItemContentType == \"public.email-message\""),
    fetched("kMDItemContentTypeTree", Type::kStrings, "the type and its ancestors",
            "kMDItemContentTypeTree == \"public.message\""),
    fetched("kMDItemKind", Type::kString, "kind shown to users",
            "kMDItemKind == \"mail message\"c"),
    absent("_kMDItemFromImporter", Type::kBoolean, "made by a file importer",
           "_kMDItemFromImporter != 1"),
    absent("_kMDItemIsFromImporter", Type::kBoolean, "made by a file importer",
           "_kMDItemIsFromImporter != 1"),
    // subject and headers
    fetched("kMDItemSubject", Type::kString, "subject", "kMDItemSubject == \"invoice*\"cdw"),
    fetched("kMDItemDisplayName", Type::kString, "name to show: the subject",
            "kMDItemDisplayName == \"re: *\"cd"),
    fetched("_kMDItemDisplayNameWithExtensions", Type::kString, "display name of the file",
            "_kMDItemDisplayNameWithExtensions == \"*.eml\""),
    fetched("kMDItemComment", Type::kString, "comment, from the header Comments",
            "kMDItemComment == \"urgent\"cw"),
    fetched("kMDItemKeywords", Type::kStrings, "keywords, from the header Keywords",
            "kMDItemKeywords == \"travel\"cd"),
    absent("kMDItemProjects", Type::kStrings, "projects that the item belongs to",
           "kMDItemProjects == \"*\""),
    absent("kMDItemWhereFroms", Type::kStrings, "where a file was fetched from",
           "kMDItemWhereFroms == \"*\""),
    fetched("kMDItemEmailHeadersDictionary", Type::kDictionary,
            "all headers: name to array of values", "kMDItemEmailHeadersDictionary == \"*\""),
    // people and accounts
    fetched("kMDItemAuthors", Type::kStrings, "names of the authors",
            "kMDItemAuthors == \"ada lovelace\"cd"),
    fetched("kMDItemAuthorEmailAddresses", Type::kStrings, "e-mail addresses of the authors",
            "kMDItemAuthorEmailAddresses == \"*@example.org\"c"),
    fetched("kMDItemAuthorAddresses", Type::kStrings, "addresses of any kind of the authors",
            "kMDItemAuthorAddresses == \"ada@example.org\"c"),
    absent("kMDItemAuthorPersons", Type::kDatas, "archived person objects of the authors",
           "kMDItemAuthorPersons == \"*\""),
    fetched("kMDItemRecipients", Type::kStrings, "names of all recipients",
            "kMDItemRecipients == \"ada*\"cdw"),
    fetched("kMDItemRecipientEmailAddresses", Type::kStrings, "e-mail addresses of all recipients",
            "kMDItemRecipientEmailAddresses == \"ada@example.org\"c"),
    fetched("kMDItemRecipientAddresses", Type::kStrings, "addresses of any kind of all recipients",
            "kMDItemRecipientAddresses == \"ada@example.org\"c"),
    fetched("kMDItemPrimaryRecipients", Type::kStrings, "names in To",
            "kMDItemPrimaryRecipients == \"ada lovelace\"cd"),
    fetched("kMDItemPrimaryRecipientEmailAddresses", Type::kStrings, "e-mail addresses in To",
            "kMDItemPrimaryRecipientEmailAddresses == \"ada@example.org\"c"),
    absent("kMDItemPrimaryRecipientPersons", Type::kDatas, "archived person objects of To",
           "kMDItemPrimaryRecipientPersons == \"*\""),
    fetched("kMDItemAdditionalRecipients", Type::kStrings, "names in Cc",
            "kMDItemAdditionalRecipients == \"ada lovelace\"cd"),
    absent("kMDItemAdditionalRecipientPersons", Type::kDatas, "archived person objects of Cc",
           "kMDItemAdditionalRecipientPersons == \"*\""),
    fetched("kMDItemHiddenAdditionalRecipients", Type::kStrings, "names in Bcc",
            "kMDItemHiddenAdditionalRecipients == \"*\""),
    absent("kMDItemHiddenAdditionalRecipientPersons", Type::kDatas,
           "archived person objects of Bcc", "kMDItemHiddenAdditionalRecipientPersons == \"*\""),
    fetched("kMDItemEmailAddresses", Type::kStrings, "every e-mail address of the message",
            "kMDItemEmailAddresses == \"ada@example.org\"c"),
    fetched("kMDItemAccountHandles", Type::kStrings, "addresses of the owning account",
            "kMDItemAccountHandles == \"me@example.org\"c"),
    fetched("kMDItemAccountIdentifier", Type::kString, "id of the owning account",
            "kMDItemAccountIdentifier == \"work\""),
    fetched("kMDItemAccountType", Type::kString, "kind of the owning account",
            "kMDItemAccountType == \"imap\"c"),
    // dates
    fetched("com_apple_mail_dateReceived", Type::kDate, "when the message was delivered",
            "com_apple_mail_dateReceived >= $time.today(-7)"),
    fetched("kMDItemMailDateReceived", Type::kDate, "when the message was delivered",
            "kMDItemMailDateReceived == $time.yesterday"),
    fetched("kMDItemInterestingDate", Type::kDate, "date to rank by: delivery",
            "kMDItemInterestingDate >= $time.this_month(-1)"),
    fetched("kMDItemContentCreationDate", Type::kDate, "when the message was sent",
            "InRange(kMDItemContentCreationDate, $time.this_year(-1), $time.this_year)"),
    fetched("kMDItemContentModificationDate", Type::kDate, "when the content changed",
            "kMDItemContentModificationDate > $time.iso(2024-02-29T12:00:00Z)"),
    fetched("kMDItemFSContentChangeDate", Type::kDate, "when the file content changed",
            "kMDItemFSContentChangeDate == $time.this_week"),
    fetched("_kMDItemContentChangeDate", Type::kDate, "when the file content changed",
            "_kMDItemContentChangeDate == $time.this_week"),
    fetched("kMDItemFSCreationDate", Type::kDate, "when the file was made",
            "kMDItemFSCreationDate < $time.now(-3600)"),
    fetched("_kMDItemCreationDate", Type::kDate, "when the file was made",
            "_kMDItemCreationDate < $time.now(-3600)"),
    fetched("kMDItemDateAdded", Type::kDate, "when the message was put into its folder",
            "kMDItemDateAdded == $time.today"),
    fetched("kMDItemLastUsedDate", Type::kDate, "when the message was last opened",
            "kMDItemLastUsedDate >= $time.today(-30d)"),
    fetched("com_apple_mail_dateLastViewed", Type::kDate, "when the message was last viewed",
            "com_apple_mail_dateLastViewed != \"*\""),
    fetched("com_apple_metadata_modtime", Type::kNumber,
            "when the record changed, in seconds since 2001",
            "com_apple_metadata_modtime >= $time.last_week"),
    // state
    fetched("com_apple_mail_read", Type::kBoolean, "has been read", "com_apple_mail_read == 0"),
    fetched("com_apple_mail_flagged", Type::kBoolean, "is flagged",
            "com_apple_mail_flagged == true"),
    fetched("com_apple_mail_repliedTo", Type::kBoolean, "has been answered",
            "com_apple_mail_repliedTo == 1"),
    absent("com_apple_mail_flagColor", Type::kNumber, "colour of the flag",
           "com_apple_mail_flagColor != \"*\""),
    fetched("com_apple_mail_priority", Type::kNumber, "1 high, 3 normal, 5 low",
            "com_apple_mail_priority < 3"),
    fetched("com_apple_mail_gmailLabels", Type::kStrings, "labels of the mail service",
            "com_apple_mail_gmailLabels == \"important\"c"),
    fetched("kMDItemIsLikelyJunk", Type::kBoolean, "is junk", "kMDItemIsLikelyJunk != 1"),
    // attachments
    fetched("kMDItemAttachmentNames", Type::kStrings, "file names of the attachments",
            "kMDItemAttachmentNames == \"*.pdf\"c"),
    fetched("com_apple_mail_attachmentNames", Type::kStrings, "file names of the attachments",
            "com_apple_mail_attachmentNames == \"*.pdf\"c"),
    fetched("kMDItemAttachmentTypes", Type::kStrings, "uniform type of each attachment",
            "kMDItemAttachmentTypes == \"com.adobe.pdf\""),
    fetched("com_apple_mail_attachmentTypes", Type::kStrings, "uniform type of each attachment",
            "com_apple_mail_attachmentTypes == \"public.*\""),
    absent("com_apple_mail_attachmentSpecificTypes", Type::kStrings,
           "finer types of the attachments", "com_apple_mail_attachmentSpecificTypes != \"*\""),
    fetched("com_apple_mail_attachmentKinds", Type::kStrings, "kind of each attachment, in a word",
            "com_apple_mail_attachmentKinds == \"image\""),
    fetched("kMDItemAttachmentPaths", Type::kStrings, "where attachments are stored apart",
            "kMDItemAttachmentPaths == \"*.pdf\"c"),
    // file
    fetched("kMDItemFSName", Type::kString, "name of the file", "kMDItemFSName == \"*.emlx\""),
    fetched("_kMDItemFileName", Type::kString, "name of the file",
            "_kMDItemFileName == \"*.emlx\""),
    fetched("kMDItemFSSize", Type::kNumber, "size in bytes", "kMDItemFSSize > 1000000"),
    fetched("kMDItemLogicalSize", Type::kNumber, "size in bytes",
            "InRange(kMDItemLogicalSize, 1e3, 1e6)"),
    fetched("kMDItemPhysicalSize", Type::kNumber, "size on disk in bytes",
            "kMDItemPhysicalSize >= 4096"),
    fetched("kMDItemFSOwnerUserID", Type::kNumber, "user who owns the file",
            "kMDItemFSOwnerUserID == 1000"),
    fetched("_kMDItemOwnerUserID", Type::kNumber, "user who owns the file",
            "_kMDItemOwnerUserID == 1000"),
    fetched("kMDItemFSOwnerGroupID", Type::kNumber, "group that owns the file",
            "kMDItemFSOwnerGroupID == 1000"),
    fetched("_kMDItemOwnerGroupID", Type::kNumber, "group that owns the file",
            "_kMDItemOwnerGroupID == 1000"),
    fetched("kMDItemFSInvisible", Type::kBoolean, "is a hidden file", "kMDItemFSInvisible == 0"),
    fetched("kMDItemFSIsExtensionHidden", Type::kBoolean, "has a hidden extension",
            "kMDItemFSIsExtensionHidden == 0"),
    fetched("_kMDItemIsExtensionHidden", Type::kBoolean, "has a hidden extension",
            "_kMDItemIsExtensionHidden == 0"),
    fetched("kMDItemFSFinderFlags", Type::kNumber, "flags of the desktop",
            "kMDItemFSFinderFlags == 0"),
    fetched("_kMDItemFinderFlags", Type::kNumber, "flags of the desktop",
            "_kMDItemFinderFlags == 0"),
    fetched("kMDItemFSLabel", Type::kNumber, "label of the desktop", "kMDItemFSLabel == 0"),
    fetched("_kMDItemFinderLabel", Type::kNumber, "label of the desktop",
            "_kMDItemFinderLabel == 0"),
    absent("kMDItemFSCreatorCode", Type::kNumber, "four-letter creator",
           "kMDItemFSCreatorCode != \"*\""),
    absent("_kMDItemCreatorCode", Type::kNumber, "four-letter creator",
           "_kMDItemCreatorCode != \"*\""),
    absent("kMDItemFSTypeCode", Type::kNumber, "four-letter type", "kMDItemFSTypeCode != \"*\""),
    absent("_kMDItemTypeCode", Type::kNumber, "four-letter type", "_kMDItemTypeCode != \"*\""),
    absent("kMDItemFSHasCustomIcon", Type::kBoolean, "has an icon of its own",
           "kMDItemFSHasCustomIcon != \"*\""),
    absent("kMDItemFSIsStationery", Type::kBoolean, "is a stationery pad",
           "kMDItemFSIsStationery != \"*\""),
    // in queries only
    queryOnly("kMDItemTextContent", Type::kString, "text of the body, searched by words",
              "kMDItemTextContent == \"paris*\"cd"),
    queryOnly("kMDItemTitle", Type::kString, "subject", "kMDItemTitle == \"invoice*\"cd"),
    queryOnly(
        "kMDItemMailboxes", Type::kStrings,
        "\"mailbox.\" and inbox, drafts, sent, junk, trash, archive or the name of the folder",
        "kMDItemMailboxes == \"mailbox.inbox\""),
    queryOnly("kMDItemAdditionalRecipientEmailAddresses", Type::kStrings, "e-mail addresses in Cc",
              "kMDItemAdditionalRecipientEmailAddresses == \"ada@example.org\"c"),
    queryOnly("kMDItemHiddenAdditionalRecipientEmailAddresses", Type::kStrings,
              "e-mail addresses in Bcc",
              "kMDItemHiddenAdditionalRecipientEmailAddresses == \"*@example.org\"c"),
};

constexpr std::array kAliases{
    AttributeAlias{"contentType", "kMDItemContentType"},
    AttributeAlias{"contentTypeTree", "kMDItemContentTypeTree"},
    AttributeAlias{"displayName", "kMDItemDisplayName"},
    AttributeAlias{"title", "kMDItemTitle"},
    AttributeAlias{"subject", "kMDItemSubject"},
    AttributeAlias{"textContent", "kMDItemTextContent"},
    AttributeAlias{"keywords", "kMDItemKeywords"},
    AttributeAlias{"comment", "kMDItemComment"},
    AttributeAlias{"identifier", "kMDItemIdentifier"},
    AttributeAlias{"kind", "kMDItemKind"},
    AttributeAlias{"path", "kMDItemPath"},
    AttributeAlias{"authorNames", "kMDItemAuthors"},
    AttributeAlias{"authorEmailAddresses", "kMDItemAuthorEmailAddresses"},
    AttributeAlias{"recipientNames", "kMDItemRecipients"},
    AttributeAlias{"recipientEmailAddresses", "kMDItemRecipientEmailAddresses"},
    AttributeAlias{"emailAddresses", "kMDItemEmailAddresses"},
    AttributeAlias{"emailHeaders", "kMDItemEmailHeadersDictionary"},
    AttributeAlias{"accountHandles", "kMDItemAccountHandles"},
    AttributeAlias{"accountIdentifier", "kMDItemAccountIdentifier"},
    AttributeAlias{"mailboxIdentifiers", "kMDItemMailboxes"},
    AttributeAlias{"likelyJunk", "kMDItemIsLikelyJunk"},
    AttributeAlias{"contentCreationDate", "kMDItemContentCreationDate"},
    AttributeAlias{"contentModificationDate", "kMDItemContentModificationDate"},
    AttributeAlias{"lastUsedDate", "kMDItemLastUsedDate"},
};

/// `table` with the entries in the order of what `key` names.
template <typename Table, typename Key>
constexpr Table sortedBy(Table table, Key key) {
  std::sort(table.begin(), table.end(),
            [&](const auto& a, const auto& b) { return a.*key < b.*key; });
  return table;
}

constexpr std::array kAttributesByName = sortedBy(kAttributes, &AttributeInfo::name);
constexpr std::array kAliasesByName = sortedBy(kAliases, &AttributeAlias::alias);

/// The entry of a sorted table that has `wanted` as its key; null when there is none.
template <typename Table, typename Key>
auto findIn(const Table& table, Key key, std::string_view wanted) -> decltype(table.data()) {
  const auto* entry =
      std::lower_bound(table.begin(), table.end(), wanted,
                       [&](const auto& a, std::string_view name) { return a.*key < name; });
  return entry != table.end() && entry->*key == wanted ? entry : nullptr;
}

constexpr std::array<std::string_view, 5> kNotInAny{kTextContentAttribute,
                                                    "kMDItemEmailHeadersDictionary", "kMDItemPath",
                                                    "kMDItemURL", "kMDItemAttachmentPaths"};

}  // namespace

std::span<const AttributeInfo> attributes() { return kAttributes; }
std::span<const AttributeAlias> attributeAliases() { return kAliases; }

const AttributeInfo* findAttribute(std::string_view name) {
  return findIn(kAttributesByName, &AttributeInfo::name, canonicalName(name));
}

std::string_view canonicalName(std::string_view name) {
  const AttributeAlias* alias = findIn(kAliasesByName, &AttributeAlias::alias, name);
  return alias == nullptr ? name : alias->name;
}

bool isInAnyAttribute(std::string_view name) {
  return !name.starts_with(':') && !name.starts_with('_') && !name.starts_with("kMDItemFS") &&
         std::find(kNotInAny.begin(), kNotInAny.end(), name) == kNotInAny.end();
}

std::string_view typeName(AttributeType type) {
  switch (type) {
    case AttributeType::kString:
      return "string";
    case AttributeType::kStrings:
      return "string array";
    case AttributeType::kNumber:
      return "number";
    case AttributeType::kBoolean:
      return "boolean";
    case AttributeType::kDate:
      return "date";
    case AttributeType::kDictionary:
      return "dictionary";
    case AttributeType::kDatas:
      return "data array";
  }
  return "";
}

}  // namespace thmp::query
