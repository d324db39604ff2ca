// SPDX-License-Identifier: Apache-2.0
#include "host/store/header_text.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace thmp {
namespace {

using Pieces = std::vector<std::string_view>;

// White space of each kind, and characters that begin with the same bytes as some of it.
const Pieces kWhite = {" ",        "\t",           "\r\n",         "\v",           "\xC2\x85",
                       "\xC2\xA0", "\xE1\x9A\x80", "\xE2\x80\x83", "\xE2\x80\xA8", "\xE3\x80\x80"};
const Pieces kSolid = {"a",
                       "!",
                       "~",
                       "\x7F",
                       "\x01",
                       "\xC2\xA1",
                       "\xC3\xA4",
                       "\xE2\x80\xA6",
                       "\xE3\x80\x81",
                       "\xF0\x9F\x8D\x8E"};

TEST(CollapseWhiteSpace, RunsBecomeOneSpaceAndEndsNone) {
  EXPECT_EQ(collapseWhiteSpace(""), "");
  EXPECT_EQ(collapseWhiteSpace(" \t\r\n "), "");
  EXPECT_EQ(collapseWhiteSpace("a b c"), "a b c");
  EXPECT_EQ(collapseWhiteSpace("  a  b\r\n c\t"), "a b c");
  for (const std::string_view white : kWhite) {
    EXPECT_EQ(collapseWhiteSpace("a" + std::string(white) + "b"), "a b") << white;
  }
  for (const std::string_view solid : kSolid) {
    EXPECT_EQ(collapseWhiteSpace(solid), solid);
  }
}

TEST(CollapseWhiteSpace, TextOfManyPiecesIsItsWords) {
  std::mt19937 random(11);
  const auto one = [&random](const Pieces& pieces) { return pieces[random() % pieces.size()]; };
  for (int round = 0; round < 20'000; ++round) {
    std::string text;
    std::string words;
    bool isApart = false;
    for (std::size_t piece = random() % 12; piece > 0; --piece) {
      // Single spaces are the most by far, and taken by the run.
      const std::size_t kind = random() % 4;
      const std::string_view bytes = kind == 0 ? one(kWhite) : kind == 1 ? " " : one(kSolid);
      text += bytes;
      if (kind < 2) {
        isApart = true;
        continue;
      }
      if (isApart && !words.empty()) words += ' ';
      words += bytes;
      isApart = false;
    }
    ASSERT_EQ(collapseWhiteSpace(text), words) << ::testing::PrintToString(text);
  }
}

}  // namespace
}  // namespace thmp
