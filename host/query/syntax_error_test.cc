// SPDX-License-Identifier: Apache-2.0
#include "host/query/syntax_error.h"

#include <gtest/gtest.h>

#include <string>

namespace thmp::query {
namespace {

std::string pointedOut(std::string_view text, std::size_t offset) {
  return pointOut(text, SyntaxError{offset, "message", ""});
}

TEST(PointOut, PutsACaretUnderThePlace) {
  EXPECT_EQ(pointedOut("a = = b", 4), "a = = b\n    ^");
  EXPECT_EQ(pointedOut("", 0), "\n^");
}

TEST(PointOut, PointsBehindTheTextAtItsEnd) {
  EXPECT_EQ(pointedOut("a =", 3), "a =\n   ^");
  EXPECT_EQ(pointedOut("a =", 99), "a =\n   ^");
}

TEST(PointOut, CountsColumnsAndNotBytes) {
  EXPECT_EQ(pointedOut("\u00E9\u65E5e\u0301 x", 9), "\u00E9\u65E5e\u0301 x\n     ^");
}

TEST(PointOut, ShowsControlCharactersAndLineBreaksAsSpaces) {
  EXPECT_EQ(pointedOut("a\n\x1B\t= =", 6), "a   = =\n      ^");
}

TEST(PointOut, ShowsTheSurroundingsOnlyOfALongText) {
  const std::string text = std::string(1000, 'x') + "!" + std::string(1000, 'y');
  EXPECT_EQ(pointedOut(text, 1000),
            std::string(40, 'x') + "!" + std::string(29, 'y') + "\n" + std::string(40, ' ') + "^");
}

TEST(PointOut, ShowsTextThatIsNotUtf8) {
  EXPECT_EQ(pointedOut("a\xFFz", 1), "a\uFFFDz\n ^");
  const std::string text(100, '\x80');
  EXPECT_NE(pointedOut(text, 60).find('^'), std::string::npos);
}

TEST(InQuotes, CutsLongTextsBetweenCharacters) {
  EXPECT_EQ(inQuotes("abc"), "\"abc\"");
  const std::string text = std::string(31, 'x') + "\u00E9" + "z";
  EXPECT_EQ(inQuotes(text), "\"" + std::string(31, 'x') + "\u00E9...\"");
}

TEST(InQuotes, LetsNoControlCharacterThrough) { EXPECT_EQ(inQuotes("a\x1B["), "\"a\uFFFD[\""); }

}  // namespace
}  // namespace thmp::query
