// SPDX-License-Identifier: Apache-2.0
#include "host/query/evaluator.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "host/query/query_testing.h"

namespace thmp::query {
namespace {

/// A message that notes which attributes it is asked for.
class RecordingMessage : public ValueMessageView {
 public:
  using ValueMessageView::ValueMessageView;

  Value attribute(std::string_view name) const override {
    asked.emplace_back(name);
    return ValueMessageView::attribute(name);
  }

  mutable std::vector<std::string> asked;
};

using Names = std::vector<std::string>;

Names askedFor(std::string_view query, const Dictionary& message) {
  const RecordingMessage view(message);
  matches(*parsed(query), view);
  return view.asked;
}

// --- logic ---

TEST(QueryLogic, FollowsTheTruthTables) {
  EXPECT_TRUE(isMatch("true", {}));
  EXPECT_FALSE(isMatch("false", {}));
  EXPECT_FALSE(isMatch("!true", {}));
  EXPECT_TRUE(isMatch("true&&true", {}));
  EXPECT_FALSE(isMatch("true&&false", {}));
  EXPECT_TRUE(isMatch("false||true", {}));
  EXPECT_FALSE(isMatch("false||false", {}));
  EXPECT_TRUE(isMatch("true||false&&false", {}));
  EXPECT_FALSE(isMatch("(true||false)&&false", {}));
}

TEST(QueryLogic, AsksForNoMoreThanItTakesToKnow) {
  const Dictionary message{{"a", 1}, {"b", 1}};
  EXPECT_EQ(askedFor("a == 1 || b == 1", message), (Names{"a"}));
  EXPECT_EQ(askedFor("a == 2 && b == 1", message), (Names{"a"}));
  EXPECT_EQ(askedFor("a == 1 && b == 1", message), (Names{"a", "b"}));
}

TEST(QueryLogic, ManyThreadsMayAskAboutOneQuery) {
  const Query query = *parsed("a == \"*caf\u00E9*\"cd && InRange(b, 1, 3)");
  std::vector<std::thread> threads;
  std::vector<int> found(4);
  for (std::size_t t = 0; t < found.size(); ++t) {
    threads.emplace_back([&, t, copy = query] {
      for (int i = 0; i < 200; ++i) {
        const ValueMessageView message(Dictionary{{"a", "le CAF\u00C9 noir"}, {"b", i % 4}});
        found[t] += matches(copy, message) ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(found, std::vector<int>(4, 150));
}

// --- equality and absence ---

TEST(QueryEquality, AnAbsentAttributeEqualsNothing) {
  EXPECT_FALSE(isMatch("a == 1", {}));
  EXPECT_TRUE(isMatch("a != 1", {}));
}

TEST(QueryEquality, NotEqualIsExactlyTheOpposite) {
  EXPECT_FALSE(holdsFor("x", "!=x"));
  EXPECT_TRUE(holdsFor("x", "!=y"));
  EXPECT_FALSE(holdsFor(Array{"x", "y"}, "!=x")) << "one element equals";
}

TEST(QueryEquality, AnyElementWillDo) {
  EXPECT_TRUE(holdsFor(Array{"x", "y"}, "==y"));
  EXPECT_TRUE(holdsFor(Array{1, 5}, ">4"));
  EXPECT_FALSE(holdsFor(Array{1, 5}, ">5"));
  EXPECT_TRUE(holdsFor(Array{"x", 5}, "==5"));
}

TEST(QueryEquality, EachPredicatePicksItsOwnElement) {
  EXPECT_TRUE(isMatch("a > 4 && a < 2", {{"a", Array{1, 5}}}));
  EXPECT_FALSE(isMatch("InRange(a, 2, 4)", {{"a", Array{1, 5}}}));
}

TEST(QueryEquality, PresentAndDifferentTakesTwoClauses) {
  const std::string query = "a == \"*\" && a != x";
  EXPECT_TRUE(isMatch(query, {{"a", "y"}}));
  EXPECT_FALSE(isMatch(query, {{"a", "x"}}));
  EXPECT_FALSE(isMatch(query, {}));
}

TEST(QueryEquality, AliasesAskForTheirAttribute) {
  EXPECT_TRUE(isMatch("authorNames == x", {{"kMDItemAuthors", Array{"x"}}}));
}

TEST(QueryEquality, NamesCountCase) {
  EXPECT_FALSE(isMatch("kmditemsubject == x", {{"kMDItemSubject", "x"}}));
}

// --- presence ---

TEST(QueryPresence, NothingButStarsTestsWhetherAnAttributeIsThere) {
  for (const std::string star : {"*", "\"*\"", "'**'", "\"*\"cdwt"}) {
    for (const Value& value : {Value("x"), Value(0), Value(false), Value(0.5), Value(Date{0}),
                               Value(Data{"b"}), Value(Dictionary{{"k", 1}}), Value(Array{"x"})}) {
      EXPECT_TRUE(holdsFor(value, "==" + star)) << star;
      EXPECT_FALSE(holdsFor(value, "!=" + star)) << star;
    }
    EXPECT_FALSE(isMatch("a==" + star, {{"b", 1}})) << star;
    EXPECT_TRUE(isMatch("a!=" + star, {{"b", 1}})) << star;
  }
}

TEST(QueryPresence, EmptyTextsAndArraysAreAbsent) {
  EXPECT_FALSE(holdsFor("", "==*"));
  EXPECT_FALSE(holdsFor(Array{}, "==*"));
  EXPECT_FALSE(holdsFor(Array{""}, "==*"));
  EXPECT_FALSE(holdsFor("", "==\"\""));
}

TEST(QueryPresence, AnEscapedStarIsAText) {
  EXPECT_FALSE(holdsFor("x", "==\"\\*\""));
  EXPECT_TRUE(holdsFor("*", "==\\*"));
}

TEST(QueryPresence, WithAnotherOperatorOrAsABoundStarsNeverMatch) {
  for (const Value& value : {Value("x"), Value(1), Value(Date{1})}) {
    for (const std::string op : {"<", "<=", ">", ">="}) {
      EXPECT_FALSE(holdsFor(value, op + "*"));
    }
    EXPECT_FALSE(isMatch("InRange(a, *, *)", {{"a", value}}));
    EXPECT_FALSE(isMatch("InRange(a, 0, \"*\")", {{"a", value}}));
  }
}

// --- order ---

TEST(QueryOrder, NumbersDatesAndBooleansHaveOne) {
  EXPECT_TRUE(holdsFor(5, ">4"));
  EXPECT_TRUE(holdsFor(5, ">=5"));
  EXPECT_FALSE(holdsFor(5, ">5"));
  EXPECT_TRUE(holdsFor(5, "<5.5"));
  EXPECT_TRUE(holdsFor(5, "<=5"));
  EXPECT_TRUE(holdsFor(false, "<1"));
  EXPECT_TRUE(holdsFor(true, ">=true"));
  EXPECT_TRUE(holdsFor(at("2024-03-01T00:00:00Z"), ">$time.iso(2024-02-29)"));
}

TEST(QueryOrder, StringsHaveNone) {
  for (const std::string op : {"<", "<=", ">", ">="}) {
    EXPECT_FALSE(holdsFor("5", op + "5"));
    EXPECT_FALSE(holdsFor("b", op + "a"));
  }
  EXPECT_FALSE(isMatch("InRange(a, a, z)", {{"a", "b"}}));
}

TEST(QueryOrder, AbsentAttributesHaveNone) {
  EXPECT_FALSE(isMatch("a < 5", {}));
  EXPECT_FALSE(isMatch("a >= 5", {}));
  EXPECT_FALSE(isMatch("InRange(a, 0, 9)", {}));
}

TEST(QueryOrder, ARangeIncludesBothBounds) {
  EXPECT_TRUE(isMatch("InRange(a, 1, 3)", {{"a", 1}}));
  EXPECT_TRUE(isMatch("InRange(a, 1, 3)", {{"a", 3}}));
  EXPECT_FALSE(isMatch("InRange(a, 1, 3)", {{"a", 4}}));
  EXPECT_TRUE(isMatch("InRange(a, 'false', true)", {{"a", true}}));
}

TEST(QueryOrder, ARangeWhoseLeastIsAboveItsMostIsEmpty) {
  EXPECT_FALSE(isMatch("InRange(a, 3, 1)", {{"a", 2}}));
}

TEST(QueryOrder, DatesMayBeBoundedByTimes) {
  const std::string query = "InRange(a, $time.today(-10), $time.today)";
  EXPECT_TRUE(isMatch(query, {{"a", at("2024-03-03T00:00:00Z")}}));
  EXPECT_TRUE(isMatch(query, {{"a", at("2024-03-13T00:00:00Z")}}));
  EXPECT_FALSE(isMatch(query, {{"a", at("2024-03-13T00:00:01Z")}})) << "today is its beginning";
  EXPECT_FALSE(isMatch(query, {{"a", at("2024-03-02T23:59:59Z")}}));
}

// --- FieldMatch ---

TEST(QueryFieldMatch, IsTrueWhenOneValueEquals) {
  EXPECT_TRUE(isMatch("FieldMatch(a, x, y)", {{"a", "y"}}));
  EXPECT_FALSE(isMatch("FieldMatch(a, x, y)", {{"a", "z"}}));
  EXPECT_FALSE(isMatch("FieldMatch(a, x, y)", {}));
  EXPECT_TRUE(isMatch("FieldMatch(a, 1, $time.today)", {{"a", at("2024-03-13T23:59:59Z")}}));
  EXPECT_TRUE(isMatch("FieldMatch(a, *)", {{"a", "y"}}));
}

TEST(QueryFieldMatch, BracketModifiersHoldForEveryValue) {
  EXPECT_TRUE(isMatch("FieldMatch(a[c], x, y)", {{"a", "Y"}}));
  EXPECT_TRUE(isMatch("FieldMatch(a, x, \"y\"c)", {{"a", "Y"}}));
  EXPECT_FALSE(isMatch("FieldMatch(a, \"x\"c, y)", {{"a", "Y"}}));
}

// --- stored strings ---

TEST(StoredStrings, AreMatchedAsTexts) {
  EXPECT_TRUE(holdsFor("Paris", "==\"par*\"c"));
  EXPECT_FALSE(holdsFor("Paris", "==\"par*\""));
  EXPECT_TRUE(holdsFor("in Paris", "==\"paris\"cw"));
  EXPECT_TRUE(holdsFor("in Paris", "==\"paris in\"cwdt"));
}

TEST(StoredStrings, AreComparedWithANumbersSourceText) {
  EXPECT_TRUE(holdsFor("1.50", "==1.50"));
  EXPECT_FALSE(holdsFor("1.5", "==1.50"));
  EXPECT_TRUE(holdsFor("+5", "==+5"));
}

TEST(StoredStrings, NeverEqualATime) {
  EXPECT_FALSE(holdsFor("2024-03-13", "==$time.today"));
  EXPECT_TRUE(holdsFor("2024-03-13", "!=$time.today"));
}

TEST(StoredStrings, MayBeCalledNull) {
  EXPECT_TRUE(holdsFor("NULL", "==NULL"));
  EXPECT_FALSE(isMatch("a == NULL", {}));
}

// --- stored numbers ---

TEST(StoredNumbers, EqualLiteralsThatReadAsThatNumber) {
  EXPECT_TRUE(holdsFor(5, "==5"));
  EXPECT_TRUE(holdsFor(5, "==5.0"));
  EXPECT_TRUE(holdsFor(5, "==\"5\""));
  EXPECT_TRUE(holdsFor(5, "=='5e0'"));
  EXPECT_TRUE(holdsFor(0.5, "==0.5"));
  EXPECT_TRUE(holdsFor(5, "==\\5"));
  EXPECT_FALSE(holdsFor(5, "==\"5 \""));
  EXPECT_FALSE(holdsFor(5, "==five"));
  EXPECT_TRUE(holdsFor(5, "!=five"));
}

TEST(StoredNumbers, NeverEqualALiteralWithWildcards) {
  EXPECT_FALSE(holdsFor(5, "==\"5*\""));
  EXPECT_FALSE(holdsFor(5, "==?"));
  EXPECT_FALSE(holdsFor(5, ">\"4*\""));
}

TEST(StoredNumbers, IgnoreModifiers) {
  EXPECT_TRUE(holdsFor(5, "==\"5\"cdwt"));
  EXPECT_TRUE(holdsFor(5, "[w]==[t]5 cd"));
}

TEST(StoredNumbers, CompareExactlyWithIntegers) {
  const std::int64_t large = (std::int64_t{1} << 53) + 1;
  EXPECT_TRUE(holdsFor(large, "==9007199254740993"));
  EXPECT_FALSE(holdsFor(large, "==9007199254740992"));
  EXPECT_TRUE(holdsFor(large, "==9007199254740992.0"));
  EXPECT_TRUE(holdsFor(std::numeric_limits<std::uint64_t>::max(), "==18446744073709551615"));
  EXPECT_TRUE(holdsFor(std::numeric_limits<std::uint64_t>::max(), ">-1"));
}

TEST(StoredNumbers, CountAsSecondsSince2001BesideATime) {
  const auto seconds = static_cast<std::int64_t>(testOptions().now.secondsSinceReference);
  EXPECT_TRUE(holdsFor(seconds, "==$time.now"));
  EXPECT_TRUE(holdsFor(seconds, "==$time.today"));
  EXPECT_TRUE(holdsFor(static_cast<double>(seconds), ">=$time.today"));
  EXPECT_FALSE(holdsFor(seconds, "==$time.yesterday"));
  EXPECT_FALSE(holdsFor(seconds, "==\"$time.today\"")) << "in quotes it is a text";
}

// --- stored booleans ---

TEST(StoredBooleans, EqualTheirWordsInAnyCase) {
  for (const std::string yes : {"true", "TRUE", "\"Yes\"", "yes", "1", "'1'"}) {
    EXPECT_TRUE(holdsFor(true, "==" + yes)) << yes;
    EXPECT_FALSE(holdsFor(false, "==" + yes)) << yes;
  }
  for (const std::string no : {"false", "False", "\"NO\"", "no", "0", "'0'"}) {
    EXPECT_TRUE(holdsFor(false, "==" + no)) << no;
    EXPECT_FALSE(holdsFor(true, "==" + no)) << no;
  }
}

TEST(StoredBooleans, CompareAsZeroAndOneWithNumbers) {
  EXPECT_TRUE(holdsFor(true, "==1.0"));
  EXPECT_TRUE(holdsFor(true, ">0.5"));
  EXPECT_FALSE(holdsFor(true, "==2"));
  EXPECT_TRUE(holdsFor(false, "<1"));
}

TEST(StoredBooleans, EqualNoOtherText) {
  for (const std::string other : {"y", "on", "1\\.0", "\"1.0\"", "\"tru*\"", "\"\"", "$time.now"}) {
    EXPECT_FALSE(holdsFor(true, "==" + other)) << other;
  }
}

// --- stored dates ---

TEST(StoredDates, EqualAnInstantExactly) {
  const Value date = at("2024-02-29T12:00:00Z");
  EXPECT_TRUE(holdsFor(date, "==$time.iso(2024-02-29T12:00:00Z)"));
  EXPECT_TRUE(holdsFor(date, "==$time.iso(\"2024-02-29T13:00+01:00\")"));
  EXPECT_FALSE(holdsFor(date, "==$time.iso(2024-02-29T12:00:00.5Z)"));
  EXPECT_FALSE(holdsFor(date, "==$time.iso(2024-02-29)"));
}

TEST(StoredDates, EqualAPeriodThatTheyLieIn) {
  EXPECT_TRUE(holdsFor(at("2024-03-12T00:00:00Z"), "==$time.yesterday"));
  EXPECT_TRUE(holdsFor(at("2024-03-12T23:59:59Z"), "==$time.yesterday"));
  EXPECT_FALSE(holdsFor(at("2024-03-13T00:00:00Z"), "==$time.yesterday"));
  EXPECT_TRUE(holdsFor(at("2024-03-13T00:00:00Z"), "!=$time.yesterday"));
  EXPECT_TRUE(holdsFor(at("2024-03-03T00:00:00Z"), "==$time.last_week"));
}

TEST(StoredDates, AreOrderedAgainstAPeriodsFirstInstant) {
  const Value noon = at("2024-03-13T12:00:00Z");
  EXPECT_TRUE(holdsFor(noon, ">=$time.today"));
  EXPECT_TRUE(holdsFor(noon, ">$time.today"));
  EXPECT_FALSE(holdsFor(noon, "<=$time.today"));
  EXPECT_TRUE(holdsFor(at("2024-03-13T00:00:00Z"), "<=$time.today"));
  EXPECT_FALSE(holdsFor(at("2024-03-13T00:00:00Z"), "<$time.today"));
}

TEST(StoredDates, EqualNumbersAsSecondsSince2001) {
  EXPECT_TRUE(holdsFor(Date{86400}, "==86400"));
  EXPECT_TRUE(holdsFor(Date{86400}, "==\"86400\""));
  EXPECT_TRUE(holdsFor(Date{86400}, ">8.6e4"));
}

TEST(StoredDates, EqualIsoTextInTheEnginesZone) {
  QueryOptions options = testOptions();
  options.utcOffsetAt = [](std::int64_t) { return std::int64_t{3600}; };
  const Value date = at("2024-02-28T23:00:00Z");
  EXPECT_TRUE(holdsFor(date, "==\"2024-02-29\"", options));
  EXPECT_TRUE(holdsFor(date, "==2024-02-29", options));
  EXPECT_TRUE(holdsFor(date, "<\"2024-03-01T00:00:00Z\"", options));
}

TEST(StoredDates, EqualATimeExpressionInQuotes) {
  EXPECT_TRUE(holdsFor(at("2024-03-13T12:00:00Z"), "==\"$time.today\""));
  EXPECT_TRUE(holdsFor(at("2024-03-13T12:00:00Z"), ">='$time.today( -1d )'"));
  EXPECT_TRUE(holdsFor(at("2024-02-29T12:00:00Z"), "==\"$time.iso('2024-02-29T12:00Z')\""));
}

TEST(StoredDates, EqualNoOtherText) {
  for (const std::string text :
       {"\"soon\"", "\"2024-02-30\"", "\"$time.never\"", "\"$time.today x\"", "\"2024-03-1?\"",
        "\"$time.today*\"", "true"}) {
    EXPECT_FALSE(holdsFor(at("2024-03-13T00:00:00Z"), "==" + text)) << text;
    EXPECT_FALSE(holdsFor(at("2024-03-13T00:00:00Z"), ">" + text)) << text;
  }
}

TEST(StoredDates, KeepTheirTimesForTheQuerysLife) {
  const Query query = *parsed("a == $time.now");
  EXPECT_TRUE(matches(query, ValueMessageView({{"a", testOptions().now}})));
  EXPECT_TRUE(matches(query, ValueMessageView({{"a", testOptions().now}})));
}

// --- dictionaries and data ---

TEST(StoredDictionariesAndData, AnswerPresenceOnly) {
  for (const Value& value : {Value(Dictionary{{"x", "x"}}), Value(Data{"x"}),
                             Value(Array{Data{"x"}}), Value(Array{Value(Array{"x"})})}) {
    EXPECT_TRUE(holdsFor(value, "==*"));
    EXPECT_FALSE(holdsFor(value, "==x"));
    EXPECT_FALSE(holdsFor(value, "==\"?\""));
    EXPECT_FALSE(holdsFor(value, "==$time.now"));
    EXPECT_FALSE(holdsFor(value, ">=0"));
    EXPECT_TRUE(holdsFor(value, "!=x"));
  }
}

// --- the text of the body ---

TEST(TextContent, IsMatchedByWords) {
  const Dictionary message{{"kMDItemTextContent", "We meet in Paris, as usual"}};
  EXPECT_TRUE(isMatch("kMDItemTextContent == \"Paris\"", message));
  EXPECT_TRUE(isMatch("textContent == \"par*\"c", message));
  EXPECT_FALSE(isMatch("kMDItemTextContent == \"ari\"", message));
  EXPECT_TRUE(isMatch("kMDItemTextContent == \"*ari*\"", message));
  EXPECT_FALSE(isMatch("kMDItemTextContent == \"we*usual\"c", message));
  EXPECT_TRUE(isMatch("kMDItemTextContent == \"paris meet\"ct", message));
  EXPECT_FALSE(isMatch("FieldMatch(kMDItemTextContent, ari)", message));
  EXPECT_TRUE(isMatch("FieldMatch(kMDItemTextContent, Paris)", message));
}

TEST(TextContent, IsAskedForOnlyWhereAQueryLooksAtIt) {
  const Dictionary message{{"a", "x"}, {"kMDItemTextContent", "x"}};
  EXPECT_EQ(askedFor("a == y", message), (Names{"a"}));
  EXPECT_EQ(askedFor("* == y", message), (Names{"a"}));
  EXPECT_EQ(askedFor("** == y", message), (Names{"a", "kMDItemTextContent"}));
  EXPECT_EQ(askedFor("** == x", message), (Names{"a"}));
}

TEST(TextContent, AQueryTellsWhetherItNeedsIt) {
  EXPECT_TRUE(needsTextContent(*parsed("a=1 || !(textContent == x)")));
  EXPECT_TRUE(needsTextContent(*parsed("FieldMatch(**, x)")));
  EXPECT_FALSE(needsTextContent(*parsed("* == x && kMDItemSubject == y")));
}

// --- any attribute ---

TEST(AnyAttribute, RangesOverAllStoredAttributes) {
  const Dictionary message{{"kMDItemSubject", "x"}, {"kMDItemAuthors", Array{"y", "z"}}, {"n", 5}};
  EXPECT_TRUE(isMatch("* == x", message));
  EXPECT_TRUE(isMatch("* == z", message));
  EXPECT_TRUE(isMatch("* > 4", message));
  EXPECT_TRUE(isMatch("InRange(*, 5, 5)", message));
  EXPECT_TRUE(isMatch("FieldMatch(*, q, y)", message));
  EXPECT_FALSE(isMatch("* == q", message));
}

TEST(AnyAttribute, LeavesOutTheNamesThatWouldAlwaysMatch) {
  for (const std::string name :
       {"kMDItemTextContent", "kMDItemEmailHeadersDictionary", "kMDItemPath", "kMDItemURL",
        "kMDItemAttachmentPaths", ":MD:kMDItemPath", "_kMDItemFileName", "kMDItemFSName"}) {
    const Dictionary message{{Text(name), "x"}};
    EXPECT_FALSE(isMatch("* == x", message)) << name;
    EXPECT_EQ(isMatch("** == x", message), name == "kMDItemTextContent") << name;
  }
}

TEST(AnyAttribute, TwoStarsMatchTheBodyByWordsAndTheRestWhole) {
  const Dictionary message{{"kMDItemTextContent", "in Paris"}, {"kMDItemSubject", "to Rome"}};
  EXPECT_TRUE(isMatch("** == Paris", message));
  EXPECT_FALSE(isMatch("** == Rome", message));
  EXPECT_TRUE(isMatch("** == \"rome\"cw", message));
  EXPECT_TRUE(isMatch("** = \"pari*\"cdwt", message));
}

TEST(AnyAttribute, PresenceIsAlwaysTrue) {
  EXPECT_TRUE(isMatch("*=*", {}));
  EXPECT_TRUE(isMatch("** == \"*\"", {}));
  EXPECT_FALSE(isMatch("* != *", {}));
  EXPECT_FALSE(isMatch("* > *", {{"a", 1}}));
}

TEST(AnyAttribute, NotEqualIsTheOppositeOfEqual) {
  EXPECT_FALSE(isMatch("* != x", {{"a", "x"}, {"b", "y"}}));
  EXPECT_TRUE(isMatch("* != z", {{"a", "x"}, {"b", "y"}}));
}

// --- attributes that a query names ---

TEST(AttributesReferenced, AreNamedOnceAndInOrder) {
  const Query query = *parsed(
      "(kMDItemSubject == x || subject == y) && !InRange(b, 1, 2) && FieldMatch(a, 1) && ** == 1 "
      "&& "
      "true");
  EXPECT_EQ(attributesReferenced(query), (Names{"**", "a", "b", "kMDItemSubject"}));
  EXPECT_EQ(attributesReferenced(*parsed("true")), Names{});
}

}  // namespace
}  // namespace thmp::query
