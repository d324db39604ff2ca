// SPDX-License-Identifier: Apache-2.0
//
// The system log: the journal where it runs, else the syslog daemon where there is one; and in any
// case standard error, unless that is the journal itself. Any thread; one call is one line, written
// in one piece.
#pragma once

#include <string>
#include <string_view>

#include "platform/log.h"

namespace thmp {

class LinuxLog final : public SystemLog {
 public:
  /// Where the system's logs are looked for. The journal's library reports success without a
  /// journal, so its socket is looked for first.
  struct Places {
    std::string journalSocket = "/run/systemd/journal/socket";
    /// What standard error is connected to when it is the journal.
    std::string journalStream = "/run/systemd/journal/stdout";
    std::string syslogSocket = "/dev/log";
    int standardError = 2;
  };

  /// `programName` is what the lines stand under.
  explicit LinuxLog(std::string programName) : LinuxLog(std::move(programName), Places()) {}
  LinuxLog(std::string programName, Places places);

  void write(std::string_view line) noexcept override;

 private:
  void writeToSystem(const std::string& line);

  const std::string programName_;
  const Places places_;
  const bool toStandardError_;
};

}  // namespace thmp
