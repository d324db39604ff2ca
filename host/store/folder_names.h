// SPDX-License-Identifier: Apache-2.0
//
// What the names of mail folders mean. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace thmp {

/// `path` with what is not UTF-8 in it as %XX.
std::string escapedPath(std::string_view path);

/// A folder's name out of the modified UTF-7 of mail servers; as it stands when it is none.
std::string decodeModifiedUtf7(std::string_view name);

/// What `kMDItemMailboxes` says of the mailbox at `path`: "mailbox." and a role (inbox, drafts,
/// sent, junk, trash, archive), else the folder's own name in lower case. The inbox is the mail
/// folder itself, any folder called INBOX, and any with folders in it whose names begin with a dot.
std::string mailboxIdentifier(std::string_view root, std::string_view path, bool hasDotFolder);

}  // namespace thmp
