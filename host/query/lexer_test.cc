// SPDX-License-Identifier: Apache-2.0
#include "host/query/lexer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace thmp::query {
namespace {

using Kind = Token::Kind;

std::vector<std::string> sourcesOf(std::string_view text) {
  std::vector<std::string> sources;
  Lexer lexer(text);
  for (Token token = lexer.next(); token.kind != Kind::kEnd; token = lexer.next()) {
    sources.emplace_back(token.kind == Kind::kInvalid ? "INVALID" : token.source);
    if (token.kind == Kind::kInvalid) break;
  }
  return sources;
}

using Sources = std::vector<std::string>;

SyntaxError lexicalError(std::string_view text) {
  Lexer lexer(text);
  Token token = lexer.next();
  while (token.kind != Kind::kEnd && token.kind != Kind::kInvalid) token = lexer.next();
  EXPECT_EQ(token.kind, Kind::kInvalid) << text;
  EXPECT_EQ(token.offset, lexer.error().offset);
  return lexer.error();
}

TEST(QueryLexer, WhiteSpaceOfAllSixKindsIsFreeBetweenTokens) {
  EXPECT_EQ(sourcesOf(" \t\n\v\f\ra = \t\n\v\f\r b "), (Sources{"a", "=", "b"}));
}

TEST(QueryLexer, OtherSpacesArePartOfAWord) {
  EXPECT_EQ(sourcesOf("a\xC2\xA0"
                      "b"),
            (Sources{"a\xC2\xA0"
                     "b"}));
}

TEST(QueryLexer, TheLongestOperatorWins) {
  EXPECT_EQ(sourcesOf("a==b!=c<=d>=e=f<g>h!i&&j||k"),
            (Sources{"a", "==", "b", "!=", "c", "<=", "d",  ">=", "e",  "=", "f",
                     "<", "g",  ">", "h",  "!", "i",  "&&", "j",  "||", "k"}));
}

TEST(QueryLexer, ThreeEqualSignsAreTwoOperators) {
  EXPECT_EQ(sourcesOf("==="), (Sources{"==", "="}));
}

TEST(QueryLexer, EqualAndDoubleEqualAreOneKind) {
  EXPECT_EQ(Lexer("=").next().kind, Kind::kEqual);
  EXPECT_EQ(Lexer("==").next().kind, Kind::kEqual);
}

TEST(QueryLexer, AWordRunsUpToTheNextSignOrSpace) {
  for (const std::string end :
       {" ", "(", ")", ",", "[", "]", "&&", "||", "!", "=", "<", ">", "\"x\"", "'x'"}) {
    EXPECT_EQ(sourcesOf("ab*?$+-.:;{}#" + end).front(), "ab*?$+-.:;{}#") << end;
  }
}

TEST(QueryLexer, AnEscapeTakesAnyCharacterIntoAWord) {
  EXPECT_EQ(sourcesOf("a\\ b\\(c\\\\ d"), (Sources{"a\\ b\\(c\\\\", "d"}));
}

TEST(QueryLexer, StringsMayStandInEitherQuotesAndHoldTheOther) {
  EXPECT_EQ(sourcesOf("\"it's\"'say \"x\"'"), (Sources{"\"it's\"", "'say \"x\"'"}));
}

TEST(QueryLexer, AnEscapedQuoteDoesNotCloseItsString) {
  EXPECT_EQ(sourcesOf("\"a\\\"b\" 'a\\'b'"), (Sources{"\"a\\\"b\"", "'a\\'b'"}));
}

TEST(QueryLexer, AStringMayHoldLineBreaks) {
  EXPECT_EQ(sourcesOf("\"a\nb\""), (Sources{"\"a\nb\""}));
}

TEST(QueryLexer, AStringThatIsNotClosedIsAnErrorAtItsQuote) {
  EXPECT_EQ(lexicalError("a == \"bc").offset, 5U);
  EXPECT_EQ(lexicalError("a == 'bc\"").offset, 5U);
  EXPECT_EQ(lexicalError("a == \"bc\\\"").offset, 5U);
}

TEST(QueryLexer, ABackslashAtTheEndIsAnError) {
  EXPECT_EQ(lexicalError("a == bc\\").offset, 7U);
  EXPECT_EQ(lexicalError("a == \"bc\\").offset, 5U);
}

TEST(QueryLexer, ASingleAmpersandOrBarIsAnError) {
  EXPECT_EQ(lexicalError("a & b").offset, 2U);
  EXPECT_EQ(lexicalError("a | b").offset, 2U);
  EXPECT_EQ(lexicalError("a &&& b").offset, 4U);
}

TEST(QueryLexer, AmpersandAndBarAreTextInsideQuotes) {
  EXPECT_EQ(sourcesOf("\"a & b | c\""), (Sources{"\"a & b | c\""}));
}

TEST(QueryLexer, NulIsAnErrorWhereverItStands) {
  using namespace std::string_view_literals;
  EXPECT_EQ(lexicalError("a == \"b\0c\""sv).offset, 7U);
  EXPECT_EQ(lexicalError("\0"sv).offset, 0U);
}

TEST(QueryLexer, InvalidUtf8IsAnErrorAtItsFirstByte) {
  EXPECT_EQ(lexicalError("a == \"b\xFF\"").offset, 7U);
  EXPECT_EQ(lexicalError("a == \xC3").offset, 5U);
  EXPECT_EQ(lexicalError("\xED\xA0\x80").offset, 0U) << "a surrogate";
  EXPECT_EQ(lexicalError("\xC0\xAF").offset, 0U) << "longer than need be";
  EXPECT_EQ(lexicalError("\xF4\x90\x80\x80").offset, 0U) << "above U+10FFFF";
}

TEST(QueryLexer, AfterAnErrorThereIsNothingButTheError) {
  Lexer lexer("& a");
  EXPECT_EQ(lexer.next().kind, Kind::kInvalid);
  EXPECT_EQ(lexer.next().kind, Kind::kInvalid);
}

TEST(QueryLexer, AtTheEndThereIsNothingButTheEnd) {
  Lexer lexer("  ");
  EXPECT_EQ(lexer.next().kind, Kind::kEnd);
  EXPECT_EQ(lexer.next().kind, Kind::kEnd);
}

TEST(QueryLexer, TokensTellTheirPlace) {
  Lexer lexer("ab == \"c\"");
  EXPECT_EQ(lexer.next().offset, 0U);
  EXPECT_EQ(lexer.next().offset, 3U);
  const Token string = lexer.next();
  EXPECT_EQ(string.offset, 6U);
  EXPECT_EQ(string.end(), 9U);
  EXPECT_EQ(string.content(), "c");
}

}  // namespace
}  // namespace thmp::query
