// SPDX-License-Identifier: Apache-2.0
#include "base/nearest_name.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace thmp {
namespace {

constexpr std::array<std::string_view, 5> kCommands{"index", "serve", "find", "explain", "stat"};

TEST(NearestName, ASlipOfTheKeyboardIsSeenThrough) {
  EXPECT_EQ(nearestName("indx", kCommands), "index") << "left out";
  EXPECT_EQ(nearestName("servee", kCommands), "serve") << "added";
  EXPECT_EQ(nearestName("fimd", kCommands), "find") << "exchanged";
  EXPECT_EQ(nearestName("fnid", kCommands), "find") << "swapped";
  EXPECT_EQ(nearestName("STAT", kCommands), "stat") << "capitals";
  EXPECT_EQ(nearestName("status", kCommands), "stat");
}

TEST(NearestName, AnotherWordIsNotNear) {
  EXPECT_EQ(nearestName("help", kCommands), "");
  EXPECT_EQ(nearestName("", kCommands), "");
  EXPECT_EQ(nearestName("x", kCommands), "");
  EXPECT_EQ(nearestName("find", {}), "");
}

TEST(NearestName, TheFirstOfEquallyNearOnesIsTaken) {
  constexpr std::array<std::string_view, 2> kNames{"form", "from"};
  EXPECT_EQ(nearestName("fxrm", kNames), "form");
}

TEST(NearestName, LongNamesCostNothing) {
  EXPECT_EQ(nearestName(std::string(1'000'000, 'a'), kCommands), "");
  const std::string longest(64, 'a');
  const std::array<std::string_view, 1> names{longest};
  EXPECT_EQ(nearestName(std::string(63, 'a'), names), longest);
}

}  // namespace
}  // namespace thmp
