// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/RunningApplications.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <utility>
#include <vector>

#include "platform/linux/posix_io.h"

namespace thmp {
namespace {

/// Readable once the process has ended. None when there is no such process.
Descriptor openProcess(pid_t process) {
  return Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
}

/// Whether the process has ended. `descriptor` may be none: then it is looked for by its number.
bool hasEnded(pid_t process, const Descriptor& descriptor) {
  if (!descriptor) return ::kill(process, 0) != 0 && errno == ESRCH;
  pollfd ready = {descriptor.get(), POLLIN, 0};
  return ::poll(&ready, 1, 0) == 1;
}

/// Asked only where the process seems to have ended: for a moment the lock is ours, and an
/// application that would take it just then had to wait.
bool isLocked(int file) {
  if (::flock(file, LOCK_SH | LOCK_NB) != 0) return errno == EWOULDBLOCK;
  ::flock(file, LOCK_UN);
  return false;
}

/// Field 22 of the process's status: when it began, in clock ticks after the system's start.
std::optional<double> beginOfProcess(pid_t process) {
  const Descriptor status =
      openAt(AT_FDCWD, "/proc/" + std::to_string(process) + "/stat", O_RDONLY);
  if (!status) return std::nullopt;
  const auto text = readRegularFile(status.get(), 4096);
  // The name in field 2 may hold anything, parentheses too.
  const std::size_t name = text ? text->rfind(')') : std::string::npos;
  if (name == std::string::npos) return std::nullopt;
  std::size_t at = name + 1;  // the blank before field 3
  for (int field = 4; field <= 22 && at != std::string::npos; ++field) {
    at = text->find(' ', at + 1);
  }
  if (at == std::string::npos) return std::nullopt;
  std::uint64_t ticks = 0;
  const char* begin = text->data() + at + 1;
  if (std::from_chars(begin, text->data() + text->size(), ticks).ec != std::errc()) {
    return std::nullopt;
  }
  return static_cast<double>(ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double seconds(const timespec& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// Whether the process began after the file was written last, with room for a coarse clock.
bool isYoungerThanFile(pid_t process, const struct stat& file) {
  constexpr double kRoom = 2;
  const std::optional<double> begin = beginOfProcess(process);
  if (!begin) return false;
  timespec wall = {};
  timespec sinceStart = {};
  ::clock_gettime(CLOCK_REALTIME, &wall);
  ::clock_gettime(CLOCK_BOOTTIME, &sinceStart);
  return seconds(wall) - seconds(sinceStart) + *begin > seconds(file.st_mtim) + kRoom;
}

/// An application's file: regular and the user's own.
Descriptor openFile(int folder, const std::string& name, struct stat* status) {
  Descriptor file = openAt(folder, name, O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
  if (!file || ::fstat(file.get(), status) != 0 || !S_ISREG(status->st_mode) ||
      status->st_uid != ::geteuid()) {
    return Descriptor();
  }
  return file;
}

/// Whether the number in the file's name has gone to another process.
bool isReused(pid_t process, int file, const struct stat& status) {
  return isYoungerThanFile(process, status) && !isLocked(file);
}

Descriptor openApplications(const std::string& folder) {
  return openAt(AT_FDCWD, folder, O_RDONLY | O_DIRECTORY);
}

}  // namespace

RunningApplications::RunningApplications(std::string folder, LinuxExecution& execution, Quit quit)
    : folder_(std::move(folder)), execution_(execution), quit_(std::move(quit)) {}

RunningApplications::~RunningApplications() {
  while (!entries_.empty()) forget(entries_.begin(), /*tell=*/false);
}

void RunningApplications::start() {
  MainLoop& loop = execution_.mainQueue();
  // An application that opened its file for writing and ends says so by the close, too.
  watch_ = execution_.watches().makeWatch(
      folder_, [&loop](std::function<void()> closure) { loop.post(std::move(closure)); },
      [this] { scan(); }, IN_CLOSE_WRITE,
      [this](const std::vector<std::string>& names) { tellOfUnseen(names); });
  watch_->resume();
  scan();
}

std::optional<RunningApplications::FileName> RunningApplications::parse(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return std::nullopt;
  FileName parsed;
  parsed.bundleIdentifier = name.substr(0, dot);
  const char* end = name.data() + name.size();
  const auto [at, failure] = std::from_chars(name.data() + dot + 1, end, parsed.process);
  if (failure != std::errc() || at != end || parsed.process <= 0) return std::nullopt;
  return parsed;
}

bool RunningApplications::isRunning(const std::string& folder,
                                    const std::string& bundleIdentifier) {
  const std::vector<Found> all = look(folder);
  return std::any_of(all.begin(), all.end(), [&](const Found& one) {
    return one.running && one.name.bundleIdentifier == bundleIdentifier;
  });
}

std::vector<RunningApplications::Found> RunningApplications::look(const std::string& folder) {
  std::vector<Found> all;
  const Descriptor open = openApplications(folder);
  const auto names = open ? listFolder(open.get()) : std::nullopt;
  if (!names) return all;
  for (const std::string& name : *names) {
    const auto parsed = parse(name);
    if (!parsed) continue;
    struct stat status = {};
    const Descriptor file = openFile(open.get(), name, &status);
    if (!file) continue;
    const bool lives = !hasEnded(parsed->process, openProcess(parsed->process)) &&
                       !isReused(parsed->process, file.get(), status);
    all.push_back({*parsed, lives || isLocked(file.get())});
  }
  return all;
}

void RunningApplications::scan() {
  const Descriptor folder = openApplications(folder_);
  // A folder that is gone holds nothing; one that cannot be read now says nothing.
  if (!folder && errno != ENOENT && errno != ENOTDIR) return;
  std::optional<std::vector<std::string>> names = std::vector<std::string>();
  if (folder) names = listFolder(folder.get());
  if (!names) return;
  std::vector<std::string> known;
  for (const auto& [name, entry] : entries_) known.push_back(name);
  for (const std::string& name : known) {
    const auto entry = entries_.find(name);
    struct stat held = {};
    // A listing may miss names while the folder changes: only the name itself tells.
    const auto status = folder ? statAt(folder.get(), name) : std::nullopt;
    const bool replaced =
        status && ::fstat(entry->second.file.get(), &held) == 0 && !sameFile(*status, held);
    if (status && !replaced) {
      check(name);
    } else if (status || !folder || errno == ENOENT) {
      forget(entry,
             /*tell=*/!status || hasEnded(entry->second.name.process, entry->second.process));
    }
  }
  for (const std::string& name : *names) {
    if (!entries_.contains(name)) add(folder.get(), name);
  }
  firstScan_ = false;
}

void RunningApplications::tellOfUnseen(const std::vector<std::string>& gone) {
  for (const std::string& name : gone) {
    const auto forgotten = forgotten_.find(name);
    if (forgotten != forgotten_.end()) {
      forgotten_.erase(forgotten);
    } else if (const auto parsed = parse(name); parsed && !entries_.contains(name)) {
      quit_(parsed->bundleIdentifier);
    }
  }
}

void RunningApplications::add(int folder, const std::string& fileName) {
  const auto parsed = parse(fileName);
  if (!parsed) return;
  struct stat status = {};
  Descriptor file = openFile(folder, fileName, &status);
  if (!file) return;
  Entry& entry = entries_[fileName];
  entry.name = *parsed;
  entry.ended = isReused(parsed->process, file.get(), status);
  entry.file = std::move(file);
  check(fileName);
}

void RunningApplications::watchProcess(const std::string& fileName, Entry& entry) {
  entry.process = openProcess(entry.name.process);
  if (!entry.process) return;
  execution_.mainQueue().watchDescriptor(entry.process.get(),
                                         [this, fileName] { check(fileName); });
}

void RunningApplications::unwatchProcess(Entry& entry) {
  if (!entry.process) return;
  execution_.mainQueue().unwatchDescriptor(entry.process.get());
  entry.process.reset();
}

void RunningApplications::check(const std::string& fileName) {
  const auto found = entries_.find(fileName);
  if (found == entries_.end()) return;
  Entry& entry = found->second;
  if (!entry.ended && !entry.process) watchProcess(fileName, entry);
  if (!entry.ended && !hasEnded(entry.name.process, entry.process)) return;
  entry.ended = true;
  unwatchProcess(entry);
  if (::flock(entry.file.get(), LOCK_SH | LOCK_NB) != 0) {
    // A child holds it still, or an application that was given the same number holds it already.
    if (!hasEnded(entry.name.process, openProcess(entry.name.process))) {
      entry.ended = false;
      watchProcess(fileName, entry);
    }
    return;
  }
  if (removeFile(fileName, entry)) return forget(found, /*tell=*/true);
  const std::string bundleIdentifier = entry.name.bundleIdentifier;
  if (!std::exchange(entry.told, true) && !firstScan_) quit_(bundleIdentifier);
}

bool RunningApplications::removeFile(const std::string& fileName, const Entry& entry) const {
  const Descriptor folder = openApplications(folder_);
  struct stat held = {};
  if (!folder || ::fstat(entry.file.get(), &held) != 0) return errno == ENOENT;
  const auto status = statAt(folder.get(), fileName);
  if (!status) return errno == ENOENT;
  return !sameFile(*status, held) || ::unlinkat(folder.get(), fileName.c_str(), 0) == 0 ||
         errno == ENOENT;
}

void RunningApplications::forget(std::map<std::string, Entry>::iterator entry, bool tell) {
  unwatchProcess(entry->second);
  const std::string bundleIdentifier = entry->second.name.bundleIdentifier;
  const bool told = entry->second.told;
  forgotten_.insert(entry->first);
  entries_.erase(entry);
  if (tell && !told && !firstScan_) quit_(bundleIdentifier);
}

}  // namespace thmp
