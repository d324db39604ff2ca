// SPDX-License-Identifier: Apache-2.0
#include "search/QueryConstruction.h"

#include <array>
#include <set>
#include <span>
#include <string_view>

namespace thmp {

namespace {

// The groups overlap, and the first names one attribute twice; their union is what counts.
constexpr std::string_view kMessageNames[] = {":MD:DeviceId",
                                              ":MD:kMDItemPath",
                                              "com_apple_mail_dateReceived",
                                              "com_apple_mail_flagged",
                                              "com_apple_mail_gmailLabels",
                                              "com_apple_mail_messageID",
                                              "com_apple_mail_priority",
                                              "com_apple_mail_read",
                                              "com_apple_mail_repliedTo",
                                              "com_apple_metadata_modtime",
                                              "kMDItemAdditionalRecipientPersons",
                                              "kMDItemAdditionalRecipients",
                                              "kMDItemAuthorAddresses",
                                              "kMDItemAuthorEmailAddresses",
                                              "kMDItemAuthorPersons",
                                              "kMDItemAuthors",
                                              "kMDItemAuthors",
                                              "kMDItemContentCreationDate",
                                              "kMDItemContentModificationDate",
                                              "kMDItemContentType",
                                              "kMDItemContentTypeTree",
                                              "kMDItemDateAdded",
                                              "kMDItemDisplayName",
                                              "kMDItemDocumentIdentifier",
                                              "kMDItemEmailHeadersDictionary",
                                              "kMDItemFileIdentifier",
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
                                              "kMDItemHiddenAdditionalRecipientPersons",
                                              "kMDItemHiddenAdditionalRecipients",
                                              "kMDItemIdentifier",
                                              "kMDItemKind",
                                              "kMDItemLogicalSize",
                                              "kMDItemPath",
                                              "kMDItemPhysicalSize",
                                              "kMDItemPrimaryRecipientPersons",
                                              "kMDItemPrimaryRecipients",
                                              "kMDItemRecipientAddresses",
                                              "kMDItemRecipientEmailAddresses",
                                              "kMDItemRecipients",
                                              "kMDItemSubject",
                                              "kMDItemURL",
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
                                              "_kMDItemTypeCode"};

constexpr std::string_view kAttachmentNames[] = {
    "com_apple_mail_attachmentKinds", "com_apple_mail_attachmentNames",
    "com_apple_mail_attachmentTypes", "com_apple_mail_dateLastViewed",
    "com_apple_mail_flagColor",       "kMDItemAccountHandles",
    "kMDItemAttachmentNames",         "kMDItemAttachmentPaths",
    "kMDItemAttachmentTypes",         "kMDItemLastUsedDate"};

constexpr std::string_view kDateNames[] = {"com_apple_mail_attachmentSpecificTypes",
                                           "kMDItemKeywords",
                                           "kMDItemInterestingDate",
                                           "kMDItemMailDateReceived",
                                           "kMDItemPrimaryRecipientEmailAddresses",
                                           "kMDItemRelatedUniqueIdentifier",
                                           "kMDItemWhereFroms"};

constexpr std::string_view kAccountNames[] = {"kMDItemAccountIdentifier", "kMDItemAccountType",
                                              "kMDItemIsLikelyJunk"};

constexpr std::string_view kAddressNames[] = {"kMDItemEmailAddresses"};

constexpr std::string_view kAnnotationNames[] = {"kMDItemProjects", "kMDItemComment",
                                                 "kMDItemKeywords"};

constexpr std::array<std::span<const std::string_view>, 6> kGroups = {
    kMessageNames, kAttachmentNames, kDateNames, kAccountNames, kAddressNames, kAnnotationNames};

}  // namespace

const AttributeList::Names& AttributeList::build() {
  std::call_once(once_, [this] {
    std::set<std::string_view> names;
    for (const auto& group : kGroups) names.insert(group.begin(), group.end());
    names_ = std::make_shared<const std::vector<std::string>>(names.begin(), names.end());
  });
  return names_;
}

std::shared_ptr<SpotlightQuery> buildQueryWithString(Spotlight& spotlight, AttributeList& list,
                                                     const std::string& queryString,
                                                     bool fetchAllAttributes) {
  const AttributeList::Names& names = list.build();
  return spotlight.makeQuery(queryString, fetchAllAttributes ? names : nullptr);
}

}  // namespace thmp
