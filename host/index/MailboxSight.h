// SPDX-License-Identifier: Apache-2.0
//
// A mailbox as it is on disk now, beside what the library has of it. Values; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/result.h"
#include "host/index/file_marks.h"
#include "host/index/index_types.h"
#include "host/store/Library.h"
#include "host/store/MailFolders.h"

namespace thmp {

struct SeenFile {
  MessageEntry entry;
  /// Empty when the file had been renamed again by the time it was looked at.
  std::optional<FileStamp> stamp;
};

/// The files of one mailbox as they are, and which of the library's messages are gone.
struct MailboxSight {
  std::vector<SeenFile> files;  // by name, each once
  std::vector<std::int64_t> gone;
  std::vector<UnreadablePath> failed;
  std::string stamp;  // of the listing that shows just these
};

/// What one listing shows; who is gone is left open.
MailboxSight sightOf(const MailFolder& folder, const std::vector<LibraryMessage>& messages,
                     const MailboxListing& listing);

/// Looks at a mailbox of which the library has `messages`, in the order of their names. A listing
/// may miss a file that is renamed meanwhile; so a name is believed gone only when several listings
/// have missed it, the last one of a folder that did not change, and its file is not where it was.
/// Empty when the mailbox itself is gone; an error when it cannot be listed. Any thread.
Result<std::optional<MailboxSight>> lookAtMailbox(const MailFolder& folder,
                                                  const std::vector<LibraryMessage>& messages);

}  // namespace thmp
