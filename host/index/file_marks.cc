// SPDX-License-Identifier: Apache-2.0
#include "host/index/file_marks.h"

#include <sys/stat.h>

#include <array>

#include "host/index/message_record.h"

namespace thmp {

std::optional<FileStamp> stampOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return FileStamp{status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec, status.st_ino};
}

FileStamp stampOf(const FileFacts& facts) {
  return {facts.size, facts.modifiedSeconds, facts.modifiedNanoseconds, facts.inode};
}

std::uint64_t contentMark(const FileStamp& stamp) {
  const std::array<std::int64_t, 4> numbers{stamp.size, stamp.seconds, stamp.nanoseconds,
                                            static_cast<std::int64_t>(stamp.inode)};
  const std::uint64_t mark =
      fingerprint({reinterpret_cast<const char*>(numbers.data()), sizeof numbers});
  return mark == 0 ? 1 : mark;
}

std::uint64_t placeMark(const MailFolder& folder, const MessageEntry& entry) {
  return fingerprint(entry.part + "/" + entry.file + "/" + folder.identifier);
}

}  // namespace thmp
