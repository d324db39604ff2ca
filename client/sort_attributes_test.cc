// SPDX-License-Identifier: Apache-2.0
#include "client/sort_attributes.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace thmp::client {
namespace {

std::string meant(std::string_view name) {
  const Result<std::string> attribute = sortingAttribute(name);
  return attribute ? *attribute : "error: " + attribute.error().description;
}

TEST(SortingAttribute, FetchedOnesStandForThemselves) {
  ASSERT_TRUE(std::is_sorted(fetchedAttributes().begin(), fetchedAttributes().end()));
  for (const std::string_view name : fetchedAttributes()) EXPECT_EQ(meant(name), name);
}

TEST(SortingAttribute, UsualOnesHaveShortNames) {
  EXPECT_EQ(meant("date"), "com_apple_mail_dateReceived");
  EXPECT_EQ(meant("from"), "kMDItemAuthors");
  EXPECT_EQ(meant("to"), "kMDItemRecipients");
  EXPECT_EQ(meant("subject"), "kMDItemSubject");
  EXPECT_EQ(meant("size"), "kMDItemFSSize");
}

TEST(SortingAttribute, SlipsAreHintedAt) {
  EXPECT_EQ(meant("subjet"),
            "error: there is no attribute \"subjet\" to sort by; did you mean subject?");
  EXPECT_EQ(meant("kmditemsubject"),
            "error: there is no attribute \"kmditemsubject\" to sort by; did you mean "
            "kMDItemSubject?");
  EXPECT_EQ(meant("kMDItemSubjet"),
            "error: there is no attribute \"kMDItemSubjet\" to sort by; did you mean "
            "kMDItemSubject?");
}

TEST(SortingAttribute, WhatIsFarFromAllIsToldWithTheChoice) {
  EXPECT_EQ(meant("colour"),
            "error: there is no attribute \"colour\" to sort by; use date, from, to, "
            "subject, size or the full name of one");
  EXPECT_EQ(meant("kMDItemTitle"),
            "error: there is no attribute \"kMDItemTitle\" to sort by; use date, from, to, "
            "subject, size or the full name of one");
  EXPECT_EQ(meant("").rfind("error: ", 0), 0U);
}

}  // namespace
}  // namespace thmp::client
