// SPDX-License-Identifier: Apache-2.0
//
// The plug-in's stored log as its host keeps it in the user defaults: the last hour, at most 500
// lines. The file is only read; it is replaced whole by its writer, so no lock is needed. One
// thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/date.h"
#include "base/result.h"
#include "base/value.h"

namespace thmp::client {

/// Where the log stands in the defaults: an array, oldest entry first, of [date, query name, text].
inline constexpr char kStoredLogKey[] = "THMPMailPlugin.log";

struct LogEntry {
  Date date;
  std::string queryName;
  std::string text;

  friend bool operator==(const LogEntry&, const LogEntry&) = default;
};

class StoredLog {
 public:
  /// `configHome`: the folder of XDG_CONFIG_HOME.
  explicit StoredLog(const std::string& configHome);

  const std::string& folder() const { return folder_; }
  const std::string& file() const { return file_; }

  /// All entries now; empty without a file or without a log in it. An entry that is none is left
  /// out.
  Result<std::vector<LogEntry>> read() const;

 private:
  const std::string folder_;
  const std::string file_;
};

/// The index in `now` of the first entry that came after `before` was read. The log loses entries
/// at its front and gains them at its end.
std::size_t firstNewEntry(const std::vector<LogEntry>& before, const std::vector<LogEntry>& now);

}  // namespace thmp::client
