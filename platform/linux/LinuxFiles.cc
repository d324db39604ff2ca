// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <utility>

#include "platform/linux/TemporaryFile.h"
#include "platform/linux/posix_io.h"

namespace thmp {
namespace {

bool hasNul(const std::string& path) { return path.find('\0') != std::string::npos; }

/// Whether this process may do `what` with the file, as the effective user.
bool allows(const std::string& path, int what) {
  return !hasNul(path) && ::faccessat(AT_FDCWD, path.c_str(), what, AT_EACCESS) == 0;
}

std::string about(std::string_view what, const std::string& path) {
  return std::string(what) + " " + path;
}

std::string joined(const std::string& directory, const std::string& name) {
  return directory + "/" + name;
}

class LinuxPreparedFile final : public PreparedFile {
 public:
  LinuxPreparedFile(Descriptor folder, std::string directory, std::string name, TemporaryFile file)
      : folder_(std::move(folder)),
        directory_(std::move(directory)),
        name_(std::move(name)),
        file_(std::move(file)) {}

  bool publish(Error* error) override {
    if (file_.linkAs(folder_.get(), name_)) return true;
    return failWithErrno(error, about("cannot name the file", joined(directory_, name_)));
  }

 private:
  const Descriptor folder_;
  const std::string directory_;
  const std::string name_;
  TemporaryFile file_;
};

}  // namespace

LinuxFiles::LinuxFiles(std::string dataHome) : dataHome_(std::move(dataHome)) {}

bool LinuxFiles::exists(const std::string& path) { return allows(path, F_OK); }

bool LinuxFiles::isDirectory(const std::string& path) {
  struct stat status = {};
  return !hasNul(path) && ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool LinuxFiles::isReadable(const std::string& path) { return allows(path, R_OK); }

bool LinuxFiles::isWritable(const std::string& path) { return allows(path, W_OK); }

std::optional<unsigned> LinuxFiles::permissions(const std::string& path) {
  struct stat status = {};
  if (hasNul(path) || ::stat(path.c_str(), &status) != 0) return std::nullopt;
  return status.st_mode & 07777U;
}

std::optional<std::string> LinuxFiles::linkTarget(const std::string& path) {
  if (hasNul(path)) return std::nullopt;
  std::string target(PATH_MAX, '\0');
  const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
  if (length < 0) return std::nullopt;
  target.resize(static_cast<std::size_t>(length));
  return target;
}

std::optional<std::vector<std::string>> LinuxFiles::list(const std::string& directory,
                                                         Error* error) {
  Descriptor folder = openAt(AT_FDCWD, directory, O_RDONLY | O_DIRECTORY);
  std::optional<std::vector<std::string>> names;
  if (folder) names = listOpenedFolder(std::move(folder));
  if (!names) fail(error, Error::fileRead(errno, about("cannot list the folder", directory)));
  return names;
}

void LinuxFiles::walk(const std::string& directory,
                      const std::function<void(const std::string& entry)>& visit) {
  const Descriptor root = openAt(AT_FDCWD, directory, O_RDONLY | O_DIRECTORY);
  if (!root) return;
  // Paths wait, not descriptors: a deep tree would need more than a process has.
  std::vector<std::string> waiting = {""};
  while (!waiting.empty()) {
    const std::string folder = std::move(waiting.back());
    waiting.pop_back();
    const Descriptor open =
        openAt(root.get(), folder.empty() ? "." : folder, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    const auto names = open ? listFolder(open.get()) : std::nullopt;
    if (!names) continue;
    for (const std::string& name : *names) {
      const std::string entry = folder.empty() ? name : joined(folder, name);
      visit(entry);
      const auto status = statAt(open.get(), name);
      if (status && S_ISDIR(status->st_mode)) waiting.push_back(entry);
    }
  }
}

bool LinuxFiles::createDirectories(const std::string& path, Error* error) {
  return createFolders(path) || failWithErrno(error, about("cannot make the folder", path));
}

std::optional<std::string> LinuxFiles::readFile(const std::string& path, std::size_t maxBytes,
                                                Error* error) {
  // Without O_NONBLOCK a FIFO would hold us until somebody writes into it.
  const Descriptor file = openAt(AT_FDCWD, path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  std::optional<std::string> bytes;
  if (file) bytes = readRegularFile(file.get(), maxBytes);
  if (!bytes) failWithErrno(error, about("cannot read the file", path));
  return bytes;
}

std::unique_ptr<PreparedFile> LinuxFiles::prepareFile(const std::string& directory,
                                                      const std::string& name,
                                                      std::string_view bytes, Error* error) {
  const auto failed = [&] {
    failWithErrno(error, about("cannot write the file", joined(directory, name)));
    return nullptr;
  };
  if (!isEntryName(name)) {
    errno = EINVAL;
    return failed();
  }
  Descriptor folder = openAt(AT_FDCWD, directory, O_PATH | O_DIRECTORY);
  if (!folder) return failed();
  auto file = TemporaryFile::make(folder.get(), std::string(kTemporaryFilePrefix) + randomHex(16));
  if (!file || !file->write(bytes) || !file->finish()) return failed();
  return std::make_unique<LinuxPreparedFile>(std::move(folder), directory, name, std::move(*file));
}

bool LinuxFiles::removeEntry(const std::string& directory, const std::string& name, Error* error) {
  const auto failed = [&] {
    return failWithErrno(error, about("cannot remove", joined(directory, name)));
  };
  if (!isEntryName(name)) {
    errno = EINVAL;
    return failed();
  }
  // Nearly always a file; whatever else it is, and any failure, is for what follows.
  if (!directory.empty() && !hasNul(directory) && ::unlink(joined(directory, name).c_str()) == 0)
    return true;
  const Descriptor folder = openAt(AT_FDCWD, directory, O_RDONLY | O_DIRECTORY);
  if (!folder) return errno == ENOENT || failed();
  return removeTree(folder.get(), name) || failed();
}

std::string LinuxFiles::displayName(const std::string& path) {
  const std::size_t last = path.find_last_not_of('/');
  if (last == std::string::npos) return path.empty() ? "" : "/";
  const std::size_t slash = path.rfind('/', last);
  const std::size_t first = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(first, last + 1 - first);
}

std::string LinuxFiles::applicationSupportDirectory() { return dataHome_; }

std::string LinuxFiles::applicationSupportBelowHome() { return ".local/share"; }

void LinuxFiles::removeTemporaryFiles(const std::string& directory) {
  const Descriptor folder = openAt(AT_FDCWD, directory, O_RDONLY | O_DIRECTORY);
  if (!folder) return;
  const auto names = listFolder(folder.get());
  if (!names) return;
  for (const std::string& name : *names) {
    if (name.starts_with(kTemporaryFilePrefix)) ::unlinkat(folder.get(), name.c_str(), 0);
  }
}

}  // namespace thmp
