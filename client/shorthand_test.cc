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
  for (const char* text : {"before:2023-02-29", "after:2023-13", "after:23", "after:2023-",
                           "after:2023-1-1", "after:2023-01-01x", "after:tuesday", "after:0000"}) {
    EXPECT_TRUE(made(text).starts_with("error: ")) << text << ": " << made(text);
  }
}

TEST(Shorthand, FlagsNegationAndSubject) {
  EXPECT_EQ(made("has:attachment -is:read"),
            "kMDItemAttachmentNames == \"*\" && !(com_apple_mail_read == 1)");
  EXPECT_EQ(made("subject:lake"), "kMDItemSubject == \"*lake*\"cd");
  EXPECT_TRUE(made("is:purple").starts_with("error: \"is:purple\" is not understood"));
  EXPECT_TRUE(made("from:").starts_with("error: \"from:\" needs a text"));
}

TEST(Shorthand, UnknownKeyIsAPlainWord) {
  EXPECT_EQ(made("Re:"), anywhere("\"Re:*\"cdw"));
  EXPECT_EQ(made("\"from:ada\""), anywhere("\"from:ada*\"cdw"));
}

TEST(Shorthand, SpecialCharactersAreTakenLiterally) {
  EXPECT_EQ(made("subject:a*b?c\\"), R"(kMDItemSubject == "*a\*b\?c\\*"cd)");
}

TEST(Shorthand, NothingButBlanksFindsAll) { EXPECT_EQ(made(" \t"), ""); }

}  // namespace
}  // namespace thmp::client
