// SPDX-License-Identifier: Apache-2.0
#include "messaging/ObserverRegistry.h"

#include <gtest/gtest.h>

#include <memory>

namespace thmp {
namespace {

class Registry : public testing::Test {
 protected:
  static void ignore(void* /*observer*/, const Value& /*message*/) {}

  ObserverRegistry registry;
};

TEST_F(Registry, NameNobodyRegisteredForHasNoTable) { EXPECT_EQ(registry.table(" a"), nullptr); }

TEST_F(Registry, TableLeftEmptyStays) {
  const auto observer = std::make_shared<int>();
  registry.add(observer, &ignore, " a");
  registry.remove(observer);
  ASSERT_NE(registry.table(" a"), nullptr);
  EXPECT_TRUE(registry.table(" a")->empty());
}

TEST_F(Registry, TableInHandDoesNotChange) {
  const auto first = std::make_shared<int>();
  const auto second = std::make_shared<int>();
  registry.add(first, &ignore, " a");
  const auto inHand = registry.table(" a");
  registry.add(second, &ignore, " a");
  registry.remove(first, " a");
  EXPECT_EQ(inHand->size(), 1u);
  EXPECT_TRUE(inHand->contains(first));
  EXPECT_TRUE(registry.table(" a")->contains(second));
}

TEST_F(Registry, DeadObserversLeaveTheirTableWithTheNextThatRegisters) {
  for (int i = 0; i < 100; ++i) registry.add(std::make_shared<int>(), &ignore, " a");
  const auto living = std::make_shared<int>();
  registry.add(living, &ignore, " a");
  EXPECT_EQ(registry.table(" a")->size(), 1u);
}

}  // namespace
}  // namespace thmp
