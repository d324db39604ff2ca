// SPDX-License-Identifier: Apache-2.0
#include "host/adapter/Strand.h"

#include <gtest/gtest.h>

#include <latch>
#include <memory>
#include <stdexcept>
#include <vector>

namespace thmp {
namespace {

ThreadPool& pool() {
  static ThreadPool& threads = ThreadPool::create(3);
  return threads;
}

TEST(AStrand, RunsItsTasksInOrderAndOneAtATime) {
  const auto strand = std::make_shared<Strand>(pool());
  std::vector<int> order;  // unguarded: the strand alone keeps it safe
  std::latch done(1000);
  for (int i = 0; i < 1000; ++i) {
    strand->post([&order, &done, i] {
      order.push_back(i);
      done.count_down();
    });
  }
  done.wait();
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(order[static_cast<std::size_t>(i)], i);
}

TEST(AStrand, LeavesRoomForOthers) {
  const auto blocked = std::make_shared<Strand>(pool());
  std::latch release(1);
  std::latch done(2);
  blocked->post([&] {
    release.wait();
    done.count_down();
  });
  std::make_shared<Strand>(pool())->post([&] {
    release.count_down();
    done.count_down();
  });
  done.wait();
}

TEST(AStrand, TaskThatThrowsEndsAloneAndOthersFollow) {
  const auto strand = std::make_shared<Strand>(pool());
  std::latch done(1);
  strand->post([] { throw std::runtime_error("a task's own trouble"); });
  strand->post([&] { done.count_down(); });
  done.wait();
}

TEST(AStrand, MayBeDroppedInsideItsOwnTask) {
  auto strand = std::make_shared<Strand>(pool());
  std::latch posted(1);
  std::latch done(1);
  strand->post([&] {
    posted.wait();
    strand.reset();
    done.count_down();
  });
  posted.count_down();
  done.wait();
  EXPECT_EQ(strand, nullptr);
}

}  // namespace
}  // namespace thmp
