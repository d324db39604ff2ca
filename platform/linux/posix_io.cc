// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/posix_io.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/random.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <utility>

namespace thmp {

bool failWithErrno(Error* error, std::string_view what) {
  const int number = errno;
  return error == nullptr ? false : fail(error, Error::posix(number, what));
}

bool isEntryName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

Descriptor openAt(int folder, const std::string& path, int flags, mode_t mode) {
  if (path.find('\0') != std::string::npos) {
    errno = EINVAL;
    return Descriptor();
  }
  int fd = -1;
  do {
    fd = ::openat(folder, path.c_str(), flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return Descriptor(fd);
}

bool sameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

std::optional<struct stat> statAt(int folder, const std::string& name) {
  struct stat status = {};
  if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
  return status;
}

std::optional<std::string> readRegularFile(int file, std::size_t maxBytes) {
  struct stat status = {};
  if (::fstat(file, &status) != 0) return std::nullopt;
  if (!S_ISREG(status.st_mode)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return std::nullopt;
  }
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size > maxBytes) {
    errno = EFBIG;
    return std::nullopt;
  }
  // The size is a hint only: another process may write meanwhile.
  std::string bytes(size + 1, '\0');
  std::size_t length = 0;
  for (;;) {
    if (length == bytes.size()) {
      if (length > maxBytes) {
        errno = EFBIG;
        return std::nullopt;
      }
      bytes.resize(bytes.size() + 65536);
    }
    const ssize_t count = ::read(file, bytes.data() + length, bytes.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  if (length > maxBytes) {
    errno = EFBIG;
    return std::nullopt;
  }
  bytes.resize(length);
  return bytes;
}

bool writeAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(file, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

std::optional<std::vector<std::string>> listFolder(int folder) {
  // A description of its own, so that the caller's position in the folder stays where it is.
  Descriptor own = openAt(folder, ".", O_RDONLY | O_DIRECTORY);
  if (!own) return std::nullopt;
  return listOpenedFolder(std::move(own));
}

std::optional<std::vector<std::string>> listOpenedFolder(Descriptor folder) {
  struct Close {
    void operator()(DIR* open) const { ::closedir(open); }
  };
  const std::unique_ptr<DIR, Close> stream(::fdopendir(folder.get()));
  if (stream == nullptr) return std::nullopt;
  static_cast<void>(folder.release());
  std::vector<std::string> names;
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(stream.get());
    if (entry == nullptr) break;
    const std::string_view name(entry->d_name);
    if (name != "." && name != "..") names.emplace_back(name);
  }
  if (errno != 0) return std::nullopt;
  return names;
}

namespace {

bool isFolder(const std::string& path) {
  struct stat status = {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// mkdirat(2), then the mode, of which the umask may have taken bits.
bool makeFolder(int parent, const std::string& name) {
  return ::mkdirat(parent, name.c_str(), kPrivateFolderMode) == 0 &&
         ::fchmodat(parent, name.c_str(), kPrivateFolderMode, 0) == 0;
}

}  // namespace

void syncFolder(const std::string& path) {
  const Descriptor folder = openAt(AT_FDCWD, path, O_RDONLY | O_DIRECTORY);
  if (folder) ::fsync(folder.get());
}

bool createFolders(const std::string& path) {
  if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos) {
    errno = EINVAL;
    return false;
  }
  if (isFolder(path)) return true;
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string part = path.substr(0, end);
    if (!isFolder(part)) {
      if (makeFolder(AT_FDCWD, part)) {
        syncFolder(path.substr(0, std::max<std::size_t>(path.rfind('/', end - 1), 1)));
      } else {
        const int number = errno;
        // Somebody else may have made it meanwhile.
        if (!isFolder(part)) {
          errno = number == EEXIST ? ENOTDIR : number;
          return false;
        }
      }
    }
    if (end == std::string::npos) return true;
  }
}

Descriptor openOwnFolder(int parent, const std::string& name, bool create) {
  std::optional<struct stat> status = statAt(parent, name);
  if (!status && errno == ENOENT && create) {
    if (!makeFolder(parent, name) && errno != EEXIST) return Descriptor();
    status = statAt(parent, name);
  }
  if (!status) return Descriptor();
  if (!S_ISDIR(status->st_mode) || status->st_uid != ::geteuid()) {
    errno = EPERM;
    return Descriptor();
  }
  if ((status->st_mode & 07777) != kPrivateFolderMode &&
      ::fchmodat(parent, name.c_str(), kPrivateFolderMode, 0) != 0) {
    return Descriptor();
  }
  Descriptor folder = openAt(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
  struct stat opened = {};
  if (!folder || ::fstat(folder.get(), &opened) != 0) return Descriptor();
  if (!sameFile(opened, *status)) {
    errno = EPERM;
    return Descriptor();
  }
  return folder;
}

namespace {

/// Removes a file, a link or an empty folder. ENOTEMPTY says: a folder that holds something.
bool removeOne(int folder, const std::string& name) {
  if (::unlinkat(folder, name.c_str(), 0) == 0 || errno == ENOENT) return true;
  if (errno != EISDIR && errno != EPERM) return false;
  const int number = errno;
  if (::unlinkat(folder, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) return true;
  if (errno == ENOTDIR) errno = number;
  if (errno == EEXIST) errno = ENOTEMPTY;
  return false;
}

/// Empties the folder `inner` of `outer`: what holds something itself moves up into `outer`.
bool flatten(int outer, const std::string& inner) {
  const Descriptor folder = openAt(outer, inner, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
  if (!folder) return errno == ENOENT;
  const auto names = listFolder(folder.get());
  if (!names) return false;
  for (const std::string& name : *names) {
    if (removeOne(folder.get(), name)) continue;
    if (errno != ENOTEMPTY) return false;
    const std::string moved = std::string(kTemporaryFilePrefix) + randomHex(16);
    if (::renameat(folder.get(), name.c_str(), outer, moved.c_str()) != 0 && errno != ENOENT) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool removeTree(int folder, const std::string& name) {
  // Inner folders move up instead of being descended into, so that neither the stack nor the number
  // of descriptors grows with the depth. Each inner pass takes one level off; the outer attempts
  // are for a folder that somebody fills at the same time.
  for (int attempt = 0; attempt < 100; ++attempt) {
    if (removeOne(folder, name)) return true;
    if (errno != ENOTEMPTY) return false;
    const Descriptor outer = openAt(folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (!outer) return errno == ENOENT;
    for (;;) {
      const auto inner = listFolder(outer.get());
      if (!inner) return false;
      bool moved = false;
      for (const std::string& entry : *inner) {
        if (removeOne(outer.get(), entry)) continue;
        if (errno != ENOTEMPTY || !flatten(outer.get(), entry)) return false;
        moved = true;
      }
      if (!moved) break;
    }
  }
  errno = ENOTEMPTY;
  return false;
}

std::string randomHex(std::size_t count) {
  std::string bytes(count, '\0');
  for (std::size_t filled = 0; filled < count;) {
    const ssize_t got = ::getrandom(bytes.data() + filled, count - filled, 0);
    // A name that could be guessed, or come twice, would hand one person's mail to another.
    if (got < 0 && errno != EINTR) std::abort();
    if (got > 0) filled += static_cast<std::size_t>(got);
  }
  static constexpr std::string_view kDigits = "0123456789abcdef";
  std::string hex;
  hex.reserve(count * 2);
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    hex += kDigits[value >> 4];
    hex += kDigits[value & 15];
  }
  return hex;
}

bool isIgnored(int signal) {
  struct sigaction action = {};
  return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace thmp
