// SPDX-License-Identifier: Apache-2.0
//
// From library IDs to message files: through the mail application's library object, reached by
// name, and its SQLite database, read through the connection that the library lends for one read.
//
// Any thread. It keeps nothing but the library object, from the first time that one is offered, for
// the life of the process. Nothing here reports an error: each failure leads to the next strategy,
// and an item that ends without a path is left out.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "maillibrary/FoundItem.h"
#include "platform/files.h"
#include "platform/mail.h"

namespace thmp {

class MailLibraryLookup {
 public:
  MailLibraryLookup(Mail& mail, Files& files) : mail_(mail), files_(files) {}
  MailLibraryLookup(const MailLibraryLookup&) = delete;
  MailLibraryLookup& operator=(const MailLibraryLookup&) = delete;

  /// library
  /// Null when the mail application offers none; the next call asks again.
  std::shared_ptr<MailLibrary> library();

  /// scPerformSynchronousSqliteBlock:
  /// True when `block` was handed to the library's read path, which says nothing of the SQL inside;
  /// false, and no call, when an operation is missing. The handle may be null, and is not to be
  /// kept after the block.
  bool scPerformSynchronousSqliteBlock(const std::function<void(sqlite3* handle)>& block);

  /// loadFilePaths:foundItemIndex:
  /// The items that have a path after the call, in order, numbered on from `foundItemIndex`, which
  /// is advanced by their count.
  std::vector<FoundItem> loadFilePaths(std::vector<FoundItem> items, std::uint64_t& foundItemIndex);

  /// emlxPathForMessageWithLibraryID:
  std::optional<std::string> emlxPathForMessageWithLibraryID(std::int64_t libraryID);

 private:
  /// Of each message where its data is, in order; empty when it is nowhere.
  std::vector<std::string> dataPaths(const std::vector<std::int64_t>& libraryIDs);
  std::vector<std::string> existingDataPaths(const MailLibrary& library,
                                             const std::vector<MailMessagePlace>& messages);
  std::optional<std::string> messagePath(std::int64_t libraryID);

  Mail& mail_;
  Files& files_;
  Mutex mutex_;
  std::shared_ptr<MailLibrary> library_ THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
