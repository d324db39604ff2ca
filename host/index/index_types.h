// SPDX-License-Identifier: Apache-2.0
//
// What is put into the index and told by it. Values; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/value.h"
#include "host/index/WordTable.h"
#include "host/store/Library.h"

namespace thmp {

/// What the index remembers of the file that it read.
struct IndexedFile {
  /// Stands for its size, modification time and inode.
  std::uint64_t content = 0;
  /// Stands for its folder and name.
  std::uint64_t place = 0;
  bool incomplete = false;

  friend bool operator==(const IndexedFile&, const IndexedFile&) = default;
};

/// What the index remembers of a mailbox.
struct IndexedMailbox {
  MailboxTally tally;
  std::uint64_t incomplete = 0;
  /// The mailboxStamp() under which all of it was last seen and is in the index.
  std::string stamp;
};

/// A message to be put into the index, in place of what stands under its ID.
struct IndexEntry {
  std::int64_t id = 0;
  std::int64_t mailbox = 0;
  IndexedFile file;
  Dictionary attributes;
  Dictionary queryOnly;
  /// Empty optional: the words that stand in the index stay.
  std::optional<std::string> textContent;
  /// Of `textContent` and the attributes, where they are at hand already.
  std::optional<MessageWords> words;
  /// Why the message was not read whole; what stands in the index stays when the words do.
  std::vector<std::string> incomplete;
};

/// What one commit changed. Each list in ascending order.
struct IndexChange {
  std::vector<std::int64_t> added;
  std::vector<std::int64_t> changed;
  std::vector<std::int64_t> removed;
};

/// Why the index does not hold what it held before.
enum class IndexLoss : std::uint8_t { kNone, kMissing, kDamaged, kOtherVersion };

struct IncompleteMessage {
  std::int64_t id = 0;
  std::string reason;
};

}  // namespace thmp
