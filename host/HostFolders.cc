// SPDX-License-Identifier: Apache-2.0
#include "host/HostFolders.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string_view>

namespace thmp {
namespace {

constexpr char kMailFoldersKey[] = "mailFolders";

// "serve 1234", as the holder wrote it.
std::string holder(int descriptor) {
  std::array<char, 64> text{};
  const ssize_t size = ::pread(descriptor, text.data(), text.size(), 0);
  std::string_view line(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
  const std::size_t space = line.find(' ');
  if (space == std::string_view::npos) return "another process";
  return fmt::format("process {} (tallyhive-mailhost {})", line.substr(space + 1),
                     line.substr(0, space));
}

Result<std::string> absoluteFolder(const std::string& path) {
  std::array<char, PATH_MAX> resolved{};
  if (::realpath(path.c_str(), resolved.data()) == nullptr) {
    return Error::posix(errno, "cannot use the mail folder " + path);
  }
  struct stat status {};
  if (::stat(resolved.data(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    return Error::posix(ENOTDIR, "cannot use the mail folder " + path);
  }
  return std::string(resolved.data());
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
  if (!makePrivateFolders(std::filesystem::path(path).parent_path())) {
    return Error::posix(errno, "cannot make the data folder of the host for " + path);
  }
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) return Error::posix(errno, "cannot open " + path);
  std::unique_ptr<HostLock> lock(new HostLock(descriptor));
  if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
    return Error{
        "THMPHost", 1,
        holder(descriptor) + " keeps the index of this data folder up to date; end it first",
        nullptr};
  }
  const std::string line = fmt::format("{} {}", command, ::getpid());
  if (::ftruncate(descriptor, 0) != 0 ||
      ::pwrite(descriptor, line.data(), line.size(), 0) != static_cast<ssize_t>(line.size())) {
    return Error::posix(errno, "cannot write " + path);
  }
  return lock;
}

HostLock::~HostLock() { ::close(descriptor_); }

Result<std::vector<std::string>> chooseMailFolders(const std::vector<std::string>& given,
                                                   Preferences& preferences) {
  std::vector<std::string> folders;
  if (given.empty()) {
    for (const Value& folder : preferences.get(kMailFoldersKey).asArray().value_or(Array())) {
      if (const auto path = folder.asText()) folders.emplace_back(*path);
    }
    return folders;
  }
  Array remembered;
  for (const std::string& path : given) {
    Result<std::string> folder = absoluteFolder(path);
    if (!folder) return folder.error();
    remembered.push_back(Value(*folder));
    folders.push_back(*std::move(folder));
  }
  preferences.set(kMailFoldersKey, remembered);
  return folders;
}

}  // namespace thmp
