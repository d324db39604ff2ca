// SPDX-License-Identifier: Apache-2.0
#include "search/LibraryIDSet.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <unordered_set>

namespace thmp {
namespace {

TEST(LibraryIDs, AreTakenInOnce) {
  LibraryIDSet ids;
  EXPECT_TRUE(ids.empty());
  EXPECT_FALSE(ids.contains(0));
  EXPECT_TRUE(ids.insert(0));
  EXPECT_FALSE(ids.insert(0));
  EXPECT_TRUE(ids.contains(0));
  EXPECT_EQ(ids.size(), 1u);
}

TEST(LibraryIDs, OfTheWholeRangeAreToldApart) {
  using Limits = std::numeric_limits<std::int64_t>;
  LibraryIDSet ids;
  for (const std::int64_t id :
       {Limits::min(), std::int64_t{-65}, std::int64_t{-64}, std::int64_t{-1}, std::int64_t{63},
        std::int64_t{64}, Limits::max()}) {
    EXPECT_FALSE(ids.contains(id)) << id;
    EXPECT_TRUE(ids.insert(id)) << id;
  }
  for (const std::int64_t id :
       {Limits::min() + 1, std::int64_t{-66}, std::int64_t{-63}, std::int64_t{0}, std::int64_t{62},
        std::int64_t{65}, Limits::max() - 1}) {
    EXPECT_FALSE(ids.contains(id)) << id;
  }
  EXPECT_EQ(ids.size(), 7u);
}

TEST(LibraryIDs, AreThoseOfAnyOtherSet) {
  std::mt19937_64 random(7);
  LibraryIDSet ids;
  std::unordered_set<std::int64_t> expected;
  for (int i = 0; i < 5000; ++i) {
    const auto id = static_cast<std::int64_t>(random() % 3000) - 1500;
    EXPECT_EQ(ids.insert(id), expected.insert(id).second) << id;
  }
  EXPECT_EQ(ids.size(), expected.size());
  for (std::int64_t id = -1600; id < 1600; ++id) EXPECT_EQ(ids.contains(id), expected.contains(id));
}

}  // namespace
}  // namespace thmp
