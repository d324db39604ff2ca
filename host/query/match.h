// SPDX-License-Identifier: Apache-2.0
//
// Patterns with the wildcards * and ?, made ready once and matched against many texts.
//
// A pattern is kept as stretches of folded text, counts of single characters, and runs of any
// length between them. Matching takes each stretch at its first place after the one before, so it
// never tries a combination twice: its time is bounded by the text's length times the pattern's,
// and linear in the text for a pattern without ?. Immutable after construction; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/query/fold.h"

namespace thmp::query {

/// The letters that may follow a value.
class Modifiers {
 public:
  enum Bit : std::uint8_t {
    kCase = 1,        // c: case does not count
    kDiacritics = 2,  // d: diacritics do not count
    kWords = 4,       // w: comparison by words
    kTokens = 8,      // t: the value is cut into words that each must be there
  };

  /// Whether `letters` is one or more of c, d, w, t; if so they are added.
  bool add(std::string_view letters);
  void add(Modifiers other) { bits_ = static_cast<std::uint8_t>(bits_ | other.bits_); }
  void add(Bit bit) { bits_ = static_cast<std::uint8_t>(bits_ | bit); }
  bool has(Bit bit) const { return (bits_ & bit) != 0; }
  bool empty() const { return bits_ == 0; }
  Folding folding() const { return {has(kCase), has(kDiacritics)}; }
  /// The letters in the order c, d, w, t.
  std::string letters() const;

 private:
  std::uint8_t bits_ = 0;
};

/// In a text of code points: the unescaped wildcards.
inline constexpr char32_t kAnyRun = 0x110000;
inline constexpr char32_t kAnyOne = 0x110001;

constexpr bool isWildcard(char32_t c) noexcept { return c == kAnyRun || c == kAnyOne; }

/// The code points of a word or of a string's inside: escapes taken away, unescaped wildcards as
/// kAnyRun and kAnyOne. REQUIRES: well-formed UTF-8.
std::u32string readPattern(std::string_view source);

class Pattern {
 public:
  struct Step {
    enum class Kind : std::uint8_t { kLiteral, kOnes, kRun };
    Kind kind;
    std::uint32_t begin;  // kLiteral: where its bytes begin in literals_
    std::uint32_t size;   // kLiteral: how many they are; kOnes: how many characters
  };

  /// `pattern` as readPattern() gives it.
  Pattern(std::u32string_view pattern, Folding folding);

  /// Whether the pattern covers the whole text.
  bool matchesWhole(const FoldedText& text) const;
  /// Whether the pattern covers a stretch of the text from one word boundary to another; wildcards
  /// take word characters only.
  bool matchesWords(const FoldedText& text) const;

  /// The folded literal, when the pattern is nothing but one; what an index can look up. Empty for
  /// an empty pattern; REQUIRES: isLiteral().
  bool isLiteral() const;
  std::string_view literal() const { return literals_; }
  /// The folded literal before the *, when the pattern is nothing but those two. Empty otherwise.
  std::optional<std::string_view> prefix() const;
  /// The longest stretch that every text that matches has in it, folded; empty when there is none.
  std::string_view longestLiteral() const;
  /// The pattern as it is compared: folded, its wildcards as * and ?.
  std::string text() const;

 private:
  using Steps = std::vector<Step>;
  struct Segment {
    const Step* begin;
    const Step* end;
  };
  class LiteralFinder;
  class SegmentFinder;

  void addLiteral(std::u32string_view stretch, Folding folding);
  void addWildcards(std::u32string_view run, bool leading, bool trailing);
  void prepareSearch();

  std::string_view bytesOf(const Step& step) const {
    return std::string_view(literals_).substr(step.begin, step.size);
  }
  Segment segmentAt(const Step* begin) const;
  const Step* stepsEnd() const { return steps_.data() + steps_.size(); }

  std::size_t forward(const FoldedText& text, Segment segment, std::size_t position,
                      bool wordsOnly) const;
  std::size_t backward(const FoldedText& text, Segment segment, std::size_t position) const;
  bool restInRun(const FoldedText& text, Segment segment, std::size_t position) const;

  std::string literals_;  // the folded stretches, end to end
  Steps steps_;
  // For each byte of a long stretch: the length of the longest beginning of the stretch that also
  // ends there. Empty when no stretch is long.
  std::vector<std::uint32_t> failure_;
  bool openStart_ = false;  // begins with *
  bool openEnd_ = false;    // ends with *
};

/// A value's pattern under its modifiers.
class TextMatcher {
 public:
  TextMatcher(std::u32string_view pattern, Modifiers modifiers);

  /// Whether `text` matches. `byWords` compares by words though the modifiers do not ask for it.
  /// `scratch` is the caller's, for use by one thread at a time.
  bool matches(std::string_view text, bool byWords, FoldedText& scratch) const;

  Modifiers modifiers() const { return modifiers_; }
  /// One pattern, or with t one for each word of the value.
  const std::vector<Pattern>& patterns() const { return patterns_; }

 private:
  Modifiers modifiers_;
  std::vector<Pattern> patterns_;
};

}  // namespace thmp::query
