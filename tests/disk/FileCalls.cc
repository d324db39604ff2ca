// SPDX-License-Identifier: Apache-2.0
#include "tests/disk/FileCalls.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <mutex>
#include <new>

namespace thmp::disk {
namespace {

using What = FileCall::What;

FileCallHook* theHook = nullptr;
bool unnamedFiles = true;

// Never destroyed: files are closed until the very end of the process.
std::mutex& callsMutex() {
  static auto* const mutex = new std::mutex;
  return *mutex;
}

template <typename... Arguments>
long kernel(long number, Arguments... arguments) {
  return ::syscall(number, arguments...);
}

template <typename Function>
long told(const FileCall& call, const Function& function) {
  const std::lock_guard lock(callsMutex());
  if (theHook == nullptr) return function();
  const int before = errno;
  theHook->before(call);
  errno = before;
  const long result = function();
  const int after = errno;
  if (result >= 0) theHook->after(call, result);
  errno = after;
  return result;
}

long open(int folder, const char* path, int flags, mode_t mode) {
  if (!unnamedFiles && (flags & O_TMPFILE) == O_TMPFILE) {
    errno = EOPNOTSUPP;
    return -1;
  }
  return told({.what = What::kOpen, .file = folder, .path = path, .flags = flags},
              [&] { return kernel(SYS_openat, folder, path, flags, mode); });
}

long write(int file, const void* bytes, std::size_t count, off_t place) {
  const FileCall call{.what = What::kWrite,
                      .file = file,
                      .bytes = {static_cast<const char*>(bytes), count},
                      .place = place};
  return told(call, [&] { return kernel(SYS_pwrite64, file, bytes, count, place); });
}

long writeOn(int file, const void* bytes, std::size_t count) {
  FileCall call{.what = What::kWrite,
                .file = file,
                .bytes = {static_cast<const char*>(bytes), count},
                .place = kernel(SYS_lseek, file, 0, SEEK_CUR)};
  // Pipes and terminals are no files.
  if (call.place < 0) return kernel(SYS_write, file, bytes, count);
  return told(call, [&] { return kernel(SYS_write, file, bytes, count); });
}

long truncate(int file, off_t length) {
  return told({.what = What::kTruncate, .file = file, .place = length},
              [&] { return kernel(SYS_ftruncate, file, length); });
}

long sync(int file) {
  return told({.what = What::kSync, .file = file}, [] { return 0L; });
}

long link(int folder, const char* path, int toFolder, const char* toPath, int flags) {
  return told(
      {.what = What::kLink, .file = folder, .path = path, .toFolder = toFolder, .toPath = toPath},
      [&] { return kernel(SYS_linkat, folder, path, toFolder, toPath, flags); });
}

long rename(int folder, const char* path, int toFolder, const char* toPath, unsigned flags) {
  return told(
      {.what = What::kRename, .file = folder, .path = path, .toFolder = toFolder, .toPath = toPath},
      [&] { return kernel(SYS_renameat2, folder, path, toFolder, toPath, flags); });
}

long unlink(int folder, const char* path, int flags) {
  return told({.what = What::kUnlink, .file = folder, .path = path},
              [&] { return kernel(SYS_unlinkat, folder, path, flags); });
}

long makeFolder(int folder, const char* path, mode_t mode) {
  return told({.what = What::kMakeFolder, .file = folder, .path = path},
              [&] { return kernel(SYS_mkdirat, folder, path, mode); });
}

class Killer final : public FileCallHook {
 public:
  Killer(int call, bool halfWritten, bool& isWrite)
      : left_(call), halfWritten_(halfWritten), isWrite_(isWrite) {}

  void before(const FileCall& call) override {
    if (--left_ > 0) return;
    isWrite_ = call.what == What::kWrite;
    if (halfWritten_ && call.what == What::kWrite) {
      kernel(SYS_pwrite64, call.file, call.bytes.data(), call.bytes.size() / 2, call.place);
    }
    kernel(SYS_kill, ::getpid(), SIGKILL);
    // The signal may meet another thread first.
    for (;;) ::pause();
  }

 private:
  int left_;
  const bool halfWritten_;
  bool& isWrite_;
};

}  // namespace

void setFileCallHook(FileCallHook* hook) {
  const std::lock_guard lock(callsMutex());
  theHook = hook;
}

void setUnnamedFiles(bool allowed) {
  const std::lock_guard lock(callsMutex());
  unnamedFiles = allowed;
}

End killAt(int call, bool halfWritten, const std::function<void()>& operation) {
  void* const shared =
      ::mmap(nullptr, sizeof(bool), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  EXPECT_NE(shared, MAP_FAILED);
  bool& isWrite = *new (shared) bool(false);
  const pid_t child = ::fork();
  if (child == 0) {
    Killer killer(call, halfWritten, isWrite);
    setFileCallHook(&killer);
    operation();
    setFileCallHook(nullptr);
    ::_exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  const bool wasWrite = isWrite;
  ::munmap(shared, sizeof(bool));
  if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) {
    return wasWrite ? End::kKilledAtWrite : End::kKilled;
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  return End::kClean;
}

}  // namespace thmp::disk

// Under the names of the C library, without its declarations: those differ from system to system.
#define THMP_IN_PLACE_OF(name, type, own, ...)                                           \
  extern "C" __attribute__((visibility("default"))) type own(__VA_ARGS__) __asm__(name); \
  type own(__VA_ARGS__)

namespace {

mode_t modeOf(int flags, va_list arguments) {
  return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(arguments, mode_t)
                                                                    : mode_t{0};
}

int asInt(long result) { return static_cast<int>(result); }

}  // namespace

#define THMP_OPEN(name, own)                                           \
  THMP_IN_PLACE_OF(name, int, own, const char* path, int flags, ...) { \
    va_list arguments;                                                 \
    va_start(arguments, flags);                                        \
    const mode_t mode = modeOf(flags, arguments);                      \
    va_end(arguments);                                                 \
    return asInt(thmp::disk::open(AT_FDCWD, path, flags, mode));       \
  }
#define THMP_OPENAT(name, own)                                                     \
  THMP_IN_PLACE_OF(name, int, own, int folder, const char* path, int flags, ...) { \
    va_list arguments;                                                             \
    va_start(arguments, flags);                                                    \
    const mode_t mode = modeOf(flags, arguments);                                  \
    va_end(arguments);                                                             \
    return asInt(thmp::disk::open(folder, path, flags, mode));                     \
  }
THMP_OPEN("open", ownOpen)
THMP_OPEN("open64", ownOpen64)
THMP_OPENAT("openat", ownOpenAt)
THMP_OPENAT("openat64", ownOpenAt64)

THMP_IN_PLACE_OF("close", int, ownClose, int file) {
  return asInt(thmp::disk::told({.what = thmp::disk::What::kClose, .file = file},
                                [&] { return thmp::disk::kernel(SYS_close, file); }));
}
THMP_IN_PLACE_OF("write", ssize_t, ownWrite, int file, const void* bytes, size_t count) {
  return thmp::disk::writeOn(file, bytes, count);
}
#define THMP_PWRITE(name, own)                                                                   \
  THMP_IN_PLACE_OF(name, ssize_t, own, int file, const void* bytes, size_t count, off_t place) { \
    return thmp::disk::write(file, bytes, count, place);                                         \
  }
THMP_PWRITE("pwrite", ownPwrite)
THMP_PWRITE("pwrite64", ownPwrite64)
#define THMP_FTRUNCATE(name, own)                            \
  THMP_IN_PLACE_OF(name, int, own, int file, off_t length) { \
    return asInt(thmp::disk::truncate(file, length));        \
  }
THMP_FTRUNCATE("ftruncate", ownFtruncate)
THMP_FTRUNCATE("ftruncate64", ownFtruncate64)
THMP_IN_PLACE_OF("fsync", int, ownFsync, int file) { return asInt(thmp::disk::sync(file)); }
THMP_IN_PLACE_OF("fdatasync", int, ownFdatasync, int file) { return asInt(thmp::disk::sync(file)); }
THMP_IN_PLACE_OF("link", int, ownLink, const char* path, const char* toPath) {
  return asInt(thmp::disk::link(AT_FDCWD, path, AT_FDCWD, toPath, 0));
}
THMP_IN_PLACE_OF("linkat", int, ownLinkAt, int folder, const char* path, int toFolder,
                 const char* toPath, int flags) {
  return asInt(thmp::disk::link(folder, path, toFolder, toPath, flags));
}
THMP_IN_PLACE_OF("rename", int, ownRename, const char* path, const char* toPath) {
  return asInt(thmp::disk::rename(AT_FDCWD, path, AT_FDCWD, toPath, 0));
}
THMP_IN_PLACE_OF("renameat", int, ownRenameAt, int folder, const char* path, int toFolder,
                 const char* toPath) {
  return asInt(thmp::disk::rename(folder, path, toFolder, toPath, 0));
}
THMP_IN_PLACE_OF("renameat2", int, ownRenameAt2, int folder, const char* path, int toFolder,
                 const char* toPath, unsigned flags) {
  return asInt(thmp::disk::rename(folder, path, toFolder, toPath, flags));
}
THMP_IN_PLACE_OF("unlink", int, ownUnlink, const char* path) {
  return asInt(thmp::disk::unlink(AT_FDCWD, path, 0));
}
THMP_IN_PLACE_OF("unlinkat", int, ownUnlinkAt, int folder, const char* path, int flags) {
  return asInt(thmp::disk::unlink(folder, path, flags));
}
THMP_IN_PLACE_OF("rmdir", int, ownRmdir, const char* path) {
  return asInt(thmp::disk::unlink(AT_FDCWD, path, AT_REMOVEDIR));
}
THMP_IN_PLACE_OF("mkdir", int, ownMkdir, const char* path, mode_t mode) {
  return asInt(thmp::disk::makeFolder(AT_FDCWD, path, mode));
}
THMP_IN_PLACE_OF("mkdirat", int, ownMkdirAt, int folder, const char* path, mode_t mode) {
  return asInt(thmp::disk::makeFolder(folder, path, mode));
}
#define THMP_MODE(name, own, call, ...)                                                      \
  THMP_IN_PLACE_OF(name, int, own, __VA_ARGS__) {                                            \
    return asInt(thmp::disk::told({.what = thmp::disk::What::kMode}, [&] { return call; })); \
  }
THMP_MODE("fchmod", ownFchmod, thmp::disk::kernel(SYS_fchmod, file, mode), int file, mode_t mode)
THMP_MODE("chmod", ownChmod, thmp::disk::kernel(SYS_fchmodat, AT_FDCWD, path, mode),
          const char* path, mode_t mode)
THMP_MODE("fchmodat", ownFchmodAt, thmp::disk::kernel(SYS_fchmodat, folder, path, mode), int folder,
          const char* path, mode_t mode, int /*flags*/)
