// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <stdexcept>
#include <thread>

#include "tests/contract/fixtures.h"

namespace thmp {
namespace {

using std::chrono::milliseconds;

using contract::onDestruction;

class ExecutionContract : public contract::ContractTest<contract::ExecutionFixture,
                                                        &contract::Implementation::execution> {
 protected:
  Execution& execution() { return fixture().execution(); }
  MainQueue& mainQueue() { return fixture().execution().mainQueue(); }
  std::shared_ptr<SerialQueue> makeQueue() { return execution().makeSerialQueue("test.queue"); }
};

THMP_RUN_CONTRACT(ExecutionContract);

TEST_P(ExecutionContract, SerialQueueKeepsItsLabel) {
  EXPECT_EQ(execution().makeSerialQueue("com.example.exchange")->label(), "com.example.exchange");
}

TEST_P(ExecutionContract, SerialQueueRunsInOrder) {
  const auto queue = makeQueue();
  auto order = std::make_shared<std::vector<int>>();
  auto done = std::make_shared<contract::Counter>();
  for (int i = 0; i < 100; ++i) {
    queue->post([order, done, i] {
      order->push_back(i);
      done->raise();
    });
  }

  ASSERT_TRUE(fixture().waitFor(*done, 100));
  for (int i = 0; i < 100; ++i) EXPECT_EQ((*order)[static_cast<std::size_t>(i)], i);
}

TEST_P(ExecutionContract, SerialQueueRunsOneAtATimeFromManyThreads) {
  const auto queue = makeQueue();
  auto inside = std::make_shared<std::atomic<int>>(0);
  auto overlaps = std::make_shared<std::atomic<int>>(0);
  auto done = std::make_shared<contract::Counter>();
  contract::runOnThreads(4, [=](int) {
    for (int j = 0; j < 50; ++j) {
      queue->post([=] {
        if (inside->fetch_add(1) != 0) overlaps->fetch_add(1);
        inside->fetch_sub(1);
        done->raise();
      });
    }
  });

  ASSERT_TRUE(fixture().waitFor(*done, 200));
  EXPECT_EQ(overlaps->load(), 0);
}

TEST_P(ExecutionContract, PostFromInsideAClosureRunsAfterIt) {
  const auto queue = makeQueue();
  auto order = std::make_shared<std::vector<std::string>>();
  auto done = std::make_shared<contract::Counter>();
  queue->post([=] {
    queue->post([=] {
      order->push_back("inner");
      done->raise();
    });
    order->push_back("outer");
  });

  ASSERT_TRUE(fixture().waitFor(*done, 1));
  EXPECT_EQ(*order, (std::vector<std::string>{"outer", "inner"}));
}

TEST_P(ExecutionContract, QueueIsCurrentInsideItsClosuresOnly) {
  const auto queue = makeQueue();
  const auto other = makeQueue();
  auto seen = std::make_shared<std::pair<bool, bool>>(false, true);
  auto done = std::make_shared<contract::Counter>();
  queue->post([=] {
    *seen = {queue->isCurrent(), other->isCurrent()};
    done->raise();
  });

  ASSERT_TRUE(fixture().waitFor(*done, 1));
  EXPECT_TRUE(seen->first);
  EXPECT_FALSE(seen->second);
  EXPECT_FALSE(queue->isCurrent());
}

TEST_P(ExecutionContract, ClosureThatThrowsDoesNotEndTheQueue) {
  const auto queue = makeQueue();
  auto done = std::make_shared<contract::Counter>();
  queue->post([] { throw std::runtime_error("thrown in a closure"); });
  queue->post([done] { done->raise(); });

  EXPECT_TRUE(fixture().waitFor(*done, 1));
}

TEST_P(ExecutionContract, ClosureIsDestroyedOnceItHasRun) {
  const auto queue = makeQueue();
  auto destroyed = std::make_shared<contract::Counter>();
  queue->post([held = onDestruction([destroyed] { destroyed->raise(); })] {});

  EXPECT_TRUE(fixture().waitFor(*destroyed, 1));
}

TEST_P(ExecutionContract, MainQueueRunsInOrderOnTheMainThread) {
  std::vector<int> order;
  const std::thread::id self = std::this_thread::get_id();
  for (int i = 0; i < 10; ++i) {
    mainQueue().post([&, i] {
      EXPECT_TRUE(mainQueue().isCurrent());
      EXPECT_EQ(std::this_thread::get_id(), self);
      order.push_back(i);
    });
  }
  EXPECT_TRUE(order.empty());

  ASSERT_TRUE(fixture().runMainQueueUntil([&] { return order.size() == 10; }));
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST_P(ExecutionContract, MainQueueTakesClosuresFromOtherThreads) {
  int ran = 0;
  std::thread([&] {
    EXPECT_FALSE(mainQueue().isCurrent());
    mainQueue().post([&] { ++ran; });
    mainQueue().postAfter(milliseconds(0), [&] { ++ran; });
  }).join();

  EXPECT_TRUE(fixture().runMainQueueUntil([&] { return ran == 2; }));
}

TEST_P(ExecutionContract, SerialQueueIsNotTheMainThread) {
  const auto queue = makeQueue();
  bool onQueue = true;
  mainQueue().post([&] { onQueue = queue->isCurrent(); });

  EXPECT_TRUE(fixture().runMainQueueUntil([&] { return !onQueue; }));
}

TEST_P(ExecutionContract, NoDelayMeansAfterWhatIsPostedAlready) {
  std::vector<std::string> order;
  mainQueue().post([&] {
    mainQueue().postAfter(milliseconds(0), [&] { order.emplace_back("delayed"); });
    order.emplace_back("first");
  });
  mainQueue().post([&] { order.emplace_back("second"); });

  ASSERT_TRUE(fixture().runMainQueueUntil([&] { return order.size() == 3; }));
  EXPECT_EQ(order, (std::vector<std::string>{"first", "second", "delayed"}));
}

TEST_P(ExecutionContract, DelayedClosuresRunInTheOrderOfTheirTimes) {
  std::vector<int> order;
  mainQueue().postAfter(milliseconds(30), [&] { order.push_back(30); });
  mainQueue().postAfter(milliseconds(10), [&] { order.push_back(10); });
  mainQueue().postAfter(milliseconds(20), [&] { order.push_back(20); });

  ASSERT_TRUE(fixture().runMainQueueUntil([&] { return order.size() == 3; }));
  EXPECT_EQ(order, (std::vector<int>{10, 20, 30}));
}

TEST_P(ExecutionContract, ThrowingMainClosureDoesNotEndTheLoop) {
  bool ran = false;
  mainQueue().post([] { throw std::runtime_error("thrown in a closure"); });
  mainQueue().post([&] { ran = true; });

  EXPECT_TRUE(fixture().runMainQueueUntil([&] { return ran; }));
}

TEST_P(ExecutionContract, ClosedMainQueueDestroysUnrun) {
  auto ran = std::make_shared<contract::Counter>();
  auto destroyed = std::make_shared<contract::Counter>();
  fixture().closeMainQueue();
  mainQueue().post(
      [ran, held = onDestruction([destroyed] { destroyed->raise(); })] { ran->raise(); });
  mainQueue().postAfter(
      milliseconds(0),
      [ran, held = onDestruction([destroyed] { destroyed->raise(); })] { ran->raise(); });

  EXPECT_EQ(destroyed->count(), 2);
  EXPECT_EQ(ran->count(), 0);
}

TEST_P(ExecutionContract, ClosureDestroyedUnrunMayPostAgain) {
  auto destroyed = std::make_shared<contract::Counter>();
  mainQueue().post([held = onDestruction([destroyed, &queue = mainQueue()] {
                      destroyed->raise();
                      queue.post([] {});
                    })] {});
  fixture().closeMainQueue();

  EXPECT_EQ(destroyed->count(), 1);
}

TEST_P(ExecutionContract, TimeOfDayIsInThisCentury) {
  EXPECT_GT(execution().now().secondsSinceReference, 0);
  EXPECT_LT(execution().now(), *Date::fromIso8601("2100-01-01T00:00:00Z"));
}

}  // namespace
}  // namespace thmp
