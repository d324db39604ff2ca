// SPDX-License-Identifier: Apache-2.0
#include "search/PostingThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

namespace thmp {
namespace {

TEST(PostingThread, TaskRunsBesideItsCaller) {
  PostingThread posting;
  std::promise<void> callerGoesOn;
  std::thread::id ran;
  const auto ticket = posting.begin([&] {
    callerGoesOn.get_future().wait();
    ran = std::this_thread::get_id();
  });
  callerGoesOn.set_value();
  posting.wait(ticket);
  EXPECT_NE(ran, std::this_thread::get_id());
}

TEST(PostingThread, ThreadStaysForTheNextTask) {
  PostingThread posting;
  std::vector<std::thread::id> threads(2);
  for (std::thread::id& thread : threads) {
    posting.wait(posting.begin([&] { thread = std::this_thread::get_id(); }));
  }
  EXPECT_EQ(threads[0], threads[1]);
}

TEST(PostingThread, WhileItHasATaskOthersRunTheirsThemselves) {
  PostingThread posting;
  std::promise<void> goesOn;
  const auto first = posting.begin([&] { goesOn.get_future().wait(); });
  std::thread::id ran;
  const auto second = posting.begin([&] { ran = std::this_thread::get_id(); });
  EXPECT_EQ(ran, std::this_thread::get_id());
  posting.wait(second);
  goesOn.set_value();
  posting.wait(first);
}

TEST(PostingThread, WaitEndsWhenTheTaskIsDestroyed) {
  PostingThread posting;
  auto kept = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = kept;
  posting.wait(posting.begin([kept = std::move(kept)] {}));
  EXPECT_TRUE(watched.expired());
}

TEST(PostingThread, EndWaitsForTheTask) {
  std::atomic<bool> done = false;
  std::promise<void> runs;
  {
    PostingThread posting;
    posting.begin([&] {
      runs.set_value();
      std::this_thread::yield();
      done = true;
    });
    runs.get_future().wait();
  }
  EXPECT_TRUE(done);
}

TEST(PostingThread, ManyCallersEachSeeTheirOwnTaskDone) {
  PostingThread posting;
  std::atomic<int> missed = 0;
  std::vector<std::thread> callers;
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back([&] {
      for (int task = 0; task < 500; ++task) {
        std::atomic<bool> done = false;
        posting.wait(posting.begin([&] { done = true; }));
        if (!done) ++missed;
      }
    });
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(missed, 0);
}

}  // namespace
}  // namespace thmp
