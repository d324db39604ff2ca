// SPDX-License-Identifier: Apache-2.0
#include "client/StoredLog.h"

#include <algorithm>

#include "platform/linux/LinuxPreferences.h"

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
    : folder_(configHome + "/tallyhive-mailhost"), file_(defaultsFile(folder_)) {}

Result<std::vector<LogEntry>> StoredLog::read() const {
  const Result<Dictionary> defaults = lookAtDefaults(folder_);
  if (!defaults) {
    Error error = defaults.error();
    error.description = "the log cannot be read: " + error.description;
    return error;
  }
  std::vector<LogEntry> entries;
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
