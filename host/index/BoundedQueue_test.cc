// SPDX-License-Identifier: Apache-2.0
#include "host/index/BoundedQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace thmp {
namespace {

TEST(BoundedQueue, GivesInOrderWhatWasPutInAlsoAfterItsEnd) {
  BoundedQueue<int> queue(3, 100);
  EXPECT_TRUE(queue.put(1, 10));
  EXPECT_TRUE(queue.put(2, 10));
  queue.close();
  EXPECT_FALSE(queue.put(3, 10));
  EXPECT_EQ(queue.take(), 1);
  EXPECT_EQ(queue.take(), 2);
  EXPECT_EQ(queue.take(), std::nullopt);
}

/// How many bytes were in the queue at most, when each of `sizes` was put in while another thread
/// takes one after the other.
std::size_t mostBytes(BoundedQueue<std::size_t>& queue, const std::vector<std::size_t>& sizes) {
  std::atomic<std::size_t> held = 0;
  std::size_t most = 0;
  std::thread taker([&] {
    while (const auto size = queue.take()) held -= *size;
  });
  for (const std::size_t size : sizes) {
    held += size;
    EXPECT_TRUE(queue.put(size, size));
    most = std::max(most, held.load());
  }
  queue.close();
  taker.join();
  EXPECT_EQ(held, 0U);
  return most;
}

TEST(BoundedQueue, WaitsAtItsBytes) {
  BoundedQueue<std::size_t> queue(1'000'000, 1'000);
  // What passes the bound, what the taker has in hand, and what was put in before the bound.
  EXPECT_LE(mostBytes(queue, std::vector<std::size_t>(20'000, 100)), 1'200U);
}

TEST(BoundedQueue, WaitsAtItsNumber) {
  BoundedQueue<std::size_t> queue(5, 1'000'000);
  EXPECT_LE(mostBytes(queue, std::vector<std::size_t>(20'000, 1)), 6U);
}

TEST(BoundedQueue, TakesOneThatIsLargerThanItsBytes) {
  BoundedQueue<int> queue(3, 100);
  EXPECT_TRUE(queue.put(1, 1000));
  EXPECT_EQ(queue.take(), 1);
  EXPECT_TRUE(queue.put(2, 1000));
}

TEST(BoundedQueue, LetsOneThatWaitsGoAtItsEnd) {
  BoundedQueue<int> queue(3, 100);
  ASSERT_TRUE(queue.put(1, 100));
  std::thread waiting([&queue] { EXPECT_FALSE(queue.put(2, 1)); });
  queue.close();
  waiting.join();
}

}  // namespace
}  // namespace thmp
