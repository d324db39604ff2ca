// SPDX-License-Identifier: Apache-2.0
//
// The folders that the operating system withholds from processes without Full Disk Access, as two
// generations of it know them, and those that are tried to find out about the access. Their order
// decides which of several matches is told. Constants; any thread.
#pragma once

#include <array>
#include <string_view>

namespace thmp {

/// Of current systems.
inline constexpr std::array<std::string_view, 36> kCurrentFullDiskAccessLocations = {
    "~/.Trash",
    "~/Library/Application Support/CallHistoryDB",
    "~/Library/Application Support/CallHistoryTransactions",
    "~/Library/Application Support/FileProvider",
    "~/Library/Application Support/com.apple.TCC",
    "~/Library/Application Support/com.apple.sharedfilelist",
    "~/Library/Autosave Information",
    "~/Library/Caches/CloudKit",
    "~/Library/Caches/com.apple.HomeKit.configurations",
    "~/Library/Caches/com.apple.Safari.SafeBrowsing",
    "~/Library/Caches/com.apple.ap.adprivacyd",
    "~/Library/Caches/com.apple.homed",
    "~/Library/Caches/com.apple.safaridavclient",
    "~/Library/Containers/com.apple.CloudDocs.MobileDocumentsFileProvider",
    "~/Library/Containers/com.apple.Home",
    "~/Library/Containers/com.apple.Safari",
    "~/Library/Containers/com.apple.VoiceMemos",
    "~/Library/Containers/com.apple.iChat",
    "~/Library/Containers/com.apple.icloud.drive.fileprovider",
    "~/Library/Containers/com.apple.mail",
    "~/Library/Containers/com.apple.news",
    "~/Library/Containers/com.apple.stocks",
    "~/Library/Cookies",
    "~/Library/Group Containers/group.com.apple.icloud.drive",
    "~/Library/HomeKit",
    "~/Library/IdentityServices",
    "~/Library/Mail",
    "~/Library/Messages",
    "~/Library/Metadata/CoreSpotlight",
    "~/Library/Metadata/com.apple.IntelligentSuggestions",
    "~/Library/Mobile Documents",
    "~/Library/PersonalizationPortrait",
    "~/Library/Reminders",
    "~/Library/Safari",
    "~/Library/Sharing",
    "~/Library/Suggestions",
};

/// Of earlier systems. The first is the one of the whole system, and one is a file.
inline constexpr std::array<std::string_view, 32> kEarlierFullDiskAccessLocations = {
    "/Library/Application Support/com.apple.TCC/",
    "~/Library/Application Support/CallHistoryDB/",
    "~/Library/Application Support/CallHistoryTransactions/",
    "~/Library/Application Support/com.apple.TCC/",
    "~/Library/Application Support/MobileSync/",
    "~/Library/Caches/CloudKit/com.apple.Safari/",
    "~/Library/Caches/com.apple.homed/",
    "~/Library/Caches/com.apple.Safari/",
    "~/Library/Caches/com.apple.Safari.SafeBrowsing/",
    "~/Library/Caches/com.apple.safaridavclient/",
    "~/Library/Containers/com.apple.Home/",
    "~/Library/Containers/com.apple.iChat/",
    "~/Library/Containers/com.apple.mail/",
    "~/Library/Containers/com.apple.news/",
    "~/Library/Containers/com.apple.Safari/",
    "~/Library/Containers/com.apple.stocks/",
    "~/Library/Containers/com.apple.VoiceMemos/",
    "~/Library/Cookies/",
    "~/Library/HomeKit/",
    "~/Library/IdentityServices/",
    "~/Library/Mail/",
    "~/Library/Messages/",
    "~/Library/Metadata/com.apple.IntelligentSuggestions/",
    "~/Library/Metadata/CoreSpotlight/",
    "~/Library/PersonalizationPortrait/",
    "~/Library/Preferences/com.apple.TimeMachine.plist",
    "~/Library/Safari/",
    "~/Library/Saved Application State/com.apple.iChat.savedState/",
    "~/Library/Saved Application State/com.apple.mail.savedState/",
    "~/Library/Saved Application State/com.apple.Safari.savedState/",
    "~/Library/Saved Application State/com.bitrock.appinstaller.savedState/",
    "~/Library/Suggestions/",
};

/// Whoever may list all of these that exist has the access.
inline constexpr std::array<std::string_view, 8> kFullDiskAccessProbeFolders = {
    "~/Library/Application Support/com.apple.TCC/",
    "~/Library/Containers/com.apple.mail/",
    "~/Library/Containers/com.apple.Safari/",
    "~/Library/Cookies/",
    "~/Library/Mail/",
    "~/Library/Messages/",
    "~/Library/Metadata/CoreSpotlight/",
    "~/Library/Safari/",
};

}  // namespace thmp
