// SPDX-License-Identifier: Apache-2.0
#include "console/found_messages.h"

#include <gtest/gtest.h>

namespace thmp::console {
namespace {

TEST(FoundMessagesAsJson, AreEventsOfOneLineEach) {
  const Dictionary item = {{"libraryID", 7},
                           {"index", 0},
                           {"kMDItemPath", "/mail/1"},
                           {"attributes", Dictionary{{"a", "x"}}}};
  testing::internal::CaptureStdout();
  StandardOutput output(ColorMode::kNever);
  printFoundEvent(item, output);
  printFoundEvent({}, output);
  output.flush();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            R"({"event":"found","index":0,"libraryID":7,"path":"/mail/1","attributes":{"a":"x"}})"
            "\n"
            R"({"event":"found","index":null,"libraryID":null,"path":null,"attributes":null})"
            "\n");
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
