// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxSerialQueue.h"

#include <pthread.h>
#include <unistd.h>

#include <array>

#include "platform/linux/testing.h"
#include "tests/support/child_process.h"

namespace thmp {
namespace {

using testing::Count;

TEST(LinuxSerialQueue, ThreadStartsWithTheFirstClosure) {
  const auto weak = [] {
    const auto queue = LinuxSerialQueue::create("test.queue");
    return std::weak_ptr<LinuxSerialQueue>(queue);
  }();
  EXPECT_TRUE(weak.expired());
}

TEST(LinuxSerialQueue, LivesOnWhenNobodyHoldsIt) {
  auto done = std::make_shared<Count>();
  auto queue = LinuxSerialQueue::create("test.queue");
  const std::weak_ptr<LinuxSerialQueue> weak = queue;
  queue->post([done] { done->raise(); });
  queue.reset();
  ASSERT_TRUE(done->reaches(1));
  ASSERT_FALSE(weak.expired());
  weak.lock()->post([done] { done->raise(); });
  EXPECT_TRUE(done->reaches(2));
}

TEST(LinuxSerialQueue, ThreadCarriesTheEndOfTheLabel) {
  auto name = std::make_shared<std::array<char, 16>>();
  auto done = std::make_shared<Count>();
  LinuxSerialQueue::create("com.example.exchange.plugin")->post([name, done] {
    ::pthread_getname_np(::pthread_self(), name->data(), name->size());
    done->raise();
  });
  ASSERT_TRUE(done->reaches(1));
  EXPECT_STREQ(name->data(), "exchange.plugin");
}

TEST(LinuxSerialQueue, ProcessEndsWhileAClosureRuns) {
  // Neither joined nor waited for, and nothing that a static destructor takes away is used.
  const int result = testing::resultInChild([] {
    const auto entered = std::make_shared<Count>();
    const auto queue = LinuxSerialQueue::create("test.queue");
    queue->post([entered] {
      entered->raise();
      for (;;) ::pause();
    });
    if (!entered->reaches(1)) return 1;
    ::_exit(7);
  });
  EXPECT_EQ(result, 7);
}

}  // namespace
}  // namespace thmp
