// SPDX-License-Identifier: Apache-2.0
#include "client/sort_attributes.h"

#include <algorithm>
#include <array>
#include <vector>

#include "base/nearest_name.h"

namespace thmp::client {
namespace {

constexpr std::array<std::string_view, 91> kFetched = {":MD:DeviceId",
                                                       ":MD:kMDItemPath",
                                                       "_kMDItemBundleID",
                                                       "_kMDItemContentChangeDate",
                                                       "_kMDItemCreationDate",
                                                       "_kMDItemCreatorCode",
                                                       "_kMDItemDisplayNameWithExtensions",
                                                       "_kMDItemExternalID",
                                                       "_kMDItemFileName",
                                                       "_kMDItemFinderFlags",
                                                       "_kMDItemFinderLabel",
                                                       "_kMDItemFromImporter",
                                                       "_kMDItemIsExtensionHidden",
                                                       "_kMDItemIsFromImporter",
                                                       "_kMDItemOwnerGroupID",
                                                       "_kMDItemOwnerUserID",
                                                       "_kMDItemTypeCode",
                                                       "com_apple_mail_attachmentKinds",
                                                       "com_apple_mail_attachmentNames",
                                                       "com_apple_mail_attachmentSpecificTypes",
                                                       "com_apple_mail_attachmentTypes",
                                                       "com_apple_mail_dateLastViewed",
                                                       "com_apple_mail_dateReceived",
                                                       "com_apple_mail_flagColor",
                                                       "com_apple_mail_flagged",
                                                       "com_apple_mail_gmailLabels",
                                                       "com_apple_mail_messageID",
                                                       "com_apple_mail_priority",
                                                       "com_apple_mail_read",
                                                       "com_apple_mail_repliedTo",
                                                       "com_apple_metadata_modtime",
                                                       "kMDItemAccountHandles",
                                                       "kMDItemAccountIdentifier",
                                                       "kMDItemAccountType",
                                                       "kMDItemAdditionalRecipientPersons",
                                                       "kMDItemAdditionalRecipients",
                                                       "kMDItemAttachmentNames",
                                                       "kMDItemAttachmentPaths",
                                                       "kMDItemAttachmentTypes",
                                                       "kMDItemAuthorAddresses",
                                                       "kMDItemAuthorEmailAddresses",
                                                       "kMDItemAuthorPersons",
                                                       "kMDItemAuthors",
                                                       "kMDItemComment",
                                                       "kMDItemContentCreationDate",
                                                       "kMDItemContentModificationDate",
                                                       "kMDItemContentType",
                                                       "kMDItemContentTypeTree",
                                                       "kMDItemDateAdded",
                                                       "kMDItemDisplayName",
                                                       "kMDItemDocumentIdentifier",
                                                       "kMDItemEmailAddresses",
                                                       "kMDItemEmailHeadersDictionary",
                                                       "kMDItemFSContentChangeDate",
                                                       "kMDItemFSCreationDate",
                                                       "kMDItemFSCreatorCode",
                                                       "kMDItemFSFinderFlags",
                                                       "kMDItemFSHasCustomIcon",
                                                       "kMDItemFSInvisible",
                                                       "kMDItemFSIsExtensionHidden",
                                                       "kMDItemFSIsStationery",
                                                       "kMDItemFSLabel",
                                                       "kMDItemFSName",
                                                       "kMDItemFSOwnerGroupID",
                                                       "kMDItemFSOwnerUserID",
                                                       "kMDItemFSSize",
                                                       "kMDItemFSTypeCode",
                                                       "kMDItemFileIdentifier",
                                                       "kMDItemHiddenAdditionalRecipientPersons",
                                                       "kMDItemHiddenAdditionalRecipients",
                                                       "kMDItemIdentifier",
                                                       "kMDItemInterestingDate",
                                                       "kMDItemIsLikelyJunk",
                                                       "kMDItemKeywords",
                                                       "kMDItemKind",
                                                       "kMDItemLastUsedDate",
                                                       "kMDItemLogicalSize",
                                                       "kMDItemMailDateReceived",
                                                       "kMDItemPath",
                                                       "kMDItemPhysicalSize",
                                                       "kMDItemPrimaryRecipientEmailAddresses",
                                                       "kMDItemPrimaryRecipientPersons",
                                                       "kMDItemPrimaryRecipients",
                                                       "kMDItemProjects",
                                                       "kMDItemRecipientAddresses",
                                                       "kMDItemRecipientEmailAddresses",
                                                       "kMDItemRecipients",
                                                       "kMDItemRelatedUniqueIdentifier",
                                                       "kMDItemSubject",
                                                       "kMDItemURL",
                                                       "kMDItemWhereFroms"};

struct ShortName {
  std::string_view name;
  std::string_view attribute;
};
constexpr std::array kShortNames = {
    ShortName{"date", "com_apple_mail_dateReceived"}, ShortName{"from", "kMDItemAuthors"},
    ShortName{"to", "kMDItemRecipients"}, ShortName{"subject", "kMDItemSubject"},
    ShortName{"size", "kMDItemFSSize"}};

/// Empty when none is near. What all names begin with does not make one near.
std::string nearestWord(std::string_view name) {
  constexpr std::string_view kPrefix = "kMDItem";
  const std::string_view prefix = name.starts_with(kPrefix) ? kPrefix : "";
  std::vector<std::string_view> rests;
  const auto add = [&](std::string_view word) {
    if (word.starts_with(prefix)) rests.push_back(word.substr(prefix.size()));
  };
  for (const ShortName& one : kShortNames) add(one.name);
  for (const std::string_view attribute : kFetched) add(attribute);
  const std::string_view nearest = nearestName(name.substr(prefix.size()), rests);
  return nearest.empty() ? std::string() : std::string(prefix) + std::string(nearest);
}

}  // namespace

std::span<const std::string_view> fetchedAttributes() { return kFetched; }

std::vector<std::string> sortingWords() {
  std::vector<std::string> words;
  words.reserve(kShortNames.size() + kFetched.size());
  for (const ShortName& one : kShortNames) words.emplace_back(one.name);
  for (const std::string_view name : kFetched) {
    if (name.find(':') == std::string_view::npos) words.emplace_back(name);
  }
  return words;
}

Result<std::string> sortingAttribute(std::string_view name) {
  for (const ShortName& one : kShortNames) {
    if (one.name == name) return std::string(one.attribute);
  }
  if (std::binary_search(kFetched.begin(), kFetched.end(), name)) return std::string(name);
  const std::string meant = nearestWord(name);
  return Error{"THMPSorting", 1,
               "there is no attribute \"" + std::string(name) + "\" to sort by; " +
                   (meant.empty() ? "use date, from, to, subject, size or the full name of one"
                                  : "did you mean " + meant + "?"),
               nullptr};
}

}  // namespace thmp::client
