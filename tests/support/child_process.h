// SPDX-License-Identifier: Apache-2.0
//
// Parts of a test in a process of their own, where they may do what the tests' own cannot take
// back, or may not do at all.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

namespace thmp::testing {

inline constexpr uid_t kNobody = 65534;

/// Runs `body` in a child process and gives its result, the exit status.
inline int resultInChild(const std::function<int()>& body) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(body());
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status)) << status;
  return WEXITSTATUS(status);
}

/// As resultInChild(), as a user to whom rights apply: root, who is refused nothing, becomes
/// nobody. 255 when it cannot.
inline int resultAsNobody(const std::function<int()>& body) {
  return resultInChild([&] {
    if (::geteuid() == 0 && (::setresgid(kNobody, kNobody, kNobody) != 0 ||
                             ::setresuid(kNobody, kNobody, kNobody) != 0)) {
      return 255;
    }
    return body();
  });
}

/// True when this process, which has one thread, now has mounts of its own and may make more.
inline bool enterOwnMounts() {
  const std::string user = std::to_string(::geteuid());
  const std::string group = std::to_string(::getegid());
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
  std::ofstream("/proc/self/setgroups") << "deny";
  std::ofstream("/proc/self/uid_map") << user + " " + user + " 1";
  std::ofstream("/proc/self/gid_map") << group + " " + group + " 1";
  return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/// Runs `body`, with its expectations, where it may mount: here in a process that root started, or
/// in a child process with namespaces of its own, which Debian gives to everybody.
inline void whereOneMayMount(const std::function<void()>& body) {
  if (::getuid() == 0) return body();
  constexpr int kFailed = 1;
  constexpr int kNotAllowed = 2;
  const int result = resultInChild([&] {
    if (!enterOwnMounts()) return kNotAllowed;
    body();
    std::fflush(stdout);
    return ::testing::Test::HasFailure() ? kFailed : 0;
  });
  EXPECT_NE(result, kNotAllowed)
      << "no user namespaces here: run as root, or set kernel.unprivileged_userns_clone to 1";
  EXPECT_EQ(result, 0);
}

/// Makes a folder somebody else's, with no rights for us, or a file. Only where one may mount.
inline void giveAway(const std::string& path) {
  if (::getuid() == 0) {
    EXPECT_EQ(::chown(path.c_str(), kNobody, kNobody), 0);
    return;
  }
  const char* const ofRoot = std::filesystem::is_directory(path) ? "/root" : "/etc/passwd";
  EXPECT_EQ(::mount(ofRoot, path.c_str(), nullptr, MS_BIND, nullptr), 0);
}

}  // namespace thmp::testing
