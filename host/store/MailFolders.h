// SPDX-License-Identifier: Apache-2.0
//
// Finds mailboxes below the mail folders that the user named, and the message files in one. Every
// folder with `cur` and `new` is a mailbox, so is every other folder with *.eml in it, and every
// NAME.mbox with *.emlx below it (without one above, the folder that holds them). Links to folders
// are not followed. Any thread; nothing is kept between calls.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "host/store/MessageParser.h"

namespace thmp {

struct MailFolder {
  /// Absolute.
  std::string path;
  /// The named mail folder at or above it, as named.
  std::string root;
  MessageFormat format = MessageFormat::kMaildir;
  /// Such as "mailbox.inbox".
  std::string identifier;

  friend bool operator==(const MailFolder&, const MailFolder&) = default;
};

/// A file or folder that cannot be read, and why, in words. The path is shown with what is not
/// UTF-8 in it as %XX.
struct UnreadablePath {
  std::string path;
  std::string reason;

  friend auto operator<=>(const UnreadablePath&, const UnreadablePath&) = default;
};

/// A folder whose entries make mailboxes and messages come and go.
struct WalkedFolder {
  std::string path;
  /// The mailbox whose message files stand in it; empty when there is none.
  std::string mailbox;
};

/// What tells a folder from another one that takes its place.
struct FolderIdentity {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;

  friend bool operator==(const FolderIdentity&, const FolderIdentity&) = default;
};

struct MailTree {
  /// In the order of their paths.
  std::vector<MailFolder> mailboxes;
  /// Every folder walked.
  std::vector<WalkedFolder> folders;
  /// Folders whose content is not known now; their paths as they are.
  std::vector<UnreadablePath> unreadable;
  /// Folders that went between the listing that showed them and the look into them; whether for
  /// good, a later walk will see.
  std::vector<std::string> vanished;
  /// Folders left out because their paths are not UTF-8.
  std::vector<UnreadablePath> failed;
  bool rootIsThere = false;
  /// Of the root, when it was walked and is there.
  FolderIdentity rootIdentity;
};

/// The mailboxes at or below `folder`, which lies at or below `root`.
MailTree walkMail(const std::string& root, const std::string& folder);

struct MessageEntry {
  /// What the message is known by: of a Maildir file the name before ":2,", of an .emlx file the
  /// name without ".partial".
  std::string name;
  /// The folder below the mailbox, such as "cur" or "new"; empty for the mailbox itself.
  std::string part;
  /// The file's whole name now.
  std::string file;

  friend auto operator<=>(const MessageEntry&, const MessageEntry&) = default;
};

/// The format of a message file in a mailbox of this format.
MessageFormat messageFormat(MessageFormat mailbox, std::string_view file);

struct MailboxListing {
  /// In order; one name may stand twice, with two files or because the folder changed meanwhile.
  std::vector<MessageEntry> entries;
  std::vector<UnreadablePath> failed;
  /// The folders did not change while they were listed, so that no entry can have been missed.
  bool quiet = false;
  /// The mailbox is not there (any more).
  bool gone = false;
  /// While mailboxStamp() gives the same, the listing is as good as a new one. Empty when that
  /// would not tell.
  std::string stamp;
};

/// The message files of one mailbox. An error when it is there and cannot be read.
Result<MailboxListing> listMailbox(const MailFolder& mailbox);

/// Stands for the folders of a Maildir as they are now; empty for other mailboxes and without a
/// look into them. Another one after every change of their entries, but not of the files.
std::string mailboxStamp(const MailFolder& mailbox);

/// What a file of a Maildir's `cur` or `new` is as a message; empty when it is none, or has a name
/// that cannot be kept.
std::optional<MessageEntry> maildirEntry(std::string_view part, std::string_view file);

/// The absolute path of a message's file.
std::string messagePath(std::string_view mailboxPath, std::string_view part, std::string_view file);

/// The leading decimal number of a Maildir file's name, the second of its delivery; -1 without one
/// or outside the years 1 to 9999.
std::int64_t deliverySecond(std::string_view fileName);

/// A folder as it is now.
struct FolderLook {
  /// Why it cannot be opened and listed, in words; empty when it can, and only then the rest holds.
  std::string unreadable;
  bool isEmpty = false;
  FolderIdentity identity;
};
FolderLook lookAt(const std::string& folder);
/// Whether a folder can be opened and listed now.
bool isReadableFolder(const std::string& path);

/// Whether a path is that of `folder` or of something below it.
bool isAtOrBelow(const std::string& path, const std::string& folder);

}  // namespace thmp
