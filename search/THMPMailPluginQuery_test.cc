// SPDX-License-Identifier: Apache-2.0
#include "search/THMPMailPluginQuery.h"

#include <gtest/gtest.h>

namespace thmp {
namespace {

TEST(QueryRecord, NewRecordIsEmpty) {
  const Text name("q");
  THMPMailPluginQuery record(name);
  EXPECT_EQ(record.queryName().view(), "q");
  EXPECT_EQ(record.queryName().identity(), name.identity());
  EXPECT_TRUE(record.clientName().isNull());
  EXPECT_TRUE(record.lineageName().isNull());
  EXPECT_TRUE(record.queryString().isNull());
  EXPECT_TRUE(record.sortingAttribute().isNull());
  EXPECT_FALSE(record.sortAscending());
  EXPECT_EQ(record.searchQuery(), nullptr);
  EXPECT_TRUE(record.messageIDs().empty());
  EXPECT_TRUE(record.pendingBatches().empty());
  EXPECT_FALSE(record.error().isSet());
}

TEST(QueryRecord, ChangingASettersTextAfterwardsDoesNotChangeTheRecord) {
  THMPMailPluginQuery record("q");
  std::string text = "before";
  Value value(text);
  record.setClientName(value);
  record.setLineageName(value);
  record.setQueryString(value);
  record.setSortingAttribute(value);
  text = "after";
  value = Value(text);
  EXPECT_EQ(record.clientName(), Value("before"));
  EXPECT_EQ(record.lineageName(), Value("before"));
  EXPECT_EQ(record.queryString(), Value("before"));
  EXPECT_EQ(record.sortingAttribute(), Value("before"));
}

TEST(QueryRecord, KeepsWhatIsSet) {
  THMPMailPluginQuery record("q");
  record.setSortAscending(true);
  record.setError(Error{"Domain", 4, "text", nullptr});
  EXPECT_TRUE(record.sortAscending());
  EXPECT_EQ(record.error().code, 4);
}

TEST(QueryRecord, CollectionsAreChangedInPlace) {
  THMPMailPluginQuery record("q");
  auto& ids = record.messageIDs();
  auto& pending = record.pendingBatches();
  ids.insert(5);
  pending.push_back({"pb-1", 1, nullptr});
  EXPECT_EQ(&record.messageIDs(), &ids);
  EXPECT_TRUE(record.messageIDs().contains(5));
  EXPECT_EQ(record.pendingBatches().size(), 1u);
}

}  // namespace
}  // namespace thmp
