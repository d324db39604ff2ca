// SPDX-License-Identifier: Apache-2.0
#include "host/HostFolders.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <thread>

#include "base/plist.h"
#include "host/store/MailFolders.h"
#include "host/store/folder_names.h"
#include "platform/linux/utf8.h"

namespace thmp {
namespace {

// A look at the lock by another process holds it for a moment.
constexpr int kLockAttempts = 10;
constexpr std::chrono::milliseconds kBetweenAttempts{10};

// What the holder wrote: "serve 1234".
HostLock::Holder writtenHolder(int descriptor) {
  std::array<char, 64> text{};
  const ssize_t size = ::pread(descriptor, text.data(), text.size(), 0);
  const std::string_view line(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
  const std::size_t space = std::min(line.find(' '), line.size());
  HostLock::Holder holder{std::string(line.substr(0, space)), 0};
  const std::string_view number = line.substr(std::min(space + 1, line.size()));
  std::from_chars(number.data(), number.data() + number.size(), holder.process);
  return holder;
}

bool lockExclusively(int descriptor) {
  for (int attempt = 1;; ++attempt) {
    if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0) return true;
    if (attempt == kLockAttempts) return false;
    std::this_thread::sleep_for(kBetweenAttempts);
  }
}

Error unusable(int number, const std::string& path) {
  Error error = Error::posix(number, "cannot use the mail folder " + path);
  error.description += "; name another with --mail DIR";
  return error;
}

Result<std::string> absoluteFolder(const std::string& path) {
  if (path.empty()) return Error{"THMPHost", 6, "--mail names no folder", nullptr};
  std::array<char, PATH_MAX> resolved{};
  if (::realpath(path.c_str(), resolved.data()) == nullptr) {
    return unusable(errno, path);
  }
  struct stat status {};
  if (::stat(resolved.data(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    return unusable(ENOTDIR, path);
  }
  std::string folder(resolved.data());
  if (!isUtf8(folder)) {
    return Error{"THMPHost", 4,
                 "cannot use the mail folder " + escapedPath(folder) +
                     ": its path is not UTF-8; rename it first",
                 nullptr};
  }
  if (const std::string why = lookAt(folder).unreadable; !why.empty()) {
    return Error{"THMPHost", 5,
                 fmt::format("cannot read the mail folder {}: {}; make it readable for you (user "
                             "{}) or name another",
                             folder, why, ::geteuid()),
                 nullptr};
  }
  return folder;
}

Error notOurs(int number, const std::string& what) {
  Error error = Error::posix(number, what);
  if (number == EACCES || number == EROFS) {
    error.description += "; make it writable for you, or choose another place with XDG_DATA_HOME";
  }
  return error;
}

// Private like every folder of ours.
bool makePrivateFolders(const std::string& path) {
  std::error_code failure;
  const std::filesystem::path folder(path);
  if (std::filesystem::is_directory(folder, failure)) return true;
  if (folder.has_parent_path() && folder.parent_path() != folder &&
      !makePrivateFolders(folder.parent_path())) {
    return false;
  }
  return ::mkdir(path.c_str(), 0700) == 0 || errno == EEXIST;
}

}  // namespace

Result<std::unique_ptr<HostLock>> HostLock::take(const std::string& path,
                                                 const std::string& command) {
  const std::string folder = std::filesystem::path(path).parent_path();
  if (!makePrivateFolders(folder)) return notOurs(errno, "cannot make the folder " + folder);
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) return notOurs(errno, "cannot open " + path);
  std::unique_ptr<HostLock> lock(new HostLock(descriptor));
  if (!lockExclusively(descriptor)) {
    return Error{"THMPHost", 1, writtenHolder(descriptor).refusal(), nullptr};
  }
  const std::string line = fmt::format("{} {}", command, ::getpid());
  if (::ftruncate(descriptor, 0) != 0 ||
      ::pwrite(descriptor, line.data(), line.size(), 0) != static_cast<ssize_t>(line.size())) {
    return Error::posix(errno, "cannot write " + path);
  }
  return lock;
}

std::string HostLock::Holder::text() const {
  if (process == 0) return "another process";
  return fmt::format("process {} (tallyhive-mailhost {})", process, command);
}

std::string HostLock::Holder::refusal() const {
  return text() + " keeps the index of this data folder up to date" +
         (command == "serve" ? " already; to name other folders end it first"
                             : "; wait until it is done");
}

std::optional<HostLock::Holder> HostLock::holder(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (descriptor < 0) return std::nullopt;
  std::optional<Holder> holder;
  if (::flock(descriptor, LOCK_SH | LOCK_NB) != 0) holder = writtenHolder(descriptor);
  ::close(descriptor);
  return holder;
}

HostLock::~HostLock() { ::close(descriptor_); }

Result<std::vector<std::string>> rememberedMailFolders(const XdgFolders& xdg) {
  const std::string folder = HostFolders(xdg).defaults;
  const Result<Dictionary> defaults = lookAtDefaults(folder);
  if (!defaults && defaults.error().domain == kPropertyListErrorDomain) {
    return Error{"THMPHost", 8,
                 defaultsFile(folder) +
                     " is damaged; it named the mail folders: name them again with "
                     "tallyhive-mailhost index --mail DIR",
                 nullptr};
  }
  if (!defaults) {
    return Error{"THMPHost", 7,
                 "cannot read " + defaults.error().description +
                     "; it names the mail folders: make it readable for you",
                 nullptr};
  }
  std::vector<std::string> folders;
  for (const Value& one : (*defaults)[kMailFoldersKey].asArray().value_or(Array())) {
    if (const auto text = one.asText()) folders.emplace_back(*text);
  }
  return folders;
}

Result<std::vector<std::string>> chooseMailFolders(const std::vector<std::string>& given,
                                                   const XdgFolders& xdg) {
  if (given.empty()) return rememberedMailFolders(xdg);
  std::vector<std::string> folders;
  folders.reserve(given.size());
  for (const std::string& path : given) {
    Result<std::string> folder = absoluteFolder(path);
    if (!folder) return folder.error();
    folders.push_back(*std::move(folder));
  }
  return folders;
}

bool rememberMailFolders(const std::vector<std::string>& folders, LinuxPreferences& preferences) {
  Array remembered;
  remembered.reserve(folders.size());
  for (const std::string& folder : folders) remembered.push_back(Value(folder));
  preferences.set(kMailFoldersKey, remembered);
  return preferences.flush();
}

std::string unreachableFolderText(const std::string& folder, const std::string& why) {
  return fmt::format(
      "the mail folder {} cannot be reached: {}; its mail is kept, and not found until it is back",
      folder, why);
}

}  // namespace thmp
