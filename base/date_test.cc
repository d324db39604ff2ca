// SPDX-License-Identifier: Apache-2.0
#include "base/date.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

namespace thmp {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

TEST(Dates, AreWrittenInUtc) {
  EXPECT_EQ(Date{0}.iso8601(), "2001-01-01T00:00:00Z");
  EXPECT_EQ(Date::fromUnixSeconds(0).iso8601(), "1970-01-01T00:00:00Z");
  EXPECT_EQ(Date::fromUnixSeconds(951'782'399).iso8601(), "2000-02-28T23:59:59Z");
  EXPECT_EQ(Date::fromUnixSeconds(951'782'400).iso8601(), "2000-02-29T00:00:00Z");
  EXPECT_EQ(Date::fromUnixSeconds(4'107'542'400).iso8601(), "2100-03-01T00:00:00Z");
  EXPECT_EQ(Date::fromUnixSeconds(12.5).unixSeconds(), 12.5);
}

TEST(Dates, CutFractionsTowardsThePast) {
  EXPECT_EQ(Date{1.999}.iso8601(), "2001-01-01T00:00:01Z");
  EXPECT_EQ(Date{-0.001}.iso8601(), "2000-12-31T23:59:59Z");
}

TEST(Dates, OutsideTheYearsOneTo9999AreTheNearestInside) {
  for (const double seconds : {-kInfinity, -1e300, -63'113'904'001.0, std::nan("")}) {
    EXPECT_EQ(Date{seconds}.iso8601(), "0001-01-01T00:00:00Z") << seconds;
  }
  for (const double seconds : {kInfinity, 1e300, 252'423'993'600.0}) {
    EXPECT_EQ(Date{seconds}.iso8601(), "9999-12-31T23:59:59Z") << seconds;
  }
  EXPECT_EQ(Date{-63'113'904'000}.iso8601(), "0001-01-01T00:00:00Z");
  EXPECT_EQ(Date{-63'113'903'999}.iso8601(), "0001-01-01T00:00:01Z");
  EXPECT_EQ(Date{252'423'993'598}.iso8601(), "9999-12-31T23:59:58Z");
}

TEST(Dates, AreReadAsTheyAreWritten) {
  for (double seconds = -63'113'904'000; seconds < 252'423'993'600; seconds += 98'765'432.0) {
    const Date date{seconds};
    EXPECT_EQ(Date::fromIso8601(date.iso8601()), date) << date.iso8601();
  }
}

TEST(Dates, AreReadInNoOtherForm) {
  const std::vector<const char*> texts = {"",
                                          "2001-01-01",
                                          "2001-01-01T00:00:00",
                                          "2001-01-01 00:00:00Z",
                                          "2001-01-01T00:00:00z",
                                          "2001-01-01T00:00:00+00:00",
                                          "2001-01-01T00:00:00.0Z",
                                          "2001-13-01T00:00:00Z",
                                          "2001-00-01T00:00:00Z",
                                          "2001-02-29T00:00:00Z",
                                          "2001-01-32T00:00:00Z",
                                          "2001-01-00T00:00:00Z",
                                          "2001-01-01T24:00:00Z",
                                          "2001-01-01T00:60:00Z",
                                          "2001-01-01T00:00:60Z",
                                          "0000-01-01T00:00:00Z",
                                          "-001-01-01T00:00:00Z",
                                          "2001-01-01T0 :00:00Z",
                                          "+201-01-01T00:00:00Z",
                                          " 2001-01-01T00:00:00Z"};
  for (const char* text : texts) {
    EXPECT_EQ(Date::fromIso8601(text), std::nullopt) << text;
  }
  EXPECT_EQ(Date::fromIso8601("2000-02-29T23:59:59Z"), Date{-26'438'401});
  RecordProperty("bad_inputs", static_cast<int>(texts.size()));
}

}  // namespace
}  // namespace thmp
