// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/MainLoop.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <thread>

#include "platform/linux/testing.h"
#include "platform/linux/thread.h"
#include "tests/support/child_process.h"

namespace thmp {
namespace {

using std::chrono::milliseconds;
using testing::runUntilStopped;

class MainLoopTest : public ::testing::Test {
 protected:
  MainLoopTest() { EXPECT_EQ(::pipe2(ends_.data(), O_CLOEXEC | O_NONBLOCK), 0); }
  ~MainLoopTest() override {
    ::close(ends_[0]);
    ::close(ends_[1]);
  }
  void fillPipe() { EXPECT_EQ(::write(ends_[1], "x", 1), 1); }
  void drainPipe() {
    std::array<char, 64> buffer = {};
    EXPECT_GT(::read(ends_[0], buffer.data(), buffer.size()), 0);
  }

  MainLoop loop_;
  std::array<int, 2> ends_ = {-1, -1};
};

TEST_F(MainLoopTest, StopBeforeRunEndsItAtOnceAndOnlyOnce) {
  bool ran = false;
  loop_.stop();
  EXPECT_TRUE(loop_.run());
  loop_.post([&] {
    ran = true;
    loop_.stop();
  });
  EXPECT_TRUE(runUntilStopped(loop_));
  EXPECT_TRUE(ran);
}

TEST_F(MainLoopTest, StopLeavesTheRestForALaterRun) {
  int ran = 0;
  loop_.post([&] { loop_.stop(); });
  loop_.post([&] {
    ++ran;
    loop_.stop();
  });
  EXPECT_TRUE(loop_.run());
  EXPECT_EQ(ran, 0);
  EXPECT_TRUE(loop_.run());
  EXPECT_EQ(ran, 1);
}

TEST_F(MainLoopTest, StopFromAnotherThreadWakesTheLoop) {
  std::thread other([&] { loop_.stop(); });
  EXPECT_TRUE(runUntilStopped(loop_));
  other.join();
}

TEST_F(MainLoopTest, TimerThatSetsItselfAgainDoesNotStarveTheLoop) {
  int timers = 0;
  std::function<void()> again = [&] {
    if (++timers < 1000) loop_.postAfter(milliseconds(0), again);
  };
  loop_.postAfter(milliseconds(0), again);
  loop_.post([&] { loop_.post([&] { loop_.post([&] { loop_.stop(); }); }); });
  EXPECT_TRUE(runUntilStopped(loop_));
  EXPECT_LE(timers, 5);
  EXPECT_GE(timers, 1);
}

TEST_F(MainLoopTest, NegativeDelayIsNone) {
  loop_.postAfter(milliseconds(-5), [&] { loop_.stop(); });
  EXPECT_TRUE(runUntilStopped(loop_));
}

TEST_F(MainLoopTest, LongestDelayDoesNotOverflow) {
  bool ran = false;
  loop_.postAfter(milliseconds::max(), [&] { ran = true; });
  loop_.postAfter(milliseconds(1), [&] { loop_.stop(); });
  EXPECT_TRUE(runUntilStopped(loop_));
  EXPECT_FALSE(ran);
}

TEST_F(MainLoopTest, DescriptorIsReportedForAsLongAsItCanBeRead) {
  int calls = 0;
  ASSERT_TRUE(loop_.watchDescriptor(ends_[0], [&] {
    if (++calls < 3) return;  // not read: told again
    drainPipe();
    loop_.post([&] { loop_.stop(); });
  }));
  fillPipe();
  EXPECT_TRUE(runUntilStopped(loop_));
  EXPECT_EQ(calls, 3);
  loop_.unwatchDescriptor(ends_[0]);
}

TEST_F(MainLoopTest, DescriptorMayBeUnwatchedInsideItsCallback) {
  int calls = 0;
  ASSERT_TRUE(loop_.watchDescriptor(ends_[0], [&] {
    loop_.unwatchDescriptor(ends_[0]);
    ++calls;
    loop_.postAfter(milliseconds(1), [&] { loop_.stop(); });
  }));
  fillPipe();
  EXPECT_TRUE(runUntilStopped(loop_));
  EXPECT_EQ(calls, 1);
}

TEST_F(MainLoopTest, BusyDescriptorDoesNotStarveClosures) {
  int calls = 0;
  ASSERT_TRUE(loop_.watchDescriptor(ends_[0], [&] {
    if (++calls == 3) loop_.post([&] { loop_.stop(); });
  }));
  fillPipe();
  EXPECT_TRUE(runUntilStopped(loop_));
  EXPECT_LE(calls, 5);
  loop_.unwatchDescriptor(ends_[0]);
}

TEST_F(MainLoopTest, CallbackOfADescriptorMayThrow) {
  ASSERT_TRUE(loop_.watchDescriptor(ends_[0], [&] {
    drainPipe();
    loop_.post([&] { loop_.stop(); });
    throw std::runtime_error("thrown in a callback");
  }));
  fillPipe();
  EXPECT_TRUE(runUntilStopped(loop_));
  loop_.unwatchDescriptor(ends_[0]);
}

TEST_F(MainLoopTest, WhatCannotBeWatchedIsRefused) {
  EXPECT_FALSE(loop_.watchDescriptor(-1, [] {}));
}

TEST(MainLoopSignals, ReachTheCallbackOnTheMainThread) {
  // In a child: the mask of signals is the process's own.
  const int result = testing::resultInChild([] {
    MainLoop loop;
    int received = 0;
    if (!loop.watchSignals({SIGTERM, SIGUSR1}, [&](int signal) {
          received = received * 100 + signal;
          if (signal == SIGTERM) loop.stop();
        })) {
      return 1;
    }
    loop.post([&] {
      ::kill(::getpid(), SIGUSR1);
      loop.post([] { ::kill(::getpid(), SIGTERM); });
    });
    if (!runUntilStopped(loop)) return 2;
    return received == SIGUSR1 * 100 + SIGTERM || received == SIGTERM ? 0 : 3;
  });
  EXPECT_EQ(result, 0);
}

TEST(MainLoopDescriptors, AreGivenBackAndNotInherited) {
  const std::size_t before = testing::openDescriptors();
  { const MainLoop loop; }
  EXPECT_EQ(testing::openDescriptors(), before);
}

TEST(StartedThread, HasEverySignalBlockedAndItsName) {
  sigset_t mask;
  std::array<char, 16> name = {};
  sigset_t before;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &before);
  std::thread thread = startThread("com.example.a-long-name", [&] {
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    ::pthread_getname_np(::pthread_self(), name.data(), name.size());
    throw std::runtime_error("thrown in a thread");
  });
  ASSERT_TRUE(thread.joinable());
  thread.join();
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGPIPE}) {
    EXPECT_EQ(::sigismember(&mask, signal), 1);
  }
  sigset_t after;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(::sigismember(&after, SIGTERM), ::sigismember(&before, SIGTERM));
}

}  // namespace
}  // namespace thmp
