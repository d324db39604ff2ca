// SPDX-License-Identifier: Apache-2.0
#include "host/query/explanation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/query/query_testing.h"

namespace thmp::query {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

std::string predicatesOf(std::string_view text, const QueryOptions& options = testOptions()) {
  const std::optional<Query> query = parsed(text, options);
  return query ? explainPredicates(*query, options) : "";
}

std::string attributesOf(std::string_view text) {
  const std::optional<Query> query = parsed(text);
  return query ? explainAttributes(*query) : "";
}

std::vector<std::string> doubtsAbout(std::string_view text) {
  const std::optional<Query> query = parsed(text);
  return query ? doubts(*query) : std::vector<std::string>{"?"};
}

TEST(QueryExplanation, EachNameIsExplainedOnceAsItWasWritten) {
  EXPECT_EQ(attributesOf("subject == \"a\" || kMDItemSubject[c] == b || subject != a"),
            "subject = kMDItemSubject (string): subject\n"
            "kMDItemSubject (string): subject\n");
}

TEST(QueryExplanation, NamesInFunctionsAreExplainedAndValuesAreNot) {
  const std::string names =
      attributesOf("inrange(kMDItemFSSize, 1, 2) && FieldMatch(title, kMDItemURL, kind)");
  EXPECT_THAT(names, StartsWith("kMDItemFSSize (number): "));
  EXPECT_THAT(names, HasSubstr("\ntitle = kMDItemTitle (string): "));
  EXPECT_EQ(std::count(names.begin(), names.end(), '\n'), 2);
}

TEST(QueryExplanation, AnUnknownNameGetsTheNearestOne) {
  EXPECT_EQ(attributesOf("kMDItemSubjekt == x"),
            "kMDItemSubjekt: no message has it; did you mean kMDItemSubject?\n");
  EXPECT_EQ(attributesOf("Subject == x"), "Subject: no message has it; did you mean subject?\n");
  EXPECT_EQ(attributesOf("kMDItemAuthor == x"),
            "kMDItemAuthor: no message has it; did you mean kMDItemAuthors?\n");
  EXPECT_EQ(attributesOf("com_apple_mail_red == 1"),
            "com_apple_mail_red: no message has it; did you mean "
            "com_apple_mail_read?\n");
  EXPECT_EQ(attributesOf("weather == x"), "weather: no message has it\n");
}

TEST(QueryExplanation, AnyAttributeSaysWhatItLeavesOut) {
  EXPECT_THAT(attributesOf("* == x || ** == x"), HasSubstr("but the text of the body"));
}

TEST(QueryExplanation, TextIsShownAsItIsCompared) {
  EXPECT_EQ(predicatesOf("subject == \"Gr\xC3\xBC\xC3\x9F*\"cd"),
            "kMDItemSubject == \"Gr\xC3\xBC\xC3\x9F*\"cd\n"
            "  begins with \"gruss\"; capitals and accents do not count\n");
  EXPECT_THAT(predicatesOf("subject == \"*Cake\"c"),
              HasSubstr("ends with \"cake\"; accents count, capitals do not"));
  EXPECT_THAT(predicatesOf("subject == \"*cake*\"d"),
              HasSubstr("contains \"cake\"; capitals count, accents do not"));
  EXPECT_THAT(predicatesOf("subject == \"Cake\""), HasSubstr("is, as a whole, \"Cake\""));
  EXPECT_THAT(predicatesOf("subject == \"Cake\""), HasSubstr("add cd"));
  EXPECT_THAT(predicatesOf("subject == \"P?um*cake\""), HasSubstr("like \"P?um*cake\""));
  EXPECT_THAT(predicatesOf("subject == \"\""), HasSubstr("is, as a whole, \"\""));
}

TEST(QueryExplanation, LettersStandApartFromAWordWithoutQuotes) {
  EXPECT_THAT(predicatesOf("subject ==[cd] plum"), StartsWith("kMDItemSubject == plum [cd]\n"));
  EXPECT_THAT(predicatesOf("subject ==[cd] \"plum\""),
              StartsWith("kMDItemSubject == \"plum\"cd\n"));
  EXPECT_THAT(predicatesOf("subject == plum"), StartsWith("kMDItemSubject == plum\n"));
}

TEST(QueryExplanation, WordsAreToldOneByOne) {
  EXPECT_THAT(predicatesOf("subject == \"Plum\"wc"), HasSubstr("has the word \"plum\""));
  EXPECT_THAT(predicatesOf("subject == \"Plum, ca*\"ct"),
              HasSubstr("has each of the words \"plum\", \"ca*\""));
  EXPECT_THAT(predicatesOf("textContent == \"paris*\""), HasSubstr("has the word \"paris*\""))
      << "the body is always searched by words";
  EXPECT_THAT(predicatesOf("subject == \"plum cake\"w"),
              HasSubstr("one after the other, the words \"plum cake\""));
  EXPECT_THAT(predicatesOf("subject == \"--\"t"), HasSubstr("never matches"));
}

TEST(QueryExplanation, TimesAreShownInLocalTime) {
  QueryOptions options = testOptions();
  EXPECT_THAT(predicatesOf("contentCreationDate == $time.today", options),
              HasSubstr("from 2024-03-13T00:00:00Z up to, not including, 2024-03-14T00:00:00Z"));
  options.utcOffsetAt = [](std::int64_t) { return std::int64_t{-12600}; };
  EXPECT_THAT(predicatesOf("contentCreationDate >= $time.today(-7)", options),
              HasSubstr("at 2024-03-06T00:00:00-03:30 or after"));
  EXPECT_THAT(predicatesOf("contentCreationDate < 2024-01-01T10:00Z", options),
              HasSubstr("before 2024-01-01T06:30:00-03:30"));
  EXPECT_THAT(predicatesOf("contentCreationDate > $time.now", options), HasSubstr("after 2024-"));
  EXPECT_THAT(predicatesOf("contentCreationDate <= $time.now", options), HasSubstr("or before"));
  EXPECT_THAT(predicatesOf("contentCreationDate == $time.now", options), HasSubstr("exactly"));
  EXPECT_THAT(predicatesOf("InRange(contentCreationDate, $time.today(-1), $time.today)", options),
              HasSubstr("from 2024-03-12T00:00:00-03:30 to 2024-03-13T00:00:00-03:30, both"));
}

TEST(QueryExplanation, PresenceAndNegationAreSaid) {
  EXPECT_THAT(predicatesOf("subject == \"*\""), HasSubstr("messages that have it"));
  EXPECT_THAT(predicatesOf("subject != \"*\""), HasSubstr("messages without it"));
  EXPECT_THAT(predicatesOf("!(subject != \"a\")"), HasSubstr("those without it included"));
  EXPECT_THAT(predicatesOf("true && false"), HasSubstr("true\n  every message\nfalse\n  no"));
}

TEST(QueryDoubts, NothingIsDoubtedInASoundQuery) {
  for (const char* text :
       {"subject == \"a\"", "kMDItemFSSize > 10", "com_apple_mail_read == yes",
        "com_apple_mail_read >= 1", "contentCreationDate == \"2024-02-29\"", "* == x",
        "InRange(kMDItemFSSize, 1, 1)", "InRange(contentCreationDate, 2024-01-01, $time.now)",
        "kMDItemFSCreatorCode != \"*\"", "emailHeaders == \"*\"", "true",
        "FieldMatch(subject, a, \"*\")", "kMDItemFSSize < $time.now"}) {
    EXPECT_THAT(doubtsAbout(text), IsEmpty()) << text;
  }
}

TEST(QueryDoubts, WhatCanNeverBeTrueIsSaidWithTheReason) {
  EXPECT_THAT(doubtsAbout("kMDItemSubjekt == x && kMDItemSubjekt == y"),
              ElementsAre("no message has kMDItemSubjekt; did you mean kMDItemSubject?"));
  EXPECT_THAT(doubtsAbout("kMDItemFSCreatorCode == \"*\""),
              ElementsAre(StartsWith("no message has kMDItemFSCreatorCode (")));
  EXPECT_THAT(doubtsAbout("contentCreationDate > \"2026-02-30\""),
              ElementsAre("kMDItemContentCreationDate is a date, \"2026-02-30\" is none; write "
                          "YYYY-MM-DD, YYYY-MM-DDTHH:MM or $time.today"));
  EXPECT_THAT(doubtsAbout("kMDItemFSSize == big"),
              ElementsAre("kMDItemFSSize is a number, big is none"));
  EXPECT_THAT(doubtsAbout("com_apple_mail_read == maybe"),
              ElementsAre("com_apple_mail_read is true or false, maybe neither"));
  EXPECT_THAT(doubtsAbout("com_apple_mail_read > no"), ElementsAre(HasSubstr("0 and 1")));
  EXPECT_THAT(doubtsAbout("subject > \"a\""), ElementsAre(HasSubstr("has no order")));
  EXPECT_THAT(doubtsAbout("subject == $time.now"), ElementsAre(HasSubstr("a time")));
  EXPECT_THAT(doubtsAbout("emailHeaders == \"x\""), ElementsAre(HasSubstr("== \"*\"")));
  EXPECT_THAT(doubtsAbout("InRange(kMDItemFSSize, 9, 2)"), ElementsAre("9 lies above 2"));
  EXPECT_THAT(doubtsAbout("InRange(contentCreationDate, $time.today, $time.today(-1))"),
              ElementsAre("$time.today lies above $time.today(-1)"));
  EXPECT_THAT(doubtsAbout("InRange(weather, 1, 2)"), ElementsAre("no message has weather"));
  EXPECT_THAT(doubtsAbout("FieldMatch(com_apple_mail_read, 1, x)"), ElementsAre(HasSubstr("x")));
  EXPECT_THAT(doubtsAbout("FieldMatch(weather, 1)"), ElementsAre("no message has weather"));
}

TEST(QueryDoubts, WhatIsAlwaysTrueIsNoReasonToFindNothing) {
  EXPECT_THAT(doubtsAbout("kMDItemSubjekt != x"), IsEmpty());
  EXPECT_THAT(predicatesOf("kMDItemSubjekt != x"), HasSubstr("true of every message: no message"));
}

TEST(QueryExplanation, ControlCharactersStayOut) {
  EXPECT_EQ(predicatesOf("subject == \"\x1B[2J*\"").find('\x1B'), std::string::npos);
}

}  // namespace
}  // namespace thmp::query
