// SPDX-License-Identifier: Apache-2.0
//
// Reads one message file: its attributes, its text, and what could not be read. It never fails: a
// message that does not parse gives what its file and its readable headers give. Parsing is
// bounded by ParseLimits and linear in the file's size. Any thread; the MIME library behind it is
// not used by two threads at once, so calls wait for each other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "base/value.h"

namespace thmp {

struct ParseLimits {
  /// Read from one file; the rest of it is not seen.
  std::size_t fileBytes = std::size_t{64} << 20;
  /// Of one header block, that of the message or of a part in it.
  std::size_t headerBytes = std::size_t{1} << 20;
  /// Fields of the message's own header block.
  std::size_t fields = 10'000;
  /// Addresses, keywords and labels of the message together, by number and length. What may stand
  /// between two or in one counts, in quotes too.
  std::size_t listed = 5'000;
  std::size_t listedBytes = std::size_t{512} << 10;
  /// Of the fields that say what parts are, in the message and all its parts.
  std::size_t structureBytes = std::size_t{128} << 10;
  std::size_t parts = 1'000;
  std::size_t depth = 100;
  std::size_t textBytes = std::size_t{1} << 20;
};

enum class MessageFormat : std::uint8_t { kMaildir = 0, kEml = 1, kEmlx = 2 };

/// What the file system says of a message file. Seconds are Unix seconds.
struct FileFacts {
  std::int64_t size = 0;
  std::int64_t blocks = 0;  // of 512 bytes
  std::uint64_t inode = 0;
  std::uint64_t device = 0;
  std::uint32_t owner = 0;
  std::uint32_t group = 0;
  std::int64_t modifiedSeconds = 0;
  std::int64_t modifiedNanoseconds = 0;
  /// The file's birth, or its modification where the file system does not know it.
  std::int64_t createdSeconds = 0;
};

/// Where a message stands, as far as its attributes depend on it.
struct MessagePlace {
  MessageFormat format = MessageFormat::kMaildir;
  /// The file's whole name, flags included.
  std::string fileName;
  /// In the `new` folder of a Maildir, where a message has no flags.
  bool isNew = false;
  /// What `kMDItemMailboxes` says of the folder, such as "mailbox.inbox".
  std::string mailboxIdentifier;
  FileFacts facts;
  /// Files that the mail program keeps beside an .emlx message, absolute and in order.
  std::vector<std::string> attachmentPaths;
};

struct ParsedMessage {
  /// All that a found item can carry but `_kMDItemExternalID`, which the library knows.
  Dictionary attributes;
  /// What only queries ask for, but `kMDItemTextContent`.
  Dictionary queryOnly;
  /// `kMDItemTextContent`, UTF-8; empty when there is none.
  std::string textContent;
  /// Why the message was not read whole, in words; empty when it was.
  std::vector<std::string> incomplete;
};

class MessageParser {
 public:
  explicit MessageParser(ParseLimits limits = {}) : limits_(limits) {}

  /// Reads the message in `bytes`, which are the file's first `limits.fileBytes` at most.
  ParsedMessage parse(std::string_view bytes, const MessagePlace& place) const noexcept;

  const ParseLimits& limits() const noexcept { return limits_; }

 private:
  ParseLimits limits_;
};

/// Replaces what depends on the file's name and folder: flags, names, mailboxes. All else stays,
/// so that a rename for a flag needs no reading. For a Maildir message.
void renameMessage(const MessagePlace& place, Dictionary& attributes, Dictionary& queryOnly);

/// The facts and the first `maxBytes` of the regular file at `path`, links to it followed. Anything
/// else at the path is a failure, found out without blocking.
struct MessageBytes {
  FileFacts facts;
  std::string bytes;
};
Result<MessageBytes> readMessageFile(const std::string& path, std::size_t maxBytes);

}  // namespace thmp
