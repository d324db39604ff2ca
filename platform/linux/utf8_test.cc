// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/utf8.h"

#include <gtest/gtest.h>

namespace thmp {
namespace {

TEST(Utf8, TextIsToldFromOtherBytes) {
  for (const char* text : {"", "a", "Gr\u00fc\u00dfe", "\U0001f4ec"}) EXPECT_TRUE(isUtf8(text));
  for (const char* bytes : {"\xff", "a\x80", "\xc3", "\xed\xa0\x80"}) EXPECT_FALSE(isUtf8(bytes));
}

TEST(EscapeControls, LeavesPrintableTextAlone) {
  EXPECT_EQ(escapeControls("Gr\u00fc\u00dfe \\n 100 %s"), "Gr\u00fc\u00dfe \\n 100 %s");
}

TEST(EscapeControls, MakesOneLineOfAnyText) {
  EXPECT_EQ(escapeControls("a\nb\tc\rd"), "a\\nb\\tc\\rd");
  EXPECT_EQ(escapeControls(std::string_view("\0\x1b[31m\x7f", 7)), "\\x00\\x1b[31m\\x7f");
  EXPECT_EQ(escapeControls("\u2028"), "\\xe2\\x80\\xa8");
}

TEST(EscapeControls, ShowsTheControlsAbove127AndBytesThatAreNoText) {
  EXPECT_EQ(escapeControls("a\u009b31m"), "a\\xc2\\x9b31m");
  EXPECT_EQ(escapeControls("a\x9b z\xff"), "a\\x9b z\\xff");
}

}  // namespace
}  // namespace thmp
