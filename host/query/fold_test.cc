// SPDX-License-Identifier: Apache-2.0
#include "host/query/fold.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "host/query/characters.h"

namespace thmp::query {
namespace {

constexpr Folding kNone{};
constexpr Folding kCase{.foldCase = true};
constexpr Folding kMarks{.dropMarks = true};
constexpr Folding kBoth{.foldCase = true, .dropMarks = true};

std::vector<std::size_t> edgesOf(std::string_view text, Folding folding) {
  FoldedText folded;
  folded.assign(text, folding);
  std::vector<std::size_t> edges;
  for (std::size_t i = 0; i <= folded.size(); ++i) {
    if (folded.isEdge(i)) edges.push_back(i);
  }
  return edges;
}

using Edges = std::vector<std::size_t>;

TEST(TextFolding, WithoutFoldingTextIsBroughtToNfcOnly) {
  EXPECT_EQ(foldText("e\u0301", kNone), "\u00E9");
  EXPECT_EQ(foldText("\u212B", kNone), "\u00C5") << "the sign for angstrom is a letter";
  EXPECT_EQ(foldText("\u1112\u1161\u11AB", kNone), "\uD55C");
  EXPECT_EQ(foldText("A\u00DF", kNone), "A\u00DF");
}

TEST(TextFolding, MarksOfOneCharacterAreOrdered) {
  EXPECT_EQ(foldText("q\u0307\u0323", kNone), foldText("q\u0323\u0307", kNone));
  EXPECT_EQ(foldText("\u1E0B\u0323", kNone), "\u1E0D\u0307");
}

TEST(TextFolding, CaseFoldingIsFullAndKnowsNoLocale) {
  EXPECT_EQ(foldText("STRASSE", kCase), "strasse");
  EXPECT_EQ(foldText("Stra\u00DFe", kCase), "strasse");
  EXPECT_EQ(foldText("\u1E9E", kCase), "ss");
  EXPECT_EQ(foldText("\uFB03", kCase), "ffi");
  EXPECT_EQ(foldText("\u03A3\u03C3\u03C2", kCase), "\u03C3\u03C3\u03C3");
  EXPECT_EQ(foldText("I", kCase), "i");
  EXPECT_EQ(foldText("\u0131", kCase), "\u0131") << "the letter without a dot stays";
  EXPECT_EQ(foldText("\u0130", kCase), "i\u0307");
  EXPECT_EQ(foldText("\u13A0", kCase), foldText("\uAB70", kCase));
  EXPECT_EQ(foldText("\U00010400", kCase), "\U00010428");
}

TEST(TextFolding, CaseFoldingLeavesMarks) { EXPECT_EQ(foldText("\u00C9", kCase), "\u00E9"); }

TEST(TextFolding, DroppingMarksLeavesCase) {
  EXPECT_EQ(foldText("\u00C9", kMarks), "E");
  EXPECT_EQ(foldText("E\u0301\u0323", kMarks), "E");
  EXPECT_EQ(foldText("\u1EC7", kMarks), "e");
  EXPECT_EQ(foldText("\u0439", kMarks), "\u0438");
}

TEST(TextFolding, OnlyNonSpacingMarksBelowU0510AreDropped) {
  EXPECT_EQ(foldText("x\u0301", kMarks), "x");
  EXPECT_EQ(foldText("x\u0487", kMarks), "x");
  EXPECT_EQ(foldText("x\u0488", kMarks), "x\u0488") << "an enclosing mark";
  EXPECT_EQ(foldText("\u05D0\u05B8", kMarks), "\u05D0\u05B8") << "a mark above";
  EXPECT_EQ(foldText("\u0915\u093E", kMarks), "\u0915\u093E") << "a spacing mark";
  EXPECT_EQ(foldText("\u304C", kMarks), "\u304C") << "a kana's voicing";
}

TEST(TextFolding, LettersThatDoNotDecomposeStay) {
  EXPECT_EQ(foldText("\u0141\u00F8\u0111", kMarks), "\u0141\u00F8\u0111");
  EXPECT_EQ(foldText("\u0141\u00D8\u0110", kBoth), "\u0142\u00F8\u0111");
}

TEST(TextFolding, AMarkWithoutABaseStays) {
  EXPECT_EQ(foldText("\u0301", kMarks), "\u0301");
  EXPECT_EQ(foldText("\u0301x", kMarks), "\u0301x");
  EXPECT_EQ(foldText("\u0323\u0301x\u0301", kMarks), "\u0323\u0301x");
}

TEST(TextFolding, BothFoldingsGoTogether) {
  EXPECT_EQ(foldText("\u00C9COLE Caf\u0065\u0301", kBoth), "ecole cafe");
  EXPECT_EQ(foldText("\u0130", kBoth), "i");
}

TEST(TextFolding, HangulStaysComposed) {
  EXPECT_EQ(foldText("\uD55C\uAE00", kBoth), "\uD55C\uAE00");
}

TEST(TextFolding, CompatibilityFormsAreLetters) {
  EXPECT_EQ(foldText("\uFF21", kNone), "\uFF21");
  EXPECT_EQ(foldText("\u00B2\u00A0", kMarks), "\u00B2\u00A0");
}

TEST(TextFolding, BytesThatAreNotUtf8CountAsReplacementCharacters) {
  EXPECT_EQ(foldText("a\xFF\xC3z", kCase), "a\uFFFD\uFFFDz");
}

TEST(TextFolding, NulIsACharacter) {
  const std::string text("A\0\u00C9", 4);
  EXPECT_EQ(foldText(text, kCase), std::string("a\0\u00E9", 4));
}

TEST(TextFolding, EachAsciiByteIsACharacter) {
  EXPECT_EQ(edgesOf("Abc", kCase), (Edges{0, 1, 2, 3}));
}

TEST(TextFolding, ABaseAndItsMarksAreOneCharacter) {
  EXPECT_EQ(edgesOf("ax\u0302b", kNone), (Edges{0, 1, 4, 5}));
  EXPECT_EQ(edgesOf("ae\u0301b", kNone), (Edges{0, 1, 3, 4}));
  EXPECT_EQ(edgesOf("ae\u0301b", kMarks), (Edges{0, 1, 2, 3}));
}

TEST(TextFolding, ACharacterThatFoldsToTwoLettersStaysOne) {
  EXPECT_EQ(edgesOf("a\u00DFb", kCase), (Edges{0, 1, 3, 4}));
}

TEST(TextFolding, AnEmptyTextHasOneEdge) { EXPECT_EQ(edgesOf("", kBoth), (Edges{0})); }

TEST(TextFolding, TheShortWayToNfcAgreesWithTheLongOne) {
  // U+212B is never left as it is, so that the text behind it takes the long way.
  for (char32_t c = 0x80; c < 0x20000; ++c) {
    if (c >= 0xD800 && c <= 0xDFFF) continue;
    const std::u32string alone = composed(std::u32string{U'a', c, U'b'});
    const std::u32string beside = composed(std::u32string{U'\u212B', U'a', c, U'b'});
    ASSERT_EQ(alone, beside.substr(1)) << "U+" << std::hex << static_cast<unsigned>(c);
  }
}

TEST(TextFolding, FoldingTwiceIsFoldingOnce) {
  for (const Folding folding : {kNone, kCase, kMarks, kBoth}) {
    for (char32_t c = 1; c < 0x3100; ++c) {
      if (isMark(c)) continue;
      const std::string once = foldText(std::u32string{U'a', c}, folding);
      ASSERT_EQ(foldText(once, folding), once) << "U+" << std::hex << static_cast<unsigned>(c);
    }
  }
}

TEST(TextFolding, ManyMarksInTheWrongOrderAreOrderedAllTheSame) {
  std::string text = "a";
  for (int i = 0; i < 50000; ++i) text += "\u0301\u0323";
  FoldedText folded;
  folded.assign(text, kCase);
  EXPECT_EQ(folded.next(0), folded.size()) << "one character";
  EXPECT_EQ(foldText(text, kMarks), "a");
}

// --- words ---

std::string boundariesOf(std::string_view text) {
  FoldedText folded;
  folded.assign(text, kNone);
  std::string result;
  for (std::size_t i = 0; i <= folded.size(); ++i) {
    if (folded.isEdge(i) && folded.isBoundary(i)) result += "|";
    if (i < folded.size()) result += folded.bytes()[i];
  }
  return result;
}

TEST(WordBoundaries, StandAtTheEndsAndBesideEverySeparator) {
  EXPECT_EQ(boundariesOf("ab cd"), "|ab| |cd|");
  EXPECT_EQ(boundariesOf("a_b@c.d-e'f"), "|a|_|b|@|c|.|d|-|e|'|f|");
  EXPECT_EQ(boundariesOf("a  b"), "|a| | |b|");
}

TEST(WordBoundaries, StandAtAStepFromLowerToUpperCase) {
  EXPECT_EQ(boundariesOf("MyWindowClass"), "|My|Window|Class|");
  EXPECT_EQ(boundariesOf("\u00E9\u00C9t\u01C5"), "|\u00E9|\u00C9t|\u01C5|");
}

TEST(WordBoundaries, DoNotStandBetweenUppersOrBesideDigits) {
  EXPECT_EQ(boundariesOf("NSWindow"), "|NSWindow|");
  EXPECT_EQ(boundariesOf("a1B2c"), "|a1B2c|");
}

TEST(WordBoundaries, StandAroundEachIdeographAndKana) {
  EXPECT_EQ(boundariesOf("a\u65E5\u672Cb"), "|a|\u65E5|\u672C|b|");
  EXPECT_EQ(boundariesOf("\u3042\u30A2\u31F0"), "|\u3042|\u30A2|\u31F0|");
  EXPECT_EQ(boundariesOf("\U00020000\U00020001"), "|\U00020000|\U00020001|");
}

TEST(WordBoundaries, StandAroundTheFirstAndLastOfEachRangeOfIdeographsAndKana) {
  const std::vector<std::pair<char32_t, char32_t>> ranges{{0x3040, 0x30FF}, {0x31F0, 0x31FF},
                                                          {0x3400, 0x4DBF}, {0x4E00, 0x9FFF},
                                                          {0xF900, 0xFAFF}, {0x20000, 0x3FFFF}};
  for (const auto& [first, last] : ranges) {
    EXPECT_NE(classOf(first) & kWordByItself, 0U) << static_cast<unsigned>(first);
    EXPECT_NE(classOf(last) & kWordByItself, 0U) << static_cast<unsigned>(last);
    EXPECT_EQ(classOf(first - 1) & kWordByItself, 0U) << static_cast<unsigned>(first);
    EXPECT_EQ(classOf(last + 1) & kWordByItself, 0U) << static_cast<unsigned>(last);
  }
}

TEST(WordBoundaries, DoNotStandBetweenSyllablesOfOtherScripts) {
  EXPECT_EQ(boundariesOf("\uD55C\uAE00"), "|\uD55C\uAE00|");
  EXPECT_EQ(boundariesOf("\u0E01\u0E02"), "|\u0E01\u0E02|");
}

TEST(WordBoundaries, MarksBelongToTheirBase) {
  EXPECT_EQ(boundariesOf("ax\u0302b"), "|ax\u0302b|");
  EXPECT_EQ(boundariesOf("e\u0301E\u0301"), "|\u00E9|\u00C9|");
}

TEST(WordBoundaries, AreFoundBeforeFolding) {
  FoldedText folded;
  folded.assign("myWindow\u00E9", kBoth);
  EXPECT_EQ(folded.bytes(), "mywindowe");
  EXPECT_TRUE(folded.isBoundary(2));
}

TEST(WordCharacters, AreLettersAndNumbers) {
  for (const char32_t c :
       {U'a', U'Z', U'0', U'\u00E9', U'\u00B2', U'\u2167', U'\u02B0', U'\u65E5'}) {
    EXPECT_TRUE(isWordCharacter(c)) << static_cast<unsigned>(c);
  }
  for (const char32_t c : {U' ', U'_', U'@', U'.', U'-', U'\'', U'\u2019', U'\u0301', U'\u20AC'}) {
    EXPECT_FALSE(isWordCharacter(c)) << static_cast<unsigned>(c);
  }
}

}  // namespace
}  // namespace thmp::query
