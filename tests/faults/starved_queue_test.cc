// SPDX-License-Identifier: Apache-2.0
//
// Memory ends on the thread of a queue, in its own loop and where it reads the events of watches.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <new>

#include "platform/linux/InotifyWatches.h"
#include "platform/linux/LinuxSerialQueue.h"
#include "platform/linux/testing.h"

namespace thmp {
namespace {

thread_local bool memoryIsOut = false;

}  // namespace
}  // namespace thmp

void* operator new(std::size_t size) {
  if (thmp::memoryIsOut) throw std::bad_alloc();
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace thmp {
namespace {

using testing::Count;

class StarvedQueue : public ::testing::Test {
 protected:
  /// The queue runs what is posted, and looks at its descriptor, without memory; `meanwhile` comes
  /// before that.
  void starve(const std::function<void()>& meanwhile) {
    auto entered = std::make_shared<Count>();
    auto leave = std::make_shared<Count>();
    queue_->post([entered, leave] {
      entered->raise();
      leave->reaches(1);
      memoryIsOut = true;
    });
    ASSERT_TRUE(entered->reaches(1));
    meanwhile();
    leave->raise();
  }

  /// Until the queue has run what is posted.
  void drain() {
    auto drained = std::make_shared<Count>();
    queue_->post([drained] { drained->raise(); });
    ASSERT_TRUE(drained->reaches(1));
  }

  const std::shared_ptr<LinuxSerialQueue> queue_ = LinuxSerialQueue::create("test.starved");
};

TEST_F(StarvedQueue, GoesOn) {
  starve([this] { queue_->post([] { memoryIsOut = false; }); });
  drain();
}

TEST_F(StarvedQueue, MakesUpForTheEventsThatItLost) {
  const testing::TemporaryFolder folder;
  for (const char* name : {"first", "second"}) testing::makeFolder(folder.at(name));
  testing::CollectingLog log;
  auto calls = std::make_shared<Count>();
  auto otherCalls = std::make_shared<Count>();
  {
    InotifyWatches watches(log, queue_);
    const auto watch = [&](const std::string& name, const std::shared_ptr<Count>& count) {
      auto made = watches.makeWatch(
          folder.at(name),
          [queue = queue_](std::function<void()> closure) { queue->post(std::move(closure)); },
          [count] { count->raise(); });
      made->resume();
      return made;
    };
    const auto first = watch("first", calls);
    const auto second = watch("second", otherCalls);
    starve([&] { testing::writeFile(folder.at("first/file"), ""); });
    queue_->post([] { memoryIsOut = false; });
    drain();
    drain();
    testing::writeFile(folder.at("second/file"), "");
    EXPECT_TRUE(otherCalls->reaches(1));
    EXPECT_TRUE(calls->reaches(1));
  }
  drain();
}

}  // namespace
}  // namespace thmp
