// SPDX-License-Identifier: Apache-2.0
//
// The plug-in names the attributes that it fetches, the query language knows those that there are;
// neither may include the other.
#include <gtest/gtest.h>

#include <set>
#include <string_view>

#include "host/query/attributes.h"
#include "search/QueryConstruction.h"

namespace thmp {
namespace {

TEST(AttributeNames, ThoseThatThePlugInFetchesAreThoseThatTheTableLetsItFetch) {
  AttributeList list;
  const std::set<std::string_view> searched(list.build()->begin(), list.build()->end());
  std::set<std::string_view> known;
  for (const query::AttributeInfo& info : query::attributes()) {
    if (info.use == query::AttributeUse::kFetched) known.insert(info.name);
  }
  EXPECT_EQ(known, searched);
  EXPECT_EQ(known.size(), 91U);
}

}  // namespace
}  // namespace thmp
