// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxLog.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/linux/posix_io.h"
#include "platform/linux/utf8.h"

#ifdef THMP_HAVE_LIBSYSTEMD
#include <sys/uio.h>
// Where in our sources a line is written says nothing to its reader.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <array>
#endif

namespace thmp {
namespace {

bool isConnectedTo(int fd, const std::string& path) {
  sockaddr_un peer = {};
  socklen_t size = sizeof peer;
  return ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
         peer.sun_family == AF_UNIX && path == peer.sun_path;
}

#ifdef THMP_HAVE_LIBSYSTEMD
bool writeToJournal(const std::string& programName, const std::string& line) {
  std::array<std::string, 3> fields = {"MESSAGE=" + line, "PRIORITY=5",
                                       "SYSLOG_IDENTIFIER=" + programName};
  std::array<iovec, 3> pieces = {};
  for (std::size_t i = 0; i < fields.size(); ++i) {
    pieces[i] = {fields[i].data(), fields[i].size()};
  }
  return ::sd_journal_sendv(pieces.data(), static_cast<int>(pieces.size())) == 0;
}
#else
bool writeToJournal(const std::string& /*programName*/, const std::string& /*line*/) {
  return false;
}
#endif

}  // namespace

LinuxLog::LinuxLog(std::string programName, Places places)
    : programName_(std::move(programName)),
      places_(std::move(places)),
      toStandardError_(!isConnectedTo(places_.standardError, places_.journalStream)) {}

void LinuxLog::write(std::string_view line) noexcept {
  try {
    const std::string shown = escapeControls(line);
    writeToSystem(shown);
    if (toStandardError_) writeAll(places_.standardError, shown + "\n");
  } catch (...) {
    // Without memory there is no line.
  }
}

void LinuxLog::writeToSystem(const std::string& line) {
  if (::access(places_.journalSocket.c_str(), F_OK) == 0 && writeToJournal(programName_, line)) {
    return;
  }
  if (::access(places_.syslogSocket.c_str(), F_OK) == 0) {
    ::syslog(LOG_NOTICE, "%s", line.c_str());
  }
}

}  // namespace thmp
