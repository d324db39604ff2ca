// SPDX-License-Identifier: Apache-2.0
#include "client/library/LiveSearch.h"

#include <gtest/gtest.h>

#include "messaging/message_names.h"

namespace thmp::client {
namespace {

Message update(std::uint64_t number, const char* batch, const char* name = kQueryHasUpdatesName) {
  return {name, {{kBatchNumberKey, number}, {kBatchNameKey, batch}}};
}

TEST(LiveSearch, TakesBatchesByTheirNumbers) {
  LiveSearch search;
  search.note(update(2, "second"));
  search.note(update(1, "first"));
  EXPECT_EQ(search.takeBatch(), std::pair(std::uint64_t{1}, std::string("first")));
  EXPECT_EQ(search.takeBatch(), std::pair(std::uint64_t{2}, std::string("second")));
}

TEST(LiveSearch, SeesTheGapBeforeABatchThatCameEarly) {
  LiveSearch search;
  search.note(update(2, "second"));
  EXPECT_TRUE(search.hasGap());
  search.note(update(1, "first"));
  EXPECT_FALSE(search.hasGap());
}

TEST(LiveSearch, GoesOnCountingFromABatchWhoseForerunnerNeverCame) {
  LiveSearch search;
  search.note(update(5, "fifth"));
  search.takeBatch();
  search.note(update(6, "sixth"));
  EXPECT_FALSE(search.hasGap());
}

TEST(LiveSearch, NumbersRemovalsApart) {
  LiveSearch search;
  search.note(update(1, "gone", kQueryHasRemovalsName));
  EXPECT_TRUE(search.batches.empty());
  EXPECT_EQ(search.removals.at(1), "gone");
}

TEST(LiveSearch, OfTwoCompletionsKeepsTheOneThatHasFailed) {
  LiveSearch search;
  search.note({kQueryDidCompleteName, {{kErrorCodeKey, -2002}}});
  search.note({kQueryDidCompleteName, {}});
  ASSERT_TRUE(search.completion);
  EXPECT_EQ((*search.completion)[kErrorCodeKey].asInteger(), -2002);
}

TEST(LiveSearch, HasStartedOnceThePluginSaysSo) {
  LiveSearch search;
  search.note(update(1, "first"));
  EXPECT_FALSE(search.started);
  search.note({kQueryDidStartName, {}});
  EXPECT_TRUE(search.started);
}

}  // namespace
}  // namespace thmp::client
