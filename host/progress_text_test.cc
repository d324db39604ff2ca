// SPDX-License-Identifier: Apache-2.0
#include "host/progress_text.h"

#include <gtest/gtest.h>

namespace thmp {
namespace {

using std::chrono::seconds;

TEST(ProgressText, SaysHowFarHowFastAndHowLongStill) {
  EXPECT_EQ(progressText({1000, 20000, 500.4}), "1000 of 20000, 500 a second, 38 s left");
  EXPECT_EQ(progressText({1000, 200000, 500}), "1000 of 200000, 500 a second, 7 min left");
}

TEST(ProgressText, LeavesOutWhatCannotBeTold) {
  EXPECT_EQ(progressText({10, 20, 0.2}), "10 of 20, 0 a second");
  EXPECT_EQ(progressText({20, 20, 5}), "20 of 20, 5 a second");
}

TEST(ProgressPace, IsDueOnceAnInterval) {
  const Pace::Time begun;
  Pace pace(seconds(10), begun);
  EXPECT_FALSE(pace.isDue(begun));
  EXPECT_FALSE(pace.isDue(begun + seconds(9)));
  EXPECT_TRUE(pace.isDue(begun + seconds(12)));
  EXPECT_FALSE(pace.isDue(begun + seconds(21)));
  EXPECT_TRUE(pace.isDue(begun + seconds(22)));
}

}  // namespace
}  // namespace thmp
