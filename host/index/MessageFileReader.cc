// SPDX-License-Identifier: Apache-2.0
#include "host/index/MessageFileReader.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "host/index/index_tables.h"

namespace thmp {

namespace {

// Seconds by which a file server's clock may be ahead of ours.
constexpr std::int64_t kClockSlack = 60;

// The clock that file systems stamp their changes with.
std::pair<std::int64_t, std::int64_t> stampClock() {
  struct timespec now {};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return {now.tv_sec, now.tv_nsec};
}

// Where an .emlx message's mail program keeps its attachments: ../Attachments/NUMBER beside the
// folder of the message.
std::vector<std::string> attachmentPaths(const std::string& messageFile) {
  namespace fs = std::filesystem;
  const fs::path file(messageFile);
  const std::string name = file.filename().string();
  const fs::path folder =
      file.parent_path().parent_path() / "Attachments" / name.substr(0, name.find('.'));
  std::vector<std::string> paths;
  std::error_code error;
  fs::recursive_directory_iterator at(folder, fs::directory_options::skip_permission_denied, error);
  for (; !error && at != fs::recursive_directory_iterator(); at.increment(error)) {
    std::error_code ignored;
    if (at->is_regular_file(ignored)) paths.push_back(at->path().string());
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace

std::size_t bytesOf(const ReadFile& file) {
  if (!file.entry) return 0;
  const IndexEntry& entry = *file.entry;
  return entry.textContent->size() + entry.words->text.size() + entry.words->rest.size();
}

MessagePlace placeOf(const MailFolder& folder, const MessageEntry& entry, const FileFacts& facts) {
  MessagePlace place;
  place.format = messageFormat(folder.format, entry.file);
  place.fileName = entry.file;
  place.isNew = folder.format == MessageFormat::kMaildir && entry.part == "new";
  place.mailboxIdentifier = folder.identifier;
  place.facts = facts;
  if (place.format == MessageFormat::kEmlx) {
    place.attachmentPaths = attachmentPaths(messagePath(folder.path, entry.part, entry.file));
  }
  return place;
}

ReadFile MessageFileReader::read(const LibraryMailbox& mailbox, const FileToRead& work) const {
  const std::string path = messagePath(mailbox.folder.path, work.entry.part, work.entry.file);
  const auto started = stampClock();
  auto file = readMessageFile(path, limits_.fileBytes);
  if (!file) {
    const auto code = static_cast<int>(file.error().code);
    return {std::nullopt, code == ENOENT ? "" : std::generic_category().message(code)};
  }
  ParsedMessage parsed =
      parser_.parse(file->bytes, placeOf(mailbox.folder, work.entry, file->facts));
  IndexEntry entry;
  entry.id = work.id;
  entry.mailbox = mailbox.id;
  const FileStamp stamp = stampOf(file->facts);
  // A stamp as young as this would not show a change that follows at once. One far ahead would.
  const bool isSettled = std::pair(stamp.seconds, stamp.nanoseconds) < started ||
                         stamp.seconds > started.first + kClockSlack;
  entry.file.content = isSettled ? contentMark(stamp) : kUnsettledMark;
  entry.file.place = placeMark(mailbox.folder, work.entry);
  entry.file.incomplete = !parsed.incomplete.empty();
  entry.attributes = std::move(parsed.attributes);
  entry.queryOnly = std::move(parsed.queryOnly);
  entry.textContent = std::move(parsed.textContent);
  entry.incomplete = std::move(parsed.incomplete);
  entry.words = wordsOf(entry);
  return {std::move(entry), {}};
}

}  // namespace thmp
