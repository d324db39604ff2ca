// SPDX-License-Identifier: Apache-2.0
//
// What the host has of the user's mail at this moment: who keeps it up to date, which mail folders
// there are, how much of them is in the index. Read without changing anything, whether or not
// another process serves meanwhile; the numbers are then those of a moment in between.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/date.h"
#include "base/result.h"
#include "host/HostFolders.h"
#include "host/store/MailFolders.h"
#include "platform/linux/XdgFolders.h"

namespace thmp {

struct MailFolderStatus {
  enum class State : std::uint8_t {
    kReadable,
    kMissing,
    kUnreadable,
    kNoLongerNamed,  // its mail leaves with the next update
  };
  std::string path;
  State state = State::kReadable;
  /// Why it cannot be read, in words; empty when it can.
  std::string reason;
  std::uint64_t mailboxes = 0;
  std::uint64_t messages = 0;
};

struct IncompleteFile {
  std::int64_t id = 0;
  /// Empty when the file cannot be found now.
  std::string path;
  std::vector<std::string> reasons;
};

struct HostStatus {
  std::optional<HostLock::Holder> keeper;
  std::vector<MailFolderStatus> folders;

  /// Message files in the mail folders that can be read.
  std::uint64_t seen = 0;
  /// Of those, the ones in the index as they are now.
  std::uint64_t indexed = 0;
  /// Of those, the ones that are new or changed and will be read.
  std::uint64_t waiting = 0;
  /// Found by what could be read of them.
  std::vector<IncompleteFile> incomplete;
  /// Could not be opened at all.
  std::vector<UnreadablePath> failed;
  /// When the index was last brought up to date; empty before the first time.
  std::optional<Date> lastUpdate;

  // In bytes, as they stand on the disk.
  std::uint64_t librarySize = 0;
  std::uint64_t indexSize = 0;
  std::uint64_t pasteboardsSize = 0;
};

/// Why library and index could not be opened, and what to do, in one line.
std::string whyNotOpen(const HostFolders& places);

/// An error, in one line that says what to do, when library or index cannot be opened. `named` are
/// the mail folders that the user named. Looks up at most `mostPaths` paths of incomplete files.
Result<HostStatus> lookAtHost(const XdgFolders& xdg, const std::vector<std::string>& named,
                              std::size_t mostPaths);

}  // namespace thmp
