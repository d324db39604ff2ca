// SPDX-License-Identifier: Apache-2.0
#include "console/calendar.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>

namespace thmp::console {
namespace {

class LocalTime : public testing::Test {
 protected:
  void SetUp() override {
    ::setenv("TZ", "EST5", 1);
    ::tzset();
  }
  void TearDown() override {
    ::unsetenv("TZ");
    ::tzset();
  }
};

TEST_F(LocalTime, IsThatOfTheUsersZone) {
  EXPECT_EQ(localTime(Date{0}, Precision::kSeconds), "2000-12-31 19:00:00");
  EXPECT_EQ(localTime(Date{0.9}, Precision::kMinutes), "2000-12-31 19:00");
  EXPECT_EQ(localTime(Date{0}, Precision::kDays), "2000-12-31");
}

TEST_F(LocalTime, OfDatesFarOffIsEmpty) {
  for (const double seconds : {1e300, -1e300, 1e12, std::numeric_limits<double>::quiet_NaN(),
                               std::numeric_limits<double>::infinity()}) {
    EXPECT_EQ(localTime(Date{seconds}, Precision::kDays), "") << seconds;
  }
}

TEST_F(LocalTime, ReachesFromTheFirstYearToTheLast) {
  EXPECT_EQ(localTime(*Date::fromIso8601("0001-06-01T12:00:00Z"), Precision::kDays), "0001-06-01");
  EXPECT_EQ(localTime(*Date::fromIso8601("9999-06-01T12:00:00Z"), Precision::kDays), "9999-06-01");
}

}  // namespace
}  // namespace thmp::console
