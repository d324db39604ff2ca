// SPDX-License-Identifier: Apache-2.0
//
// The one place through which the plug-in says what it does. Each line goes to the system log at
// once and is kept for an hour in the host's user defaults, so that the last hour can be read back
// after the fact. Any thread; lives as long as the process.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

#include "base/format.h"
#include "base/mutex.h"
#include "base/value.h"
#include "platform/platform.h"

namespace thmp {

/// The query name of lines that concern no query.
inline constexpr char kNoQuery[] = "n/a";

class PluginLog {
 public:
  /// Where the stored log stands in the user defaults: an array, oldest entry first, of arrays
  /// [date, query name, text].
  static constexpr char kStoredLogKey[] = "THMPMailPlugin.log";
  static constexpr std::size_t kMaxEntries = 500;
  static constexpr double kMaxAgeInSeconds = 3600;
  static constexpr double kKeptAtQuitInSeconds = 300;
  /// Of the name and of the text of a stored entry, each; what is longer is cut.
  static constexpr std::size_t kMaxEntryTextBytes = std::size_t{64} << 10;

  explicit PluginLog(Platform& platform) : platform_(platform) {}
  PluginLog(const PluginLog&) = delete;
  PluginLog& operator=(const PluginLog&) = delete;

  /// logQueryName:format:
  /// A name that is no text, or an empty one, is stored as "none". Never call it with a lock held.
  void logQueryName(const Value& queryName, std::string_view format,
                    std::span<const LogArg> arguments);

  /// As logQueryName, with directives and arguments counted when the program is compiled.
  template <typename... Args>
  void log(const Value& queryName, LogFormat<Args...> format, const Args&... arguments) {
    const std::array<LogArg, sizeof...(Args)> captured{LogArg(arguments)...};
    logQueryName(queryName, format.text(), captured);
  }

  /// One line to the system log alone.
  void writeToSystemLog(std::string_view line) noexcept { platform_.log.write(line); }

  /// What stays of the stored log when the host quits: the last five minutes of a beta build,
  /// nothing of any other.
  void applyRetentionAtQuit();

 private:
  Platform& platform_;
  // Recursive, so that user defaults that notify synchronously do not deadlock the line that made
  // them notify. A leaf but for the user defaults.
  RecursiveMutex mutex_;
};

}  // namespace thmp
