// SPDX-License-Identifier: Apache-2.0
#include "host/query/match.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "host/query/characters.h"

namespace thmp::query {
namespace {

bool textMatches(std::string_view pattern, std::string_view text, std::string_view modifiers = "") {
  Modifiers parsed;
  if (!modifiers.empty()) {
    EXPECT_TRUE(parsed.add(modifiers));
  }
  FoldedText scratch;
  return TextMatcher(readPattern(pattern), parsed).matches(text, /*byWords=*/false, scratch);
}

std::string repeated(std::string_view text, std::size_t count) {
  std::string result;
  for (std::size_t i = 0; i < count; ++i) result += text;
  return result;
}

// --- the whole value ---

TEST(WholeMatch, APatternWithoutWildcardsIsTheWholeValue) {
  EXPECT_TRUE(textMatches("paris", "paris"));
  EXPECT_FALSE(textMatches("paris", "paris "));
  EXPECT_FALSE(textMatches("paris", "in paris"));
  EXPECT_FALSE(textMatches("paris", "pari"));
}

TEST(WholeMatch, AStarAtTheEndIsBeginsWith) {
  EXPECT_TRUE(textMatches("paris*", "paris, france"));
  EXPECT_TRUE(textMatches("paris*", "paris"));
  EXPECT_FALSE(textMatches("paris*", "in paris"));
}

TEST(WholeMatch, AStarAtTheBeginningIsEndsWith) {
  EXPECT_TRUE(textMatches("*paris", "in paris"));
  EXPECT_TRUE(textMatches("*paris", "paris"));
  EXPECT_FALSE(textMatches("*paris", "paris, france"));
  EXPECT_TRUE(textMatches("*aab", "aaab"));
}

TEST(WholeMatch, StarsAtBothEndsAreContains) {
  EXPECT_TRUE(textMatches("*paris*", "in paris, france"));
  EXPECT_TRUE(textMatches("*paris*", "paris"));
  EXPECT_FALSE(textMatches("*paris*", "pa ris"));
}

TEST(WholeMatch, ItDoesNotBeginAtWords) { EXPECT_FALSE(textMatches("par*", "in paris")); }

TEST(WholeMatch, StarsMayStandInside) {
  EXPECT_TRUE(textMatches("a*b*c", "abc"));
  EXPECT_TRUE(textMatches("a*b*c", "a--b--c"));
  EXPECT_TRUE(textMatches("a*bc", "abcbc"));
  EXPECT_FALSE(textMatches("a*b*c", "acb"));
  EXPECT_FALSE(textMatches("ab*ba", "aba")) << "the two ends must not overlap";
}

TEST(WholeMatch, SeveralStarsInARowEqualOne) {
  EXPECT_TRUE(textMatches("a***b", "ab"));
  EXPECT_TRUE(textMatches("***a", "xa"));
}

TEST(WholeMatch, AQuestionMarkIsExactlyOneCharacter) {
  EXPECT_TRUE(textMatches("p?ris", "paris"));
  EXPECT_FALSE(textMatches("p?ris", "pris"));
  EXPECT_FALSE(textMatches("p?ris", "paaris"));
  EXPECT_TRUE(textMatches("?", "\u65E5"));
  EXPECT_TRUE(textMatches("??", "a\u65E5"));
  EXPECT_FALSE(textMatches("?", ""));
}

TEST(WholeMatch, ACharacterIsABaseWithItsMarks) {
  EXPECT_TRUE(textMatches("?", "x\u0302\u0323"));
  EXPECT_TRUE(textMatches("a?c", "ax\u0302c"));
  EXPECT_TRUE(textMatches("?", "\u00DF", "c")) << "though it folds to two letters";
}

TEST(WholeMatch, WildcardsSideBySideMeanAtLeastAsMany) {
  for (const std::string pattern : {"a?*", "a*?", "a*?*"}) {
    EXPECT_FALSE(textMatches(pattern, "a")) << pattern;
    EXPECT_TRUE(textMatches(pattern, "ab")) << pattern;
    EXPECT_TRUE(textMatches(pattern, "abc")) << pattern;
  }
  EXPECT_TRUE(textMatches("?*?", "ab"));
  EXPECT_FALSE(textMatches("?*?", "a"));
  EXPECT_TRUE(textMatches("*??b", "xyzb"));
  EXPECT_FALSE(textMatches("*??b", "zb"));
}

TEST(WholeMatch, EscapedWildcardsAreText) {
  EXPECT_TRUE(textMatches("a\\*b", "a*b"));
  EXPECT_FALSE(textMatches("a\\*b", "axb"));
  EXPECT_TRUE(textMatches("a\\?\\\\", "a?\\"));
}

TEST(WholeMatch, ThereAreNoOtherEscapes) {
  EXPECT_TRUE(textMatches("a\\nb", "anb"));
  EXPECT_FALSE(textMatches("a\\nb", "a\nb"));
  EXPECT_TRUE(textMatches("\\\u00E9", "\u00E9"));
}

TEST(WholeMatch, CaseAndDiacriticsCount) {
  EXPECT_FALSE(textMatches("paris", "Paris"));
  EXPECT_FALSE(textMatches("cafe", "caf\u00E9"));
}

TEST(WholeMatch, WithCCaseDoesNotCount) {
  EXPECT_TRUE(textMatches("PARIS", "Paris", "c"));
  EXPECT_TRUE(textMatches("strasse", "STRA\u00DFE", "c"));
  EXPECT_TRUE(textMatches("stra\u00DFe", "strasse", "c"));
  EXPECT_TRUE(textMatches("\u0441\u041E\u043D", "\u0421\u043E\u041D", "c"));
  EXPECT_FALSE(textMatches("cafe", "CAF\u00C9", "c"));
}

TEST(WholeMatch, WithDDiacriticsDoNotCount) {
  EXPECT_TRUE(textMatches("cafe", "caf\u00E9", "d"));
  EXPECT_TRUE(textMatches("caf\u00E9", "cafe", "d"));
  EXPECT_FALSE(textMatches("lodz", "\u0142\u00F3d\u017A", "d"));
  EXPECT_TRUE(textMatches("\u0142odz", "\u0142\u00F3d\u017A", "d"));
}

TEST(WholeMatch, DDoesNotImplyC) {
  EXPECT_FALSE(textMatches("cafe", "CAF\u00C9", "d"));
  EXPECT_TRUE(textMatches("cafe", "CAF\u00C9", "cd"));
}

TEST(WholeMatch, CanonicallyEquivalentFormsAreEqualWithoutModifiers) {
  EXPECT_TRUE(textMatches("caf\u00E9", "cafe\u0301"));
  EXPECT_TRUE(textMatches("cafe\u0301", "caf\u00E9"));
  EXPECT_TRUE(textMatches("\u1112\u1161\u11AB", "\uD55C"));
}

TEST(WholeMatch, AStretchEndsAtCharacterEdges) {
  EXPECT_FALSE(textMatches("cafe*", "cafe\u0301 noir")) << "the mark belongs to the e";
  EXPECT_FALSE(textMatches("x*", "x\u0302"));
  EXPECT_FALSE(textMatches("*\u0302", "x\u0302"));
  EXPECT_FALSE(textMatches("s*", "\u00DF", "c"));
  EXPECT_FALSE(textMatches("*s", "\u00DF", "c"));
  EXPECT_TRUE(textMatches("*s*", "\u00DFs", "c"));
  EXPECT_TRUE(textMatches("ss*", "\u00DF!", "c"));
}

TEST(WholeMatch, LongStretchesAreFoundToo) {
  const std::string needle = repeated("ab", 50) + "c";
  EXPECT_TRUE(textMatches("*" + needle + "*", repeated("ab", 80) + "cc"));
  EXPECT_FALSE(textMatches("*" + needle + "*", repeated("ab", 49) + "c" + repeated("ab", 49)));
  EXPECT_TRUE(textMatches("*" + needle + "*" + needle + "*", "x" + needle + needle));
  EXPECT_FALSE(textMatches("*" + needle + "*" + needle + "x*", "x" + needle + needle));
}

// --- words ---

TEST(WordMatch, AWordStandsAnywhereInTheValue) {
  EXPECT_TRUE(textMatches("Paris", "I love Paris", "wc"));
  EXPECT_TRUE(textMatches("Paris", "paris-france.jpg", "wc"));
  EXPECT_FALSE(textMatches("Paris", "Comparison", "wc"));
}

TEST(WordMatch, AStepToUpperCaseBeginsAWord) {
  EXPECT_TRUE(textMatches("Window", "MyWindowClass", "w"));
  EXPECT_TRUE(textMatches("Window", "Broken Window", "w"));
  EXPECT_FALSE(textMatches("Window", "NSWindow", "w"));
  EXPECT_TRUE(textMatches("window", "MyWindowClass", "wc")) << "found before folding";
}

TEST(WordMatch, AStarAtTheEndIsAWordsBeginning) {
  EXPECT_TRUE(textMatches("par*", "in paris", "w"));
  EXPECT_FALSE(textMatches("par*", "compare", "w"));
}

TEST(WordMatch, AStarAtTheBeginningIsAWordsEnd) {
  EXPECT_TRUE(textMatches("*aris", "in paris, france", "w"));
  EXPECT_FALSE(textMatches("*ari", "in paris", "w"));
}

TEST(WordMatch, StarsAtBothEndsAreContains) {
  EXPECT_TRUE(textMatches("*ari*", "in paris", "w"));
  EXPECT_TRUE(textMatches("*in pa*", "in paris", "w"));
}

TEST(WordMatch, WildcardsInsideStayWithinOneRun) {
  EXPECT_TRUE(textMatches("p*s", "in paris, france", "w"));
  EXPECT_FALSE(textMatches("p*e", "in paris, france", "w"));
  EXPECT_TRUE(textMatches("p?ris", "in paris", "w"));
  EXPECT_FALSE(textMatches("in?paris", "in paris", "w"));
  EXPECT_FALSE(textMatches("in*paris", "in paris", "w"));
  EXPECT_TRUE(textMatches("M*s", "MyWindowClass", "w")) << "a step in case is no separator";
}

TEST(WordMatch, AnInnerStarGoesOnToABoundary) {
  EXPECT_TRUE(textMatches("a*b", "abab", "w"));
  EXPECT_TRUE(textMatches("a*b", "abxabX ab", "w"));
  EXPECT_FALSE(textMatches("a*b", "abx", "w"));
}

TEST(WordMatch, SeparatorsInThePatternAreLiteral) {
  EXPECT_TRUE(textMatches("in paris", "we are in paris now", "w"));
  EXPECT_FALSE(textMatches("in paris", "in  paris", "w"));
  EXPECT_TRUE(textMatches("@", "a@b", "w"));
  EXPECT_TRUE(textMatches("b@c", "a.b@c.d", "w"));
  EXPECT_TRUE(textMatches("b*@c*d", "bob@c1d.e", "w"));
  EXPECT_TRUE(textMatches("a*b-*c", "ab-xc", "w")) << "a new run begins behind the separator";
}

TEST(WordMatch, IdeographsAndKanaAreWordsByThemselves) {
  EXPECT_TRUE(textMatches("\u672C", "\u65E5\u672C\u8A9E", "w"));
  EXPECT_TRUE(textMatches("\u65E5\u672C", "\u65E5\u672C\u8A9E", "w"));
  EXPECT_TRUE(textMatches("\u3042", "\u3042\u3044", "w"));
  EXPECT_FALSE(textMatches("\uAE00", "\uD55C\uAE00", "w"));
}

TEST(WordMatch, AnEmptyPatternMatchesNothing) {
  EXPECT_FALSE(textMatches("", "a b", "w"));
  EXPECT_FALSE(textMatches("", "", "w"));
}

TEST(WordMatch, CaseAndDiacriticsCountUnlessModified) {
  EXPECT_FALSE(textMatches("cafe", "le Caf\u00E9 noir", "w"));
  EXPECT_FALSE(textMatches("cafe", "le Caf\u00E9 noir", "wc"));
  EXPECT_TRUE(textMatches("cafe", "le Caf\u00E9 noir", "wcd"));
}

// --- tokens ---

TEST(TokenMatch, AllWordsOfTheValueMustBeThereInAnyOrder) {
  EXPECT_TRUE(textMatches("paris love", "I love Paris", "tc"));
  EXPECT_FALSE(textMatches("paris hate", "I love Paris", "tc"));
}

TEST(TokenMatch, EverySeparatorCutsThePattern) {
  EXPECT_TRUE(textMatches("a.b@c_d", "d c b a", "t"));
  EXPECT_TRUE(textMatches("x\\*y", "y x", "t")) << "an escaped star is a separator";
  EXPECT_TRUE(textMatches("l'amour", "amour, l", "t"));
}

TEST(TokenMatch, WordsKeepTheirWildcards) {
  EXPECT_TRUE(textMatches("lov* pa?is", "paris lovers", "t"));
  EXPECT_FALSE(textMatches("lov par", "paris lovers", "t"));
  EXPECT_TRUE(textMatches("*ris *ers", "paris lovers", "t"));
}

TEST(TokenMatch, PartsOfStarsAloneAreDropped) {
  EXPECT_TRUE(textMatches("paris * - **", "in paris", "t"));
  EXPECT_FALSE(textMatches("paris ??????", "in paris", "t")) << "a question mark is kept";
  EXPECT_TRUE(textMatches("paris ??", "in paris", "t"));
}

TEST(TokenMatch, WithoutAWordNothingMatches) {
  EXPECT_FALSE(textMatches("", "a", "t"));
  EXPECT_FALSE(textMatches(" - ", " - ", "t"));
  EXPECT_FALSE(textMatches("- * -", "a", "t"));
}

TEST(TokenMatch, TokensIncludeWords) {
  EXPECT_FALSE(textMatches("par", "paris", "t"));
  EXPECT_EQ(textMatches("par", "paris", "t"), textMatches("par", "paris", "tw"));
  EXPECT_TRUE(textMatches("Win", "myWin", "t"));
}

TEST(TokenMatch, MarksStayWithTheirWord) {
  EXPECT_TRUE(textMatches("cafe\u0301 x\u0302y", "x\u0302y caf\u00E9", "t"));
  EXPECT_TRUE(textMatches("CAFE noir", "Caf\u00E9 Noir", "tcd"));
}

// --- against a plain reading of the rules ---

/// A character with everything that the rules ask of it, written down by hand.
struct Character {
  std::string text;
  std::string plain;      // without modifiers
  std::string noCase;     // c
  std::string noMarks;    // d
  std::string noNeither;  // cd
  bool isWord;
  bool isLower;
  bool isUpper;
  bool isIdeograph;
};

const std::array<Character, 12> kAlphabet{{
    {"a", "a", "a", "a", "a", true, true, false, false},
    {"b", "b", "b", "b", "b", true, true, false, false},
    {"A", "A", "a", "A", "a", true, false, true, false},
    {"s", "s", "s", "s", "s", true, true, false, false},
    {"1", "1", "1", "1", "1", true, false, false, false},
    {" ", " ", " ", " ", " ", false, false, false, false},
    {"-", "-", "-", "-", "-", false, false, false, false},
    {"\u00E1", "\u00E1", "\u00E1", "a", "a", true, true, false, false},
    {"a\u0301", "\u00E1", "\u00E1", "a", "a", true, true, false, false},
    {"A\u0302", "\u00C2", "\u00E2", "A", "a", true, false, true, false},
    {"\u00DF", "\u00DF", "ss", "\u00DF", "ss", true, true, false, false},
    {"\u65E5", "\u65E5", "\u65E5", "\u65E5", "\u65E5", true, false, false, true},
}};

using Characters = std::vector<const Character*>;
using Places = std::set<std::size_t>;

/// A pattern as the reference reads it: characters, with null for * and kOne for ?.
const Character kOne{};

class Reference {
 public:
  Reference(Characters text, Modifiers modifiers) : text_(std::move(text)), modifiers_(modifiers) {}

  bool matches(const Characters& pattern) const {
    if (!modifiers_.has(Modifiers::kWords)) return placesAfter(pattern, 0).contains(text_.size());
    if (pattern.empty()) return false;
    const bool openStart = pattern.front() == nullptr;
    const bool openEnd = pattern.back() == nullptr;
    Characters inner = pattern;
    while (!inner.empty() && inner.front() == nullptr) inner.erase(inner.begin());
    while (!inner.empty() && inner.back() == nullptr) inner.pop_back();
    for (std::size_t begin = 0; begin <= text_.size(); ++begin) {
      if (!openStart && !isBoundary(begin)) continue;
      for (const std::size_t end : placesAfter(inner, begin)) {
        if (openEnd || isBoundary(end)) return true;
      }
    }
    return false;
  }

 private:
  const std::string& folded(const Character& c) const {
    if (modifiers_.has(Modifiers::kCase)) {
      return modifiers_.has(Modifiers::kDiacritics) ? c.noNeither : c.noCase;
    }
    return modifiers_.has(Modifiers::kDiacritics) ? c.noMarks : c.plain;
  }

  bool isBoundary(std::size_t place) const {
    if (place == 0 || place == text_.size()) return true;
    const Character& left = *text_[place - 1];
    const Character& right = *text_[place];
    if (!left.isWord || !right.isWord) return true;
    return (left.isLower && right.isUpper) || left.isIdeograph || right.isIdeograph;
  }

  bool mayBeWild(std::size_t place) const {
    return place < text_.size() && (!modifiers_.has(Modifiers::kWords) || text_[place]->isWord);
  }

  /// Every place where a match that begins at `begin` may end.
  Places placesAfter(const Characters& pattern, std::size_t begin) const {
    Places places{begin};
    for (std::size_t i = 0; i < pattern.size();) {
      Places next;
      if (pattern[i] == nullptr || pattern[i] == &kOne) {
        for (std::size_t place : places) {
          if (pattern[i] == nullptr) next.insert(place);
          for (; mayBeWild(place); ++place) {
            next.insert(place + 1);
            if (pattern[i] == &kOne) break;
          }
        }
        ++i;
      } else {
        std::string stretch;
        for (; i < pattern.size() && pattern[i] != nullptr && pattern[i] != &kOne; ++i) {
          stretch += folded(*pattern[i]);
        }
        for (const std::size_t place : places) {
          std::string taken;
          for (std::size_t end = place;; ++end) {
            if (taken == stretch) next.insert(end);
            if (end == text_.size() || taken.size() > stretch.size()) break;
            taken += folded(*text_[end]);
          }
        }
      }
      places = std::move(next);
    }
    return places;
  }

  Characters text_;
  Modifiers modifiers_;
};

TEST(RandomPatterns, AgreeWithThePlainReading) {
  std::mt19937 random(20240313);
  const auto below = [&](std::size_t n) { return static_cast<std::size_t>(random() % n); };
  const std::array<std::string, 8> kModifiers{"", "c", "d", "cd", "w", "wc", "wd", "wcd"};
  int found = 0;
  for (int round = 0; round < 60000; ++round) {
    const std::size_t letters = 2 + below(kAlphabet.size() - 1);
    Characters text;
    std::string textBytes;
    for (std::size_t n = below(10); n > 0; --n) {
      text.push_back(&kAlphabet[below(letters)]);
      textBytes += text.back()->text;
    }
    Characters pattern;
    std::string patternBytes;
    for (std::size_t n = below(7); n > 0; --n) {
      const std::size_t choice = below(8);
      const Character* c = choice < 2 ? nullptr : &kOne;
      if (choice > 2) c = &kAlphabet[below(letters)];
      pattern.push_back(c);
      patternBytes += c == nullptr ? "*" : c == &kOne ? "?" : c->text;
    }
    const std::string& modifiers = kModifiers[below(kModifiers.size())];
    Modifiers parsed;
    if (!modifiers.empty()) {
      ASSERT_TRUE(parsed.add(modifiers));
    }
    const bool expected = Reference(text, parsed).matches(pattern);
    found += expected ? 1 : 0;
    ASSERT_EQ(textMatches(patternBytes, textBytes, modifiers), expected)
        << "pattern \"" << patternBytes << "\" text \"" << textBytes << "\" " << modifiers;
  }
  EXPECT_GT(found, 6000) << "the patterns are not so strange that nothing matches";
}

// --- bounds ---

TEST(HostilePatterns, ManyStarsAreNoSearchOfAllCombinations) {
  const std::string text = repeated("a", 100000);
  EXPECT_FALSE(textMatches(repeated("*a", 2000) + "*b", text));
  EXPECT_FALSE(textMatches(repeated("a*", 2000) + "b", text, "w"));
  EXPECT_TRUE(textMatches(repeated("a*", 2000) + "a", text, "w"));
}

TEST(HostilePatterns, ManyRunsOfWordsAreEachTriedOnce) {
  EXPECT_FALSE(textMatches("a*zz", repeated("a ", 500000), "w"));
  EXPECT_FALSE(textMatches("*a*zz*", repeated("a", 1000000), "w"));
}

TEST(HostilePatterns, LongStretchesAreFoundInLinearTime) {
  const std::string text = repeated("a", 1000000);
  EXPECT_FALSE(textMatches("*" + repeated("a", 500000) + "b" + repeated("a", 10) + "*", text));
  EXPECT_FALSE(textMatches("*" + repeated("a", 500000) + "b*", text, "w"));
  EXPECT_FALSE(textMatches(repeated("a", 1000), text, "w"));
}

TEST(HostilePatterns, TextThatIsNotUtf8IsMatchedAllTheSame) {
  EXPECT_TRUE(textMatches("a*z", "a\xFF\xED\xA0\x80z"));
  EXPECT_TRUE(textMatches("a?z", "a\xFFz"));
  EXPECT_FALSE(textMatches("z", "a\xFF", "w"));
}

}  // namespace
}  // namespace thmp::query
