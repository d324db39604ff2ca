// SPDX-License-Identifier: Apache-2.0
//
// Properties that hold for every text, tried on texts made at random from the language's pieces.
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <random>
#include <string>

#include "host/query/query_testing.h"

namespace thmp::query {
namespace {

const std::array<std::string, 44> kPieces{"a",
                                          "b",
                                          "*",
                                          "**",
                                          "\"x*\"",
                                          "'?y'",
                                          "\"\\*\"",
                                          "1",
                                          "-2.5e3",
                                          "true",
                                          "FALSE",
                                          "==",
                                          "=",
                                          "!=",
                                          "<",
                                          ">=",
                                          "!",
                                          "&&",
                                          "||",
                                          "(",
                                          ")",
                                          "[",
                                          "]",
                                          "[cd]",
                                          ",",
                                          "cd",
                                          "wt",
                                          "InRange(",
                                          "FieldMatch(",
                                          "$time.",
                                          "$time.now",
                                          "$time.today(-1d)",
                                          "$time.iso(2024-03-13)",
                                          "$",
                                          "\\",
                                          "\"",
                                          "'",
                                          " ",
                                          "\n",
                                          "\xC3\xA9",
                                          "e\xCC\x81",
                                          "\xFF",
                                          "AND",
                                          "textContent"};

const std::array<std::string, 12> kPredicates{
    "a == x",           "a != x",       "a == \"X*\"c",        "b > 1",      "b <= 2.5",
    "InRange(b, 1, 2)", "* == \"x\"",   "FieldMatch(a, x, y)", "a == \"*\"", "true",
    "c == $time.today", "a == \"x y\"t"};

class RandomQueries : public ::testing::Test {
 protected:
  std::size_t below(std::size_t n) { return static_cast<std::size_t>(random_() % n); }

  /// A query that parses, of predicates joined at random.
  std::string query(int depth) {
    if (depth == 0 || below(4) == 0) return kPredicates[below(kPredicates.size())];
    switch (below(4)) {
      case 0:
        return "!" + query(0);
      case 1:
        return "(" + query(depth - 1) + ")";
      case 2:
        return query(depth - 1) + " && " + query(depth - 1);
      default:
        return query(depth - 1) + "||" + query(depth - 1);
    }
  }

  Dictionary message() {
    Dictionary result;
    const std::array<Value, 5> values{Value("x"), Value("Xy y"), Value(1), Value(true),
                                      Value(Array{"y", 2.5})};
    for (const char* name : {"a", "b"}) {
      if (below(3) > 0) result.set(name, values[below(values.size())]);
    }
    if (below(2) == 0) result.set("c", testOptions().now);
    return result;
  }

 private:
  std::mt19937 random_{20240313};
};

TEST_F(RandomQueries, EveryTextParsesOrHasAnErrorWithinIt) {
  int parsedTexts = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    for (std::size_t n = below(12); n > 0; --n) text += kPieces[below(kPieces.size())];
    SyntaxError error;
    const std::optional<Query> query = parse(text, testOptions(), &error);
    if (query) {
      ++parsedTexts;
      EXPECT_FALSE(dump(*query).empty());
      matches(*query, ValueMessageView(message()));
      continue;
    }
    ASSERT_FALSE(error.message.empty()) << text;
    ASSERT_LE(error.offset, text.size()) << text;
    ASSERT_FALSE(pointOut(text, error).empty());
    ASSERT_FALSE(error.message.find('\n') != std::string::npos) << text;
  }
  EXPECT_GT(parsedTexts, 50);
}

TEST_F(RandomQueries, EveryBeginningOfAQueryParsesOrHasAnError) {
  const std::string text =
      "!(a[c]=='x\\'*'d&&InRange(b,1,$time.today(-1d)))||FieldMatch(**,y,\"z\"w)&&c<$time.iso('"
      "2024-"
      "01-01T10:00Z')||true";
  for (std::size_t size = 0; size <= text.size(); ++size) {
    SyntaxError error;
    const std::string_view beginning = std::string_view(text).substr(0, size);
    if (!parse(beginning, testOptions(), &error)) {
      EXPECT_LE(error.offset, size);
    }
  }
  parsed(text);
}

TEST_F(RandomQueries, LogicOverGroupsFollowsItsParts) {
  for (int round = 0; round < 3000; ++round) {
    const std::string left = query(4);
    const std::string right = query(4);
    const Dictionary stored = message();
    const bool a = isMatch(left, stored);
    const bool b = isMatch(right, stored);
    const std::string first = "(" + left + ")";
    const std::string second = "(" + right + ")";
    const std::string both = std::string(first).append("\n").append(second);
    ASSERT_EQ(isMatch(first, stored), a) << both;
    ASSERT_EQ(isMatch("!" + first, stored), !a) << both;
    ASSERT_EQ(isMatch(std::string(first).append("&&").append(second), stored), a && b) << both;
    ASSERT_EQ(isMatch(std::string(first).append("||").append(second), stored), a || b) << both;
    ASSERT_EQ(isMatch(std::string(left).append(" || ").append(right), stored), a || b) << both;
  }
}

}  // namespace
}  // namespace thmp::query
