// SPDX-License-Identifier: Apache-2.0
#include "client/shorthand.h"

#include <gtest/gtest.h>

namespace thmp::client {
namespace {

std::string made(std::string_view shorthand) {
  const Result<std::string> predicate = predicateFromShorthand(shorthand);
  return predicate ? *predicate : "error: " + predicate.error().description;
}

// What a plain word becomes.
std::string anywhere(const std::string& literal) {
  std::string predicate;
  for (const char* attribute :
       {"kMDItemSubject", "kMDItemTextContent", "kMDItemAuthors", "kMDItemRecipients",
        "kMDItemEmailAddresses", "kMDItemAttachmentNames"}) {
    predicate += (predicate.empty() ? "(" : " || ") + std::string(attribute) + " == " + literal;
  }
  return predicate + ")";
}

TEST(Predicate, HasAnOperatorOrParenthesisOutsideQuotes) {
  EXPECT_TRUE(isPredicate("kMDItemSubject == \"x\""));
  EXPECT_TRUE(isPredicate("a<1"));
  EXPECT_TRUE(isPredicate("InRange(a,1,2)"));
  EXPECT_FALSE(isPredicate("plum cake"));
  EXPECT_FALSE(isPredicate("\"1 < 2 (really)\""));
  EXPECT_FALSE(isPredicate("'a = b'"));
  EXPECT_FALSE(isPredicate(R"(a \= b)"));
}

TEST(Predicate, ApostropheInsideAWordIsNoQuote) {
  EXPECT_FALSE(isPredicate("don't panic"));
  EXPECT_TRUE(isPredicate("don't = x"));
}

TEST(Shorthand, PeopleAreFoundByNameOrAddress) {
  EXPECT_EQ(made("from:ada"),
            "(kMDItemAuthors == \"*ada*\"cd || kMDItemAuthorEmailAddresses == \"*ada*\"cd)");
  EXPECT_EQ(made("to:ada"),
            "(kMDItemRecipients == \"*ada*\"cd || kMDItemRecipientEmailAddresses == \"*ada*\"cd)");
  EXPECT_EQ(made("with:\"ada b\""),
            "(kMDItemAuthors == \"*ada b*\"cd || kMDItemRecipients == \"*ada b*\"cd || "
            "kMDItemEmailAddresses == \"*ada b*\"cd)");
}

TEST(Shorthand, WordsMustAllOccurAsTheBeginningOfAWord) {
  EXPECT_EQ(made("plum cake"), anywhere("\"plum*\"cdw") + " && " + anywhere("\"cake*\"cdw"));
  EXPECT_EQ(made("\"plum cake\""), anywhere("\"plum cake*\"cdw"));
}

TEST(Shorthand, DatesMayStopAtTheYearOrMonth) {
  EXPECT_EQ(made("after:2024"), "com_apple_mail_dateReceived >= $time.iso(2024-01-01)");
  EXPECT_EQ(made("before:2024-02-29"), "com_apple_mail_dateReceived < $time.iso(2024-02-29)");
}

TEST(Shorthand, DateThatDoesNotExistIsAnError) {
  for (const std::string text :
       {"2026-02-30", "2023-02-29", "1900-02-29", "2023-13", "2023-00", "2023-01-00", "0000"}) {
    EXPECT_EQ(made("before:" + text), "error: there is no " + text + " in the calendar");
  }
  EXPECT_EQ(made("after:2000-02-29"), "com_apple_mail_dateReceived >= $time.iso(2000-02-29)");
}

TEST(Shorthand, DateOfAnotherFormIsAnError) {
  for (const std::string text :
       {"23", "2023-", "2023-1-1", "2023-01-01x", "2023/01/01", "tuesday", "+202", "20230101"}) {
    EXPECT_EQ(made("after:" + text),
              "error: \"" + text + "\" is no date; write it as 2026, 2026-05 or 2026-05-31");
  }
}

TEST(Shorthand, FlagsNegationAndSubject) {
  EXPECT_EQ(made("has:attachment -is:read"),
            "kMDItemAttachmentNames == \"*\" && !(com_apple_mail_read == 1)");
  EXPECT_EQ(made("subject:lake"), "kMDItemSubject == \"*lake*\"cd");
  EXPECT_EQ(made("-from:ada"),
            "!(kMDItemAuthors == \"*ada*\"cd || kMDItemAuthorEmailAddresses == \"*ada*\"cd)");
  EXPECT_EQ(made("Is:UNREAD"), "com_apple_mail_read != 1");
}

TEST(Shorthand, EmptyValueIsAnError) {
  for (const std::string key : {"from", "to", "with", "subject", "after", "before", "has", "is"}) {
    EXPECT_EQ(made(key + ":"), "error: \"" + key + ":\" needs a text behind the colon");
    EXPECT_EQ(made("plum " + key + ":\"\""), made(key + ":"));
  }
}

TEST(Shorthand, SlipsAreHintedAt) {
  EXPECT_EQ(made("form:ada"),
            "error: there is no key \"form:\"; did you mean \"from:\"? Or put the words in quotes "
            "to search for them");
  EXPECT_EQ(made("-sbuject:x"),
            "error: there is no key \"sbuject:\"; did you mean \"subject:\"? Or put the words in "
            "quotes to search for them");
  EXPECT_EQ(made("is:flaged"), "error: \"is:flaged\" is not understood; did you mean is:flagged?");
}

TEST(Shorthand, WhatIsNotUnderstoodIsToldWithTheChoice) {
  EXPECT_EQ(
      made("colour:red"),
      "error: there is no key \"colour:\"; use one of from: to: with: subject: after: before: "
      "has: is:, or put the words in quotes to search for them");
  EXPECT_EQ(made("is:purple"),
            "error: \"is:purple\" is not understood; use is:unread is:read is:flagged is:answered");
  EXPECT_EQ(made("from:\"ada b"), "error: a quote is not closed; put one more behind \"ada b");
}

TEST(Shorthand, ColonsAlsoStandInWords) {
  EXPECT_EQ(made("Re:"), anywhere("\"Re:*\"cdw"));
  EXPECT_EQ(made("12:30"), anywhere("\"12:30*\"cdw"));
  EXPECT_EQ(made(":ada"), anywhere("\":ada*\"cdw"));
  EXPECT_EQ(made("http://lake.example"), anywhere("\"http://lake.example*\"cdw"));
  EXPECT_EQ(made("\"form:ada\""), anywhere("\"form:ada*\"cdw"));
  EXPECT_EQ(made("from:a:b"),
            "(kMDItemAuthors == \"*a:b*\"cd || kMDItemAuthorEmailAddresses == \"*a:b*\"cd)");
}

TEST(Shorthand, SpecialCharactersAreTakenLiterally) {
  EXPECT_EQ(made("subject:a*b?c\\"), R"(kMDItemSubject == "*a\*b\?c\\*"cd)");
}

TEST(Shorthand, NothingButBlanksFindsAll) { EXPECT_EQ(made(" \t"), ""); }

}  // namespace
}  // namespace thmp::client
