// SPDX-License-Identifier: Apache-2.0
#include "console/terminal.h"

#include <gtest/gtest.h>

#include <string>

namespace thmp::console {
namespace {

TEST(ShownText, ControlCharactersAreEscaped) {
  EXPECT_EQ(shown("a\x1b[2Jb\x07"), "a\\x1B[2Jb\\x07");
  EXPECT_EQ(shown("\xC2\x9B"), "\\x9B") << "the one-character form of ESC [";
  EXPECT_EQ(shown(std::string_view("a\0b", 3)), "a\\x00b");
}

TEST(ShownText, LineBreaksAndTabsBecomeOneBlank) { EXPECT_EQ(shown("\na\r\n\tb"), "a b"); }

TEST(ShownText, DirectionMarksAreLeftOut) {
  EXPECT_EQ(shown("invoice\u202Efdp.exe\u2066\u200F"), "invoicefdp.exe");
  EXPECT_EQ(shown("a\u061C\u200E\u202A\u2069z"), "az");
  EXPECT_EQ(shown("a\u2028b\u2029c"), "abc");
}

TEST(ShownText, BytesThatAreNoUtf8BecomeReplacementCharacters) {
  EXPECT_EQ(shown("a\xFF\xC3"), "a\uFFFD\uFFFD");
}

TEST(ShownJson, EscapesWhatATerminalWouldActOnAndMeansTheSame) {
  EXPECT_EQ(shownJson("{\"a\":\"\u009B2J\u007F\u202Eb\u2028\u00FC\"}"),
            "{\"a\":\"\\u009b2J\\u007f\\u202eb\\u2028\u00FC\"}");
}

TEST(Utf8Text, IsToldFromOtherBytes) {
  EXPECT_TRUE(isUtf8("plum \u00FC \uFFFD \U0001F600"));
  EXPECT_FALSE(isUtf8("plum \xFC"));
  EXPECT_FALSE(isUtf8("\xED\xA0\x80"));
}

TEST(FittedText, IsCutAtTheDisplayWidth) {
  EXPECT_EQ(fitted("plum cake", 6, false), "plum …");
  EXPECT_EQ(fitted("夏休みの予定", 7, false), "夏休み…") << "each of these takes two columns";
  EXPECT_EQ(fitted("夏休み", 6, false), "夏休み");
  EXPECT_EQ(fitted("e\u0301e\u0301e\u0301", 2, false), "e\u0301…") << "marks take no column";
}

TEST(FittedText, IsFilledUpWhenPadded) {
  EXPECT_EQ(fitted("ab", 4, true), "ab  ");
  EXPECT_EQ(fitted("夏休み", 4, true), "夏… ") << "half a wide character is a blank";
  EXPECT_EQ(fitted("ab", 0, true), "");
}

}  // namespace
}  // namespace thmp::console
