// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxSerialQueue.h"

#include <fcntl.h>
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

class WatchedDescriptor : public ::testing::Test {
 protected:
  void SetUp() override {
    std::array<int, 2> ends = {};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
    input_ = std::make_shared<const Descriptor>(ends[0]);
    output_ = Descriptor(ends[1]);
  }

  void TearDown() override {
    queue_->unwatchDescriptor();
    drain();  // the other end closes when it has been let go
  }

  void send(char byte) { ASSERT_EQ(::write(output_.get(), &byte, 1), 1); }

  /// Takes one byte on the queue for each call.
  void watch() {
    ASSERT_TRUE(
        queue_->watchDescriptor(input_, [in = input_, calls = calls_, queue = queue_.get()] {
          char byte = 0;
          EXPECT_TRUE(queue->isCurrent());
          EXPECT_EQ(::read(in->get(), &byte, 1), 1);
          calls->raise();
        }));
  }

  void drain() {
    const auto drained = std::make_shared<Count>();
    queue_->post([drained] { drained->raise(); });
    EXPECT_TRUE(drained->reaches(1));
  }

  const std::shared_ptr<LinuxSerialQueue> queue_ = LinuxSerialQueue::create("test.queue");
  const std::shared_ptr<Count> calls_ = std::make_shared<Count>();
  std::shared_ptr<const Descriptor> input_;
  Descriptor output_;
};

TEST_F(WatchedDescriptor, IsReadOnTheQueueWheneverItCanBe) {
  watch();
  for (int i = 1; i <= 3; ++i) {
    send('x');
    ASSERT_TRUE(calls_->reaches(i));
    drain();
  }
  EXPECT_EQ(calls_->value(), 3);
}

TEST_F(WatchedDescriptor, IsWatchedFromAThreadThatWaitsForClosuresToo) {
  drain();
  watch();
  send('x');
  EXPECT_TRUE(calls_->reaches(1));
}

TEST_F(WatchedDescriptor, GetsItsTurnWhileClosuresNeverEnd) {
  watch();
  // Each posts the next one, until the descriptor has been read.
  const auto ended = std::make_shared<Count>();
  const auto next = std::make_shared<std::function<void()>>();
  *next = [queue = queue_, calls = calls_, ended, weak = std::weak_ptr(next)] {
    if (calls->value() > 0) return ended->raise();
    if (const auto again = weak.lock()) queue->post(*again);
  };
  queue_->post(*next);
  send('x');
  EXPECT_TRUE(ended->reaches(1));
}

TEST_F(WatchedDescriptor, IsLetGoOnceItIsWatchedNoMore) {
  watch();
  const std::weak_ptr<const Descriptor> weak = input_;
  queue_->unwatchDescriptor();
  drain();
  send('x');
  drain();
  EXPECT_EQ(calls_->value(), 0);
  input_.reset();
  EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace thmp
