// SPDX-License-Identifier: Apache-2.0
//
// By what a file is known to be the one that was read: numbers that change when its content, or its
// place in the mail, does. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/store/MailFolders.h"

namespace thmp {

struct FileStamp {
  std::int64_t size = 0;  // bytes
  // Of the last modification, since 1970 UTC.
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;
  std::uint64_t inode = 0;
};

/// Empty when nothing is there, or a link that leads nowhere.
std::optional<FileStamp> stampOf(const std::string& path);
FileStamp stampOf(const FileFacts& facts);

/// Stands for the content: the same for two stamps that are the same.
std::uint64_t contentMark(const FileStamp& stamp);
/// No file has this mark: what bears it is read again by the next update.
inline constexpr std::uint64_t kUnsettledMark = 0;

/// Stands for the mailbox's folder and the file's name, flags included.
std::uint64_t placeMark(const MailFolder& folder, const MessageEntry& entry);

}  // namespace thmp
