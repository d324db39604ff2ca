// SPDX-License-Identifier: Apache-2.0
//
// The plug-in names the attributes that it fetches, the query language knows those that there are,
// the client sorts by them; none may include another.
#include <gtest/gtest.h>

#include <set>
#include <string_view>

#include "client/sort_attributes.h"
#include "host/query/attributes.h"
#include "search/QueryConstruction.h"

namespace thmp {
namespace {

std::set<std::string_view> fetchedInTheTable() {
  std::set<std::string_view> names;
  for (const query::AttributeInfo& info : query::attributes()) {
    if (info.use == query::AttributeUse::kFetched) names.insert(info.name);
  }
  return names;
}

TEST(AttributeNames, ThoseThatThePlugInFetchesAreThoseThatTheTableLetsItFetch) {
  AttributeList list;
  const std::set<std::string_view> searched(list.build()->begin(), list.build()->end());
  EXPECT_EQ(fetchedInTheTable(), searched);
  EXPECT_EQ(searched.size(), 91U);
}

TEST(AttributeNames, ThoseThatTheClientSortsByAreThoseThatTheTableLetsBeFetched) {
  const auto sorted = client::fetchedAttributes();
  EXPECT_EQ(fetchedInTheTable(), std::set<std::string_view>(sorted.begin(), sorted.end()));
}

}  // namespace
}  // namespace thmp
