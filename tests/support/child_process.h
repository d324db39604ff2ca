// SPDX-License-Identifier: Apache-2.0
//
// Parts of a test in a process of their own, where they may do what the tests' own cannot take
// back.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

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

}  // namespace thmp::testing
