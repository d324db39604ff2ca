// SPDX-License-Identifier: Apache-2.0
//
// From a message file to what the index takes. Values; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "host/index/file_marks.h"
#include "host/index/index_types.h"
#include "host/store/Library.h"
#include "host/store/MailFolders.h"
#include "host/store/MessageParser.h"

namespace thmp {

/// One file to be read; of a message that has an ID already, or of a new one.
struct FileToRead {
  MessageEntry entry;
  FileStamp stamp;
  std::int64_t id = 0;
};

/// What became of one file: an entry, or the reason why there is none; no reason when it is gone.
struct ReadFile {
  std::optional<IndexEntry> entry;
  std::string failure;
};

/// About how much memory it takes.
std::size_t bytesOf(const ReadFile& file);

/// What the parser asks about the place of a message beside its content.
MessagePlace placeOf(const MailFolder& folder, const MessageEntry& entry, const FileFacts& facts);

/// Makes entries of the index out of message files. Any thread.
class MessageFileReader {
 public:
  explicit MessageFileReader(const ParseLimits& limits) : limits_(limits), parser_(limits) {}

  ReadFile read(const LibraryMailbox& mailbox, const FileToRead& work) const;

 private:
  const ParseLimits limits_;
  const MessageParser parser_;
};

}  // namespace thmp
