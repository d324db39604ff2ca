// SPDX-License-Identifier: Apache-2.0
//
// The mail application's own classes, reached by name at run time. None may be assumed present: a
// class that is missing is a null pointer, an optional operation that is missing an empty
// std::function, asked for each time it is used. Any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct sqlite3;

namespace thmp {

class MailBundleClass {
 public:
  virtual ~MailBundleClass() = default;
  virtual void registerBundle() = 0;
};

/// The connection that a read block lends.
class LibraryConnection {
 public:
  virtual ~LibraryConnection() = default;
  /// Valid inside the block only; may be null.
  virtual sqlite3* sqlDB() = 0;
};

class LibraryDatabase {
 public:
  virtual ~LibraryDatabase() = default;
  /// Optional. Runs `block` once, synchronously, before it returns. The connection is lent for that
  /// call only.
  std::function<void(const std::function<bool(LibraryConnection& connection)>& block)>
      performReadBlock;
};

class MailMessage {
 public:
  virtual ~MailMessage() = default;
  virtual std::optional<std::string> path() = 0;
};

/// A message and the mailbox it is in.
struct MailMessagePlace {
  std::int64_t libraryID = 0;
  std::int64_t mailboxID = 0;
};

class MailLibrary {
 public:
  virtual ~MailLibrary() = default;
  /// Optional.
  std::function<std::shared_ptr<LibraryDatabase>()> libraryDatabase;
  /// Optional. Where the library stores the message's data of `type` (0 or 1); empty when it knows
  /// no place.
  std::function<std::string(std::int64_t libraryID, std::int64_t mailboxID, int type)>
      dataPathForMessage;
  /// Optional beside dataPathForMessage. What that gives for each of `messages`, in their order, in
  /// one reading.
  std::function<std::vector<std::string>(std::span<const MailMessagePlace> messages, int type)>
      dataPathsForMessages;
  /// Null when the library has no such message.
  virtual std::shared_ptr<MailMessage> messageWithLibraryID(std::int64_t libraryID) = 0;
};

class MailLibraryClass {
 public:
  virtual ~MailLibraryClass() = default;
  /// Null when the mail application has no library yet.
  virtual std::shared_ptr<MailLibrary> defaultLibrary() = 0;
};

class Mail {
 public:
  virtual ~Mail() = default;
  /// The class of that name, null without one. The plug-in asks for "MVMailBundle".
  virtual std::shared_ptr<MailBundleClass> bundleClass(const std::string& name) = 0;
  /// Likewise; the plug-in asks for "MFLibrary".
  virtual std::shared_ptr<MailLibraryClass> libraryClass(const std::string& name) = 0;
};

}  // namespace thmp
