// SPDX-License-Identifier: Apache-2.0
#include "client/StoredLog.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "base/plist.h"
#include "platform/linux/posix_io.h"

namespace thmp::client {
namespace {

std::optional<LogEntry> entryOf(const Value& value) {
  const Array parts = value.asArray().value_or(Array());
  if (parts.size() != 3) return std::nullopt;
  const auto date = parts[0].asDate();
  const auto name = parts[1].asText();
  const auto text = parts[2].asText();
  if (!date || !name || !text) return std::nullopt;
  return LogEntry{*date, std::string(*name), std::string(*text)};
}

}  // namespace

StoredLog::StoredLog(const std::string& configHome)
    : folder_(configHome + "/tallyhive-mailhost"), file_(folder_ + "/defaults.plist") {}

Result<std::vector<LogEntry>> StoredLog::read() const {
  std::vector<LogEntry> entries;
  const Descriptor file = openAt(AT_FDCWD, file_, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (!file && (errno == ENOENT || errno == ENOTDIR)) return entries;
  std::optional<std::string> bytes;
  if (file) bytes = readRegularFile(file.get(), kBatchLimits.maxBytes);
  if (!bytes) return Error::posix(errno, "the log cannot be read: " + file_);
  Error error;
  const std::optional<Value> defaults = readPropertyList(*bytes, kBatchLimits, &error);
  if (!defaults) {
    error.description = "the log cannot be read: " + file_ + ": " + error.description;
    return error;
  }
  for (const Value& value : (*defaults)[kStoredLogKey].asArray().value_or(Array())) {
    if (std::optional<LogEntry> entry = entryOf(value)) entries.push_back(*std::move(entry));
  }
  return entries;
}

std::size_t firstNewEntry(const std::vector<LogEntry>& before, const std::vector<LogEntry>& now) {
  for (std::size_t lost = 0; lost < before.size(); ++lost) {
    const std::size_t kept = before.size() - lost;
    if (kept <= now.size() &&
        std::equal(before.begin() + static_cast<std::ptrdiff_t>(lost), before.end(), now.begin())) {
      return kept;
    }
  }
  return 0;
}

}  // namespace thmp::client
