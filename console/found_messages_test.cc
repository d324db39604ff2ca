// SPDX-License-Identifier: Apache-2.0
#include "console/found_messages.h"

#include <gtest/gtest.h>

namespace thmp::console {
namespace {

TEST(FoundMessagesAsJson, KeepEachKindOfValue) {
  const Dictionary item = {{"libraryID", 7},
                           {"index", 0},
                           {"kMDItemPath", "/mail/1"},
                           {"attributes", Dictionary{{"a", Array{"x", 1.5, true}},
                                                     {"b", Date{0}},
                                                     {"c", Data{"hello"}},
                                                     {"d", std::uint64_t{18446744073709551615U}}}}};
  EXPECT_EQ(
      foundEvent(item).dump(),
      R"({"event":"found","index":0,"libraryID":7,"path":"/mail/1","attributes":)"
      R"({"a":["x",1.5,true],"b":"2001-01-01T00:00:00Z","c":"aGVsbG8=","d":18446744073709551615}})");
}

TEST(FoundMessagesAsJson, DataOfEachLengthIsPadded) {
  EXPECT_EQ(jsonOf(Value(Data{""})), "");
  EXPECT_EQ(jsonOf(Value(Data{"f"})), "Zg==");
  EXPECT_EQ(jsonOf(Value(Data{"fo"})), "Zm8=");
  EXPECT_EQ(jsonOf(Value(Data{"foo"})), "Zm9v");
  EXPECT_EQ(jsonOf(Value(Data{"\xFB\xEF\xFF"})), "++//");
}

TEST(FoundMessagesAsRows, TakeTheFirstAuthorAndAreSafeToShow) {
  const TableRow row = tableRow(
      Dictionary{{"kMDItemAuthors", Array{"Ada\x1b", "Bruno"}}, {"kMDItemDisplayName", "a\nb"}});
  EXPECT_EQ(row.author, "Ada\\x1B");
  EXPECT_EQ(row.subject, "a b");
  EXPECT_EQ(row.date, "");
}

TEST(FoundMessagesAsRows, FallBackToTheDateSent) {
  EXPECT_NE(tableRow(Dictionary{{"kMDItemContentCreationDate", Date{0}}}).date, "");
  EXPECT_EQ(tableRow(Dictionary{{"kMDItemContentCreationDate", Date{1e300}}}).date, "");
}

}  // namespace
}  // namespace thmp::console
