// SPDX-License-Identifier: Apache-2.0
//
// The mail library: the lasting record of which message has which ID, and where its file is. One
// SQLite file with
//   mailboxes(id, root, path, format, identifier)
//   messages(rowid, mailbox, name, part, file)
// where `rowid` is the library ID. An ID is never given out twice; a message keeps its own for as
// long as its file exists in its mailbox, whatever its flags. Message attributes are not here but
// in the index, which can be rebuilt at any time.
//
// Any thread. Writes come from one thread at a time and go through one connection; readers have
// connections of their own and neither wait for a writer nor hold it up.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/result.h"
#include "host/store/MailFolders.h"
#include "platform/mail.h"

struct sqlite3;

namespace thmp {

struct LibraryMailbox {
  std::int64_t id = 0;
  MailFolder folder;
};

struct LibraryMessage {
  std::int64_t id = 0;
  MessageEntry entry;
};

/// How many messages a mailbox has, and the sum of their IDs. IDs are never given out twice, so
/// after messages came or went one of the two is another.
struct MailboxTally {
  std::uint64_t messages = 0;
  std::int64_t sumOfIDs = 0;

  friend bool operator==(const MailboxTally&, const MailboxTally&) = default;
};

/// What one update changes, in one transaction.
struct LibraryChanges {
  /// New messages in the order in which they get their IDs.
  std::vector<MessageEntry> added;
  /// Messages whose part or file changed.
  std::vector<LibraryMessage> moved;
  std::vector<std::int64_t> removed;
};

class Library {
 public:
  enum class Access : bool { kReadOnly, kReadWrite };

  /// Opens the library in the file at `path`, made with its folders when missing and wanted for
  /// writing.
  static Result<std::unique_ptr<Library>> open(const std::string& path, Access access);
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  /// Runs `block` once, synchronously, with a read-only connection that is lent for that call only
  /// and used by nobody else meanwhile. Returns what `block` returns; false without a call when no
  /// connection can be had.
  bool performRead(const std::function<bool(sqlite3*)>& block) const;

  /// The message's file as the library knows it; empty for an unknown message, another mailbox than
  /// the message's, or data that is stored under the other type. Type 0 is the complete message, 1
  /// a partial one. Does not look whether the file is there.
  std::string dataPath(std::int64_t id, std::int64_t mailbox, int type) const;
  /// The same for each of `messages`, in their order, as the library is at one moment.
  std::vector<std::string> dataPaths(std::span<const MailMessagePlace> messages, int type) const;

  /// The file of a message, looked for in its mailbox when it is not where the library last saw it.
  /// Empty when there is no such message or file.
  std::optional<std::string> pathOfMessage(std::int64_t id) const;

  /// In the order of their paths.
  Result<std::vector<LibraryMailbox>> mailboxes() const;
  /// The messages of one mailbox in the order of their names.
  Result<std::vector<LibraryMessage>> messages(std::int64_t mailbox) const;
  /// The message of that name in a mailbox; empty when there is none.
  Result<std::optional<LibraryMessage>> message(std::int64_t mailbox,
                                                const std::string& name) const;
  Result<std::uint64_t> messageCount() const;
  /// How many messages each mailbox has, by its ID; mailboxes without any are left out.
  Result<std::unordered_map<std::int64_t, std::uint64_t>> messageCounts() const;
  Result<std::unordered_map<std::int64_t, MailboxTally>> tallies() const;

  /// Why the mail of a named mail folder cannot be reached now, in words; empty when it can. An
  /// empty folder in the place of one with mail counts as missing: its file system is not mounted.
  std::string whyUnreachable(const std::string& root) const;
  /// Remembers which folder it was that had mail in it.
  Result<void> keepRoot(const std::string& root, const FolderIdentity& identity);
  /// Mailboxes below a named mail folder that cannot be reached now. Looks at each named folder
  /// each time.
  std::vector<std::int64_t> unreachableMailboxes() const;
  /// The named mail folders with mailboxes in the library, in order.
  Result<std::vector<std::string>> roots() const;

  /// The ID of the mailbox at `folder.path`, given now if there is none; its other fields are kept
  /// up to date.
  Result<std::int64_t> addMailbox(const MailFolder& folder);
  /// Takes the mailbox and all its messages out and returns their IDs.
  Result<std::vector<std::int64_t>> removeMailbox(std::int64_t mailbox);
  /// Applies `changes` to one mailbox, all or nothing, and returns the IDs of `changes.added`, in
  /// their order. Lasting when it returns.
  Result<std::vector<std::int64_t>> apply(std::int64_t mailbox, const LibraryChanges& changes);

 private:
  struct State;
  explicit Library(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace thmp
