// SPDX-License-Identifier: Apache-2.0
//
// The names of all attributes that a message can have, each as one shared text, so that the
// dictionaries of all messages share their keys, and as a small number, so that stored records
// need not spell them. The numbers are part of the index's on-disk form: new names go to the end
// of their list, and a change of order needs a new schema version there. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "base/value.h"

namespace thmp {

// Attributes that a found item can carry.
#define THMP_FETCHED_ATTRIBUTES(X)                                            \
  X(kExternalID, "_kMDItemExternalID")                                        \
  X(kIdentifier, "kMDItemIdentifier")                                         \
  X(kMessageID, "com_apple_mail_messageID")                                   \
  X(kURL, "kMDItemURL")                                                       \
  X(kBundleID, "_kMDItemBundleID")                                            \
  X(kFileIdentifier, "kMDItemFileIdentifier")                                 \
  X(kDeviceId, ":MD:DeviceId")                                                \
  X(kContentType, "kMDItemContentType")                                       \
  X(kContentTypeTree, "kMDItemContentTypeTree")                               \
  X(kKind, "kMDItemKind")                                                     \
  X(kSubject, "kMDItemSubject")                                               \
  X(kDisplayName, "kMDItemDisplayName")                                       \
  X(kDisplayNameWithExtensions, "_kMDItemDisplayNameWithExtensions")          \
  X(kComment, "kMDItemComment")                                               \
  X(kKeywords, "kMDItemKeywords")                                             \
  X(kEmailHeadersDictionary, "kMDItemEmailHeadersDictionary")                 \
  X(kAuthors, "kMDItemAuthors")                                               \
  X(kAuthorEmailAddresses, "kMDItemAuthorEmailAddresses")                     \
  X(kAuthorAddresses, "kMDItemAuthorAddresses")                               \
  X(kRecipients, "kMDItemRecipients")                                         \
  X(kRecipientEmailAddresses, "kMDItemRecipientEmailAddresses")               \
  X(kRecipientAddresses, "kMDItemRecipientAddresses")                         \
  X(kPrimaryRecipients, "kMDItemPrimaryRecipients")                           \
  X(kPrimaryRecipientEmailAddresses, "kMDItemPrimaryRecipientEmailAddresses") \
  X(kAdditionalRecipients, "kMDItemAdditionalRecipients")                     \
  X(kHiddenAdditionalRecipients, "kMDItemHiddenAdditionalRecipients")         \
  X(kEmailAddresses, "kMDItemEmailAddresses")                                 \
  X(kAccountHandles, "kMDItemAccountHandles")                                 \
  X(kDateReceived, "com_apple_mail_dateReceived")                             \
  X(kMailDateReceived, "kMDItemMailDateReceived")                             \
  X(kInterestingDate, "kMDItemInterestingDate")                               \
  X(kContentCreationDate, "kMDItemContentCreationDate")                       \
  X(kContentModificationDate, "kMDItemContentModificationDate")               \
  X(kFSContentChangeDate, "kMDItemFSContentChangeDate")                       \
  X(kContentChangeDate, "_kMDItemContentChangeDate")                          \
  X(kFSCreationDate, "kMDItemFSCreationDate")                                 \
  X(kCreationDate, "_kMDItemCreationDate")                                    \
  X(kDateAdded, "kMDItemDateAdded")                                           \
  X(kLastUsedDate, "kMDItemLastUsedDate")                                     \
  X(kDateLastViewed, "com_apple_mail_dateLastViewed")                         \
  X(kModtime, "com_apple_metadata_modtime")                                   \
  X(kRead, "com_apple_mail_read")                                             \
  X(kFlagged, "com_apple_mail_flagged")                                       \
  X(kRepliedTo, "com_apple_mail_repliedTo")                                   \
  X(kPriority, "com_apple_mail_priority")                                     \
  X(kGmailLabels, "com_apple_mail_gmailLabels")                               \
  X(kIsLikelyJunk, "kMDItemIsLikelyJunk")                                     \
  X(kAttachmentNames, "kMDItemAttachmentNames")                               \
  X(kMailAttachmentNames, "com_apple_mail_attachmentNames")                   \
  X(kAttachmentTypes, "kMDItemAttachmentTypes")                               \
  X(kMailAttachmentTypes, "com_apple_mail_attachmentTypes")                   \
  X(kAttachmentKinds, "com_apple_mail_attachmentKinds")                       \
  X(kAttachmentPaths, "kMDItemAttachmentPaths")                               \
  X(kFSName, "kMDItemFSName")                                                 \
  X(kFileName, "_kMDItemFileName")                                            \
  X(kFSSize, "kMDItemFSSize")                                                 \
  X(kLogicalSize, "kMDItemLogicalSize")                                       \
  X(kPhysicalSize, "kMDItemPhysicalSize")                                     \
  X(kFSOwnerUserID, "kMDItemFSOwnerUserID")                                   \
  X(kOwnerUserID, "_kMDItemOwnerUserID")                                      \
  X(kFSOwnerGroupID, "kMDItemFSOwnerGroupID")                                 \
  X(kOwnerGroupID, "_kMDItemOwnerGroupID")                                    \
  X(kFSInvisible, "kMDItemFSInvisible")                                       \
  X(kFSIsExtensionHidden, "kMDItemFSIsExtensionHidden")                       \
  X(kIsExtensionHidden, "_kMDItemIsExtensionHidden")                          \
  X(kFSFinderFlags, "kMDItemFSFinderFlags")                                   \
  X(kFinderFlags, "_kMDItemFinderFlags")                                      \
  X(kFSLabel, "kMDItemFSLabel")                                               \
  X(kFinderLabel, "_kMDItemFinderLabel")

// Attributes that a query can ask for and no item carries.
#define THMP_QUERY_ONLY_ATTRIBUTES(X)                                                           \
  X(kTitle, "kMDItemTitle")                                                                     \
  X(kMailboxes, "kMDItemMailboxes")                                                             \
  X(kAdditionalRecipientEmailAddresses, "kMDItemAdditionalRecipientEmailAddresses")             \
  X(kHiddenAdditionalRecipientEmailAddresses, "kMDItemHiddenAdditionalRecipientEmailAddresses") \
  X(kTextContent, "kMDItemTextContent")

enum class AttributeKey : std::uint8_t {
#define THMP_X(identifier, name) identifier,
  THMP_FETCHED_ATTRIBUTES(THMP_X) kFetchedCount,
  kBeforeQueryOnly = 127,
  THMP_QUERY_ONLY_ATTRIBUTES(THMP_X) kEnd,
#undef THMP_X
};

constexpr bool isQueryOnly(AttributeKey key) noexcept {
  return key > AttributeKey::kBeforeQueryOnly;
}

/// The one shared text of the attribute's name. REQUIRES: `key` names an attribute.
const Text& keyText(AttributeKey key) noexcept;

/// Empty for a name that no message ever has.
std::optional<AttributeKey> keyNamed(std::string_view name) noexcept;

}  // namespace thmp
