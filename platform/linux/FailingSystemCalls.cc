// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/FailingSystemCalls.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/random.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <mutex>
#include <thread>
#include <type_traits>
#include <utility>

namespace thmp::testing {
namespace {

struct Planned {
  FailingCall call;
  int seen = 0;
  int failures = 0;
};

struct Plan {
  std::mutex mutex;
  std::vector<Planned> calls;
  std::thread::id thread;
};

Plan& plan() {
  static Plan& only = *new Plan;
  return only;
}

/// Whether this call is to fail; errno then says why.
bool fails(std::string_view name) {
  Plan& current = plan();
  const std::lock_guard lock(current.mutex);
  for (Planned& planned : current.calls) {
    const FailingCall& call = planned.call;
    if (call.name.empty() ? name == "getrandom" : call.name != name) continue;
    if (!call.anyThread && current.thread != std::this_thread::get_id()) continue;
    ++planned.seen;
    if (planned.seen != call.nth && (!call.fromThenOn || planned.seen < call.nth)) continue;
    ++planned.failures;
    errno = call.error;
    return true;
  }
  return false;
}

template <typename Result>
Result failure() {
  if constexpr (std::is_pointer_v<Result>) {
    return nullptr;
  } else {
    return -1;
  }
}

}  // namespace

FailingSystemCalls::FailingSystemCalls(FailingCall call)
    : FailingSystemCalls(std::vector<FailingCall>{call}) {}

FailingSystemCalls::FailingSystemCalls(const std::vector<FailingCall>& calls) {
  Plan& current = plan();
  const std::lock_guard lock(current.mutex);
  for (const FailingCall& call : calls) current.calls.push_back({call});
  current.thread = std::this_thread::get_id();
}

FailingSystemCalls::~FailingSystemCalls() {
  Plan& current = plan();
  const std::lock_guard lock(current.mutex);
  current.calls.clear();
}

int FailingSystemCalls::failures() const {
  Plan& current = plan();
  const std::lock_guard lock(current.mutex);
  int failures = 0;
  for (const Planned& planned : current.calls) failures += planned.failures;
  return failures;
}

int FailingSystemCalls::failures(std::size_t entry) const {
  Plan& current = plan();
  const std::lock_guard lock(current.mutex);
  return current.calls.at(entry).failures;
}

}  // namespace thmp::testing

// The linker gives __wrap_X to whoever calls X, and X to whoever calls __real_X (its option
// --wrap).
#define THMP_MAY_FAIL(result, name, parameters, arguments)                    \
  extern "C" result __real_##name parameters;                                 \
  extern "C" result __wrap_##name parameters;                                 \
  extern "C" result __wrap_##name parameters {                                \
    if (thmp::testing::fails(#name)) return thmp::testing::failure<result>(); \
    return __real_##name arguments;                                           \
  }                                                                           \
  static_assert(true)

THMP_MAY_FAIL(int, fstat, (int file, struct stat* status), (file, status));
THMP_MAY_FAIL(int, fstatat, (int folder, const char* name, struct stat* status, int flags),
              (folder, name, status, flags));
THMP_MAY_FAIL(int, stat, (const char* path, struct stat* status), (path, status));
THMP_MAY_FAIL(int, access, (const char* path, int mode), (path, mode));
THMP_MAY_FAIL(int, faccessat, (int folder, const char* path, int mode, int flags),
              (folder, path, mode, flags));
THMP_MAY_FAIL(ssize_t, read, (int file, void* bytes, size_t size), (file, bytes, size));
THMP_MAY_FAIL(ssize_t, write, (int file, const void* bytes, size_t size), (file, bytes, size));
THMP_MAY_FAIL(ssize_t, readlink, (const char* path, char* target, size_t size),
              (path, target, size));
THMP_MAY_FAIL(int, linkat, (int from, const char* name, int to, const char* other, int flags),
              (from, name, to, other, flags));
THMP_MAY_FAIL(int, unlink, (const char* path), (path));
THMP_MAY_FAIL(int, unlinkat, (int folder, const char* name, int flags), (folder, name, flags));
THMP_MAY_FAIL(int, renameat, (int from, const char* name, int to, const char* other),
              (from, name, to, other));
THMP_MAY_FAIL(int, renameat2,
              (int from, const char* name, int to, const char* other, unsigned flags),
              (from, name, to, other, flags));
THMP_MAY_FAIL(int, mkdirat, (int folder, const char* name, mode_t mode), (folder, name, mode));
THMP_MAY_FAIL(int, fchmodat, (int folder, const char* name, mode_t mode, int flags),
              (folder, name, mode, flags));
THMP_MAY_FAIL(int, fchmod, (int file, mode_t mode), (file, mode));
THMP_MAY_FAIL(int, fsync, (int file), (file));
THMP_MAY_FAIL(DIR*, fdopendir, (int folder), (folder));
THMP_MAY_FAIL(struct dirent*, readdir, (DIR * folder), (folder));
THMP_MAY_FAIL(int, flock, (int file, int operation), (file, operation));
THMP_MAY_FAIL(int, poll, (struct pollfd * ready, nfds_t count, int timeout),
              (ready, count, timeout));
THMP_MAY_FAIL(int, kill, (pid_t process, int number), (process, number));
THMP_MAY_FAIL(int, eventfd, (unsigned value, int flags), (value, flags));
THMP_MAY_FAIL(int, epoll_create1, (int flags), (flags));
THMP_MAY_FAIL(int, epoll_ctl, (int epoll, int operation, int file, struct epoll_event* event),
              (epoll, operation, file, event));
THMP_MAY_FAIL(int, signalfd, (int file, const sigset_t* set, int flags), (file, set, flags));
THMP_MAY_FAIL(int, inotify_add_watch, (int instance, const char* path, uint32_t events),
              (instance, path, events));
THMP_MAY_FAIL(ssize_t, getrandom, (void* bytes, size_t size, unsigned flags), (bytes, size, flags));

extern "C" int __real_openat(int folder, const char* path, int flags, ...);
extern "C" int __wrap_openat(int folder, const char* path, int flags, ...);
extern "C" int __wrap_openat(int folder, const char* path, int flags, ...) {
  if (thmp::testing::fails("openat")) return -1;
  va_list more;
  va_start(more, flags);
  const mode_t mode = va_arg(more, mode_t);
  va_end(more);
  return __real_openat(folder, path, flags, mode);
}

extern "C" int __real_fcntl(int file, int command, ...);
extern "C" int __wrap_fcntl(int file, int command, ...);
extern "C" int __wrap_fcntl(int file, int command, ...) {
  if (thmp::testing::fails("fcntl")) return -1;
  va_list more;
  va_start(more, command);
  const int argument = va_arg(more, int);
  va_end(more);
  return __real_fcntl(file, command, argument);
}

extern "C" long __real_syscall(long number, ...);
extern "C" long __wrap_syscall(long number, ...);
extern "C" long __wrap_syscall(long number, ...) {
  if (thmp::testing::fails("syscall")) return -1;
  va_list more;
  va_start(more, number);
  const int first = va_arg(more, int);
  const int second = va_arg(more, int);
  va_end(more);
  return __real_syscall(number, first, second);
}

extern "C" int __real_close(int file);
extern "C" int __wrap_close(int file);
extern "C" int __wrap_close(int file) {
  // Whatever it says, the descriptor is gone.
  const int result = __real_close(file);
  return thmp::testing::fails("close") ? -1 : result;
}

extern "C" int __real_getpwuid_r(uid_t user, struct passwd* record, char* buffer, size_t size,
                                 struct passwd** found);
extern "C" int __wrap_getpwuid_r(uid_t user, struct passwd* record, char* buffer, size_t size,
                                 struct passwd** found);
extern "C" int __wrap_getpwuid_r(uid_t user, struct passwd* record, char* buffer, size_t size,
                                 struct passwd** found) {
  return thmp::testing::fails("getpwuid_r") ? errno
                                            : __real_getpwuid_r(user, record, buffer, size, found);
}
