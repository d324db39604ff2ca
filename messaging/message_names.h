// SPDX-License-Identifier: Apache-2.0
//
// The vocabulary of the exchange: message names, the types of batch pasteboards, the keys of
// messages and batches, and what message files and their folders are called. Both sides compare
// names and keys byte for byte. Each message name begins with one space, which is part of it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace thmp {

// From the client to the plug-in.
inline constexpr char kConnectName[] = " com.quorvane.tallyhive.mailplugin.Connect";
inline constexpr char kSearchName[] = " com.quorvane.tallyhive.mailplugin.Search";
inline constexpr char kCancelName[] = " com.quorvane.tallyhive.mailplugin.Cancel";
inline constexpr char kClearName[] = " com.quorvane.tallyhive.mailplugin.Clear";
inline constexpr char kTerminateName[] = " com.quorvane.tallyhive.mailplugin.Terminate";

// From the plug-in to the client.
inline constexpr char kPluginReadyName[] = " com.quorvane.tallyhive.mailplugin.PluginReady";
inline constexpr char kPluginQuitName[] = " com.quorvane.tallyhive.mailplugin.PluginQuit";
inline constexpr char kQueryDidStartName[] = " com.quorvane.tallyhive.mailplugin.QueryDidStart";
inline constexpr char kQueryHasUpdatesName[] = " com.quorvane.tallyhive.mailplugin.QueryHasUpdates";
inline constexpr char kQueryHasRemovalsName[] =
    " com.quorvane.tallyhive.mailplugin.QueryHasRemovals";
inline constexpr char kQueryDidCompleteName[] =
    " com.quorvane.tallyhive.mailplugin.QueryDidComplete";

// Never posted: the pasteboard types under which batches are written.
inline constexpr char kResultsBatchType[] = " com.quorvane.tallyhive.mailplugin.ResultsBatch";
inline constexpr char kRemovalBatchType[] = " com.quorvane.tallyhive.mailplugin.RemovalBatch";

// A message.
inline constexpr char kNameKey[] = "name";
inline constexpr char kUserInfoKey[] = "userInfo";

// On every message of the plug-in.
inline constexpr char kVersionKey[] = "version";
inline constexpr char kMajorVersionKey[] = "majorVersion";
inline constexpr char kCompatibilityVersionKey[] = "compatibilityVersion";
/// The generation of the exchange that is spoken here.
inline constexpr std::int64_t kCompatibilityVersion = 1;

// Payloads.
inline constexpr char kClientNameKey[] = "clientName";
inline constexpr char kUniqueNameKey[] = "uniqueName";
inline constexpr char kLineageNameKey[] = "lineageName";
inline constexpr char kCheckVersionKey[] = "checkVersion";
inline constexpr char kActiveNamesKey[] = "activeNames";
inline constexpr char kQueryStringKey[] = "queryString";
inline constexpr char kSortingAttributeKey[] = "sortingAttribute";
inline constexpr char kSortAscendingKey[] = "sortAscending";
inline constexpr char kBatchNameKey[] = "batchName";
inline constexpr char kBatchNumberKey[] = "batchNumber";
inline constexpr char kFoundItemCountKey[] = "foundItemCount";
inline constexpr char kPendingBatchesKey[] = "pendingBatches";
inline constexpr char kNotificationKey[] = "notification";
/// The only value under kNotificationKey.
inline constexpr char kCompletedNotification[] = "completed";
inline constexpr char kErrorCodeKey[] = "errorCode";
inline constexpr char kErrorDomainKey[] = "errorDomain";
inline constexpr char kErrorMessageKey[] = "errorMessage";

// Batches and their items.
inline constexpr char kMessagesKey[] = "messages";
inline constexpr char kMessageIDsKey[] = "messageIDs";
inline constexpr char kAttributesKey[] = "attributes";
inline constexpr char kLibraryIDKey[] = "libraryID";
inline constexpr char kPathKey[] = "kMDItemPath";
inline constexpr char kIndexKey[] = "index";

// Below the data folder: the mail side reads "in", its clients read "out".
inline constexpr char kInboxName[] = "in";
inline constexpr char kOutboxName[] = "out";

inline constexpr std::string_view kMessageFileExtension = "plist";

/// Whether `name` has the extension of message files, in letters of either case. A name that is
/// only an extension (".plist") has none.
constexpr bool isMessageFileName(std::string_view name) noexcept {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return false;
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  return std::ranges::equal(name.substr(dot + 1), kMessageFileExtension, {}, lower);
}

}  // namespace thmp
