// SPDX-License-Identifier: Apache-2.0
#include "host/query/parser.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "host/query/query_testing.h"

namespace thmp::query {
namespace {

// --- what parses, and how ---

TEST(QueryParser, AndBindsTighterThanOr) {
  EXPECT_EQ(treeOf("a=1||b=2&&c=3||d=4"),
            "or\n"
            "  a == 1\n"
            "  and\n"
            "    b == 2\n"
            "    c == 3\n"
            "  d == 4\n");
}

TEST(QueryParser, GroupsOverrideTheBinding) {
  EXPECT_EQ(treeOf("(a=1||b=2)&&c=3"),
            "and\n"
            "  or\n"
            "    a == 1\n"
            "    b == 2\n"
            "  c == 3\n");
}

TEST(QueryParser, NotNegatesTheNextComparisonGroupFunctionOrConstantOnly) {
  EXPECT_EQ(treeOf("!a == \"x\" && b=1"), "and\n  not\n    a == \"x\"\n  b == 1\n");
  EXPECT_EQ(treeOf("!(a=1||b=2)"), "not\n  or\n    a == 1\n    b == 2\n");
  EXPECT_EQ(treeOf("!InRange(a,1,2)"), "not\n  InRange a 1 2\n");
  EXPECT_EQ(treeOf("! !true"), "not\n  not\n    true\n");
}

TEST(QueryParser, AllSevenOperatorsAreKnown) {
  EXPECT_EQ(treeOf("a=1"), "a == 1\n");
  EXPECT_EQ(treeOf("a==1"), "a == 1\n");
  EXPECT_EQ(treeOf("a!=1"), "a != 1\n");
  EXPECT_EQ(treeOf("a<1"), "a < 1\n");
  EXPECT_EQ(treeOf("a<=1"), "a <= 1\n");
  EXPECT_EQ(treeOf("a>1"), "a > 1\n");
  EXPECT_EQ(treeOf("a>=1"), "a >= 1\n");
}

TEST(QueryParser, WhiteSpaceIsNeverRequiredAroundSigns) {
  EXPECT_EQ(treeOf("( a [ c ] == [ d ] \"x\" w && FieldMatch ( b , 1 , 2 ) )"),
            treeOf("(a[c]==[d]\"x\"w&&FieldMatch(b,1,2))"));
}

TEST(QueryParser, ModifiersMayFollowTheValue) {
  EXPECT_EQ(treeOf("a == \"x\"cd"), "a == \"x\" [cd]\n");
  EXPECT_EQ(treeOf("a == 'x' cdw"), "a == 'x' [cdw]\n");
  EXPECT_EQ(treeOf("a == x cd"), "a == x [cd]\n");
}

TEST(QueryParser, ModifiersMayStandInBracketsBesideTheOperator) {
  EXPECT_EQ(treeOf("a ==[cd] \"x\""), "a == \"x\" [cd]\n");
  EXPECT_EQ(treeOf("a[cd] == \"x\""), "a == \"x\" [cd]\n");
}

TEST(QueryParser, ModifiersOfAllThreePlacesAreUnited) {
  EXPECT_EQ(treeOf("a[c] ==[d] \"x\"wt"), "a == \"x\" [cdwt]\n");
}

TEST(QueryParser, ModifiersMayRepeat) { EXPECT_EQ(treeOf("a == \"x\"ccdc"), "a == \"x\" [cd]\n"); }

TEST(QueryParser, LettersGluedToAWordBelongToTheWord) {
  EXPECT_EQ(treeOf("a == xcd"), "a == xcd\n");
}

TEST(QueryParser, LettersAfterAWordAreModifiersEvenWhenTheyCouldBeANameToo) {
  EXPECT_EQ(treeOf("a == x d"), "a == x [d]\n");
  EXPECT_EQ(errorOf("a == x d == 1").offset, 9U);
}

TEST(QueryParser, FieldMatchTakesOneValueOrMoreEachWithItsModifiers) {
  EXPECT_EQ(treeOf("FieldMatch(a[c], \"x\"d, y, 3, $time.iso(2024-01-01))"),
            "FieldMatch a\n"
            "  value \"x\" [cd]\n"
            "  value y [c]\n"
            "  value 3 [c]\n"
            "  value $time.iso(2024-01-01) (2024-01-01T00:00:00Z)\n");
}

TEST(QueryParser, FunctionNamesMayHaveAnyCase) {
  EXPECT_EQ(treeOf("inRange(a,1,2)"), "InRange a 1 2\n");
  EXPECT_EQ(treeOf("INRANGE(a,1,2)"), "InRange a 1 2\n");
  EXPECT_EQ(treeOf("fieldMATCH(a,1)"), "FieldMatch a\n  value 1\n");
}

TEST(QueryParser, FunctionNamesAreNamesBeforeAnOperator) {
  EXPECT_EQ(treeOf("InRange == 1"), "InRange == 1\n");
}

TEST(QueryParser, ConstantsMayHaveAnyCase) {
  EXPECT_EQ(treeOf("(TRUE&&False)"), "and\n  true\n  false\n");
}

TEST(QueryParser, AConstantBeforeAnOperatorOrABracketIsAName) {
  EXPECT_EQ(treeOf("true == 1"), "true == 1\n");
  EXPECT_EQ(treeOf("false[c] == x"), "false == x [c]\n");
}

TEST(QueryParser, AttributeNamesMayHaveColonsDotsDashesAndDigits) {
  EXPECT_EQ(treeOf(":MD:Device-Id.2_x == 1"), ":MD:Device-Id.2_x == 1\n");
}

TEST(QueryParser, AliasesStandForTheirAttribute) {
  EXPECT_EQ(treeOf("authorNames == x"), "kMDItemAuthors == x\n");
  EXPECT_EQ(treeOf("InRange(contentCreationDate, 1, 2)"),
            "InRange kMDItemContentCreationDate 1 2\n");
}

TEST(QueryParser, OneAndTwoStarsAreAnyAttribute) {
  EXPECT_EQ(treeOf("*=*"), "* == *\n");
  EXPECT_EQ(treeOf("** = \"x\"cdwt"), "** == \"x\" [cdwt]\n");
}

TEST(QueryParser, UnknownAttributesAreNoError) {
  EXPECT_EQ(treeOf("nobody == 1"), "nobody == 1\n");
}

TEST(QueryParser, ValuesOfAnotherTypeAreNoError) {
  parsed("kMDItemFSSize == \"large\" && kMDItemSubject < 3 && InRange(kMDItemSubject, a, \"b\")");
}

TEST(QueryParser, TimesMayStandWhereValuesStand) {
  EXPECT_EQ(treeOf("a >= $time.today ( -7 ) && a < $time.now"),
            "and\n"
            "  a >= $time.today ( -7 ) (2024-03-06T00:00:00Z up to 2024-03-07T00:00:00Z)\n"
            "  a < $time.now (2024-03-13T10:20:30Z)\n");
}

TEST(QueryParser, AnEscapedDollarIsText) { EXPECT_EQ(treeOf("a == \\$x"), "a == \\$x\n"); }

TEST(QueryParser, ADollarInsideAWordOrStringIsText) {
  EXPECT_EQ(treeOf("a == x$y || a == \"$z\""), "or\n  a == x$y\n  a == \"$z\"\n");
}

TEST(QueryParser, AClientTextThatClosesAGroupEarlyIsReadAsItStands) {
  EXPECT_EQ(treeOf("(type == mail) && (x == 1) || (y == 2)"),
            "or\n"
            "  and\n"
            "    type == mail\n"
            "    x == 1\n"
            "  y == 2\n");
}

TEST(QueryParser, AQueryKeepsItsText) { EXPECT_EQ(parsed(" a = 1 ")->text(), " a = 1 "); }

// --- what does not parse, and where it says so ---

struct Broken {
  std::string text;
  std::size_t offset;

  friend void PrintTo(const Broken& broken, std::ostream* out) { *out << broken.text; }
};

class QueryErrors : public ::testing::TestWithParam<Broken> {};

TEST_P(QueryErrors, AreToldAtTheirPlace) {
  EXPECT_EQ(errorOf(GetParam().text).offset, GetParam().offset) << GetParam().text;
  RecordProperty("bad_inputs", 1);
}

INSTANTIATE_TEST_SUITE_P(EmptyTexts, QueryErrors,
                         ::testing::Values(Broken{"", 0}, Broken{" \t\n", 3}, Broken{"()", 0},
                                           Broken{"a=1 && ()", 7}));

INSTANTIATE_TEST_SUITE_P(Unbalanced, QueryErrors,
                         ::testing::Values(Broken{"(a=1", 0}, Broken{"((a=1)", 0},
                                           Broken{"a=1)", 3}, Broken{")", 0}, Broken{"x) || (1", 1},
                                           Broken{"a[c == 1", 4}, Broken{"a]c == 1", 1},
                                           Broken{"InRange(a,1,2", 13},
                                           Broken{"FieldMatch(a,1", 14}, Broken{"a == \"x", 5}));

INSTANTIATE_TEST_SUITE_P(MissingOperands, QueryErrors,
                         ::testing::Values(Broken{"a ==", 4}, Broken{"== 1", 0},
                                           Broken{"a=1 &&", 6}, Broken{"&& a=1", 0},
                                           Broken{"a=1 || && b=2", 7}, Broken{"!", 1},
                                           Broken{"a == && b=1", 5}));

INSTANTIATE_TEST_SUITE_P(LoneOperands, QueryErrors,
                         ::testing::Values(Broken{"a", 1}, Broken{"\"a\"", 0}, Broken{"a b", 2},
                                           Broken{"*", 1}, Broken{"\"x\" == a", 0},
                                           Broken{"(a)", 2}, Broken{"true false", 5}));

INSTANTIATE_TEST_SUITE_P(MissingLogic, QueryErrors,
                         ::testing::Values(Broken{"a=1 b=2", 4}, Broken{"(a=1)(b=2)", 5},
                                           Broken{"a=\"x\"\"y\"", 5}, Broken{"a=1 !b=2", 4},
                                           Broken{"true !true", 5}, Broken{"a=1, b=2", 3}));

INSTANTIATE_TEST_SUITE_P(WordsForLogic, QueryErrors,
                         ::testing::Values(Broken{"a=1 AND b=2", 4}, Broken{"a=1 OR b=2", 4},
                                           Broken{"NOT a=1", 0}, Broken{"not (a=1)", 0},
                                           Broken{"a=\"x\" and b=2", 6}));

INSTANTIATE_TEST_SUITE_P(WrongOperators, QueryErrors,
                         ::testing::Values(Broken{"a === 1", 4}, Broken{"a => 1", 3},
                                           Broken{"a =< 1", 3}, Broken{"a <> 1", 3},
                                           Broken{"a ! = 1", 2}, Broken{"a & b", 2},
                                           Broken{"a=1 | b=2", 4}));

INSTANTIATE_TEST_SUITE_P(WrongModifiers, QueryErrors,
                         ::testing::Values(Broken{"a=\"x\"cx", 5}, Broken{"a=\"x\"C", 5},
                                           Broken{"a[] = 1", 2}, Broken{"a[x] = 1", 2},
                                           Broken{"a[CD] = 1", 2}, Broken{"a[c d] = 1", 4},
                                           Broken{"a[\"c\"] = 1", 2}, Broken{"a[\\c] = 1", 2},
                                           Broken{"a = x[c]", 5}, Broken{"a[c][d] = 1", 4},
                                           Broken{"a = \"x\"\\c", 7}, Broken{"a = \"x\"c d", 9}));

INSTANTIATE_TEST_SUITE_P(WrongFunctions, QueryErrors,
                         ::testing::Values(Broken{"Matches(a,1)", 0}, Broken{"InRange(a,1)", 11},
                                           Broken{"InRange(a,1,2,3)", 13}, Broken{"InRange(a)", 9},
                                           Broken{"InRange()", 8}, Broken{"InRange(a[c],1,2)", 9},
                                           Broken{"InRange(a,1 c,2)", 12},
                                           Broken{"InRange(\"a\",1,2)", 8},
                                           Broken{"FieldMatch(a)", 12}, Broken{"FieldMatch()", 11},
                                           Broken{"FieldMatch(a,)", 13},
                                           Broken{"FieldMatch(a,1,)", 15},
                                           Broken{"FieldMatch(a,1 2)", 15}));

INSTANTIATE_TEST_SUITE_P(WrongNames, QueryErrors,
                         ::testing::Values(Broken{"kMD*=1", 0}, Broken{"a?=1", 0},
                                           Broken{"***=1", 0}, Broken{"1a=1", 0},
                                           Broken{"a\\b=1", 0}, Broken{"$time.now=1", 0},
                                           Broken{"\xC3\xA9=1", 0}, Broken{"\\*=1", 0},
                                           Broken{".a=1", 0}));

INSTANTIATE_TEST_SUITE_P(
    WrongTimes, QueryErrors,
    ::testing::Values(Broken{"a=$", 2}, Broken{"a=$x", 2}, Broken{"a=$time", 2},
                      Broken{"a=$time.", 2}, Broken{"a=$time.NOW", 2}, Broken{"a=$time.never", 2},
                      Broken{"a=$time.iso", 2}, Broken{"a=$time.iso()", 12},
                      Broken{"a=$time.iso(2024-02-30)", 12}, Broken{"a=$time.iso(\"soon\")", 12},
                      Broken{"a=$time.iso(2024-01-01", 22}, Broken{"a=$time.today(x)", 14},
                      Broken{"a=$time.today(1.5)", 14}, Broken{"a=$time.today(\"1\")", 14},
                      Broken{"a=$time.today(1 2)", 16}, Broken{"a=$time.today(1", 15},
                      Broken{"a=$time.yesterday(0)", 18}, Broken{"a=$time.now(1d)", 12},
                      Broken{"a=$time.this_year(9000)", 18}, Broken{"a=$time.now cd", 12},
                      Broken{"InRange(a,$time.x,1)", 10}));

TEST(QueryParser, WordsForLogicAreAnsweredWithTheSigns) {
  EXPECT_NE(errorOf("a=1 AND b=2").hint.find("&&"), std::string::npos);
  EXPECT_NE(errorOf("a=1 or b=2").hint.find("||"), std::string::npos);
  EXPECT_NE(errorOf("NOT a=1").hint.find('!'), std::string::npos);
}

TEST(QueryParser, OfTwoErrorsTheLeftOneIsTold) { EXPECT_EQ(errorOf("a=$x \"open").offset, 2U); }

TEST(QueryParser, NobodyNeedAskForTheError) { EXPECT_FALSE(parse("(", testOptions())); }

// --- bounds ---

std::string times(std::string_view text, std::size_t count) {
  std::string result;
  result.reserve(text.size() * count);
  for (std::size_t i = 0; i < count; ++i) result += text;
  return result;
}

TEST(QueryParser, GroupsNest256DeepAndNoDeeper) {
  parsed(times("(", 256) + "a=1" + times(")", 256));
  EXPECT_EQ(errorOf(times("(", 257) + "a=1" + times(")", 257)).offset, 256U);
}

TEST(QueryParser, NegationsNest256DeepAndNoDeeper) {
  parsed(times("!", 256) + "a=1");
  EXPECT_EQ(errorOf(times("!", 257) + "a=1").offset, 256U);
}

TEST(QueryParser, GroupsAndNegationsCountTogether) {
  parsed(times("!(", 128) + "a=1" + times(")", 128));
  EXPECT_EQ(errorOf(times("!(", 128) + "(a=1)" + times(")", 128)).offset, 256U);
}

TEST(QueryParser, HasAHundredThousandWordsAndSignsAndNoMore) {
  parsed(times("a=1||", 24'999) + "a=1");
  parsed("!" + times("a=1||", 24'999) + "a=1");
  const SyntaxError error = errorOf("!!" + times("a=1||", 24'999) + "a=1");
  EXPECT_EQ(error.offset, 2 + 24'999 * 5 + 2U);
  EXPECT_EQ(error.message, "the query goes on after 100000 words and signs");
  EXPECT_EQ(errorOf("FieldMatch(a" + times(",1", 500'000) + ")").message, error.message);
  parsed("a=\"" + times("x ", 99'990) + "\"t");
  EXPECT_EQ(errorOf("a=\"" + times("x ", 100'000) + "\"t").message, error.message);
  EXPECT_EQ(errorOf(times("a=\"" + times("x ", 30'000) + "\"t||", 4) + "a=1").offset, 180'023U);
  parsed("a=\"" + times("x ", 500'000) + "\"");
}

TEST(QueryParser, GroupsSideBySideDoNotNest) {
  parsed(times("(a=1)&&", 1000) + "(a=1)");
  parsed(times("!a=1||", 1000) + "!a=1");
}

TEST(QueryParser, TreesAreNoDeeperThanTheirTextNests) {
  const std::optional<Query> query = parsed(times("a=1&&b=2||", 10000) + "c=3");
  ASSERT_TRUE(query);
  EXPECT_EQ(std::get<Or>(query->root().predicate).operands.size(), 10001U);
}

TEST(QueryParser, AMegabyteOfOneSignEndsInAnError) {
  for (const std::string_view sign : {"(", ")", "!", "*", "\"", "&", "[", "=", "\\", "?", "a=("}) {
    errorOf(times(sign, (std::size_t{1} << 20) / sign.size()));
  }
}

TEST(QueryParser, TenMegabytesOfStarsAreAPresenceTest) {
  EXPECT_TRUE(holdsFor("x", "==\"" + times("*", std::size_t{10} << 20) + "\""));
}

TEST(QueryParser, AMegabyteOfWildcardsAndEscapesParses) {
  const std::size_t size = std::size_t{1} << 20;
  EXPECT_FALSE(holdsFor("x", "==" + times("?", size)));
  EXPECT_FALSE(holdsFor("x", "==" + times("*?", size / 2)));
  EXPECT_FALSE(holdsFor("x", "==" + times("*y", size / 2)));
  EXPECT_FALSE(holdsFor("x", "==" + times("\\*", size / 2)));
}

}  // namespace
}  // namespace thmp::query
