// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/TemporaryFile.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "platform/linux/posix_io.h"

namespace thmp {
namespace {

std::string pathOfDescriptor(int file) { return "/proc/self/fd/" + std::to_string(file); }

/// Only /proc leads from a descriptor back to its file. Asked once, for each look into it is dear.
bool descriptorsHavePaths() {
  static const bool have = ::access("/proc/self/fd", F_OK) == 0;
  return have;
}

/// Where O_TMPFILE does not exist, the flag reads as O_DIRECTORY with writing: EISDIR or ENOENT.
bool hasNoUnnamedFiles(int errorNumber) {
  return errorNumber == EOPNOTSUPP || errorNumber == EISDIR || errorNumber == ENOENT ||
         errorNumber == EINVAL;
}

}  // namespace

TemporaryFile::TemporaryFile(Descriptor folder, Descriptor file, std::string name)
    : folder_(std::move(folder)), file_(std::move(file)), name_(std::move(name)) {}

TemporaryFile::TemporaryFile(TemporaryFile&& other) noexcept
    : folder_(std::move(other.folder_)),
      file_(std::move(other.file_)),
      name_(std::exchange(other.name_, std::string())) {}

TemporaryFile::~TemporaryFile() {
  if (!name_.empty()) ::unlinkat(folder_.get(), name_.c_str(), 0);
}

std::optional<TemporaryFile> TemporaryFile::make(int folder, std::string nameIfNeeded) {
  Descriptor file = openAt(folder, ".", O_TMPFILE | O_RDWR, kPrivateFileMode);
  if (!file && !hasNoUnnamedFiles(errno)) return std::nullopt;
  if (!file || !descriptorsHavePaths()) return makeNamed(folder, std::move(nameIfNeeded));
  if (::fchmod(file.get(), kPrivateFileMode) != 0) return std::nullopt;
  return TemporaryFile(Descriptor(), std::move(file), std::string());
}

std::optional<TemporaryFile> TemporaryFile::makeNamed(int folder, std::string name) {
  Descriptor own = openAt(folder, ".", O_PATH | O_DIRECTORY);
  if (!own) return std::nullopt;
  Descriptor file = openAt(folder, name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, kPrivateFileMode);
  if (!file) return std::nullopt;
  TemporaryFile made(std::move(own), std::move(file), std::move(name));
  if (::fchmod(made.descriptor(), kPrivateFileMode) != 0) return std::nullopt;
  return made;
}

bool TemporaryFile::write(std::string_view bytes) { return writeAll(file_.get(), bytes); }

bool TemporaryFile::finish() { return name_.empty() || file_.reset(); }

bool TemporaryFile::linkAs(int folder, const std::string& name) {
  if (name_.empty()) {
    return ::linkat(AT_FDCWD, pathOfDescriptor(file_.get()).c_str(), folder, name.c_str(),
                    AT_SYMLINK_FOLLOW) == 0;
  }
  if (::renameat2(folder_.get(), name_.c_str(), folder, name.c_str(), RENAME_NOREPLACE) == 0) {
    name_.clear();
    return true;
  }
  if (errno != EINVAL && errno != ENOSYS) return false;
  // The file system cannot rename without replacing. The destructor takes the first name away.
  return ::linkat(folder_.get(), name_.c_str(), folder, name.c_str(), 0) == 0;
}

bool TemporaryFile::renameOver(int folder, const std::string& name) {
  if (::renameat(folder_.get(), name_.c_str(), folder, name.c_str()) != 0) return false;
  name_.clear();
  return true;
}

}  // namespace thmp
