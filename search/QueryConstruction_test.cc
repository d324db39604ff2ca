// SPDX-License-Identifier: Apache-2.0
#include "search/QueryConstruction.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <thread>

#include "platform/fake/ScriptedSpotlight.h"

namespace thmp {
namespace {

using ::testing::Contains;

class QueryConstruction : public ::testing::Test {
 protected:
  ScriptedSpotlight spotlight_;
  AttributeList list_;
};

TEST_F(QueryConstruction, TextPassesUnchanged) {
  const std::string text("a == \"*\"cd) || (x \0\xff", 21);
  ASSERT_NE(buildQueryWithString(spotlight_, list_, text, /*fetchAllAttributes=*/true), nullptr);
  EXPECT_EQ(spotlight_.query()->text(), text);
}

TEST_F(QueryConstruction, QueryIsNeitherStartedNorGivenHandlers) {
  const auto query = buildQueryWithString(spotlight_, list_, "q", /*fetchAllAttributes=*/true);
  EXPECT_TRUE(spotlight_.query()->calls().empty());
  EXPECT_FALSE(spotlight_.query()->started());
}

TEST_F(QueryConstruction, AllAttributesAreTheList) {
  const auto query = buildQueryWithString(spotlight_, list_, "q", /*fetchAllAttributes=*/true);
  EXPECT_EQ(spotlight_.query()->attributes(), list_.build());
}

TEST_F(QueryConstruction, WithoutAllAttributesTheQueryHasNoListYetTheListIsBuilt) {
  const auto query = buildQueryWithString(spotlight_, list_, "q", /*fetchAllAttributes=*/false);
  EXPECT_EQ(spotlight_.query()->attributes(), nullptr);
  const long sharedWithTheList = list_.build().use_count();
  EXPECT_EQ(sharedWithTheList, 1);
}

TEST_F(QueryConstruction, ListHoldsNinetyOneNamesEachOnce) {
  const std::vector<std::string>& names = *list_.build();
  EXPECT_EQ(names.size(), 91u);
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), 91u);
  EXPECT_EQ(std::count(names.begin(), names.end(), "kMDItemAuthors"), 1);
  EXPECT_EQ(std::count(names.begin(), names.end(), "kMDItemKeywords"), 1);
}

TEST_F(QueryConstruction, ListHoldsWhatASearchReads) {
  for (const char* name :
       {"_kMDItemExternalID", "kMDItemPath", "kMDItemDisplayName", "kMDItemSubject",
        "kMDItemFSContentChangeDate", "kMDItemFSCreationDate", "kMDItemContentCreationDate",
        "com_apple_mail_dateReceived", "kMDItemLastUsedDate", ":MD:DeviceId", "kMDItemProjects",
        "kMDItemComment", "kMDItemEmailAddresses", "kMDItemIsLikelyJunk", "kMDItemWhereFroms"}) {
    EXPECT_THAT(*list_.build(), Contains(name));
  }
}

TEST_F(QueryConstruction, ListIsBuiltOnce) {
  const AttributeList::Names first = list_.build();
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] { EXPECT_EQ(list_.build(), first); });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(QueryConstruction, EngineWithoutQueryGivesNull) {
  spotlight_.failQueries(true);
  EXPECT_EQ(buildQueryWithString(spotlight_, list_, "q", /*fetchAllAttributes=*/true), nullptr);
}

}  // namespace
}  // namespace thmp
