// SPDX-License-Identifier: Apache-2.0
#include "host/query/match.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "host/query/characters.h"

namespace thmp::query {

namespace {

constexpr std::size_t kNowhere = static_cast<std::size_t>(-1);

/// Stretches from this length on are searched for with a table, in linear time; shorter ones with
/// the library's search, which is quicker on ordinary text.
constexpr std::size_t kLongStretch = 64;

constexpr std::string_view kModifierLetters = "cdwt";

/// Where the word characters that begin at the edge `position` end.
std::size_t runEnd(const FoldedText& text, std::size_t position) {
  while (text.isWordCharacter(position)) position = text.next(position);
  return position;
}

}  // namespace

bool Modifiers::add(std::string_view letters) {
  std::uint8_t bits = bits_;
  for (const char letter : letters) {
    const std::size_t place = kModifierLetters.find(letter);
    if (place == std::string_view::npos) return false;
    bits = static_cast<std::uint8_t>(bits | (1U << place));
  }
  if (letters.empty()) return false;
  bits_ = bits;
  return true;
}

std::string Modifiers::letters() const {
  std::string result;
  for (std::size_t i = 0; i < kModifierLetters.size(); ++i) {
    if ((bits_ & (1U << i)) != 0) result.push_back(kModifierLetters[i]);
  }
  return result;
}

std::u32string readPattern(std::string_view source) {
  std::u32string result;
  result.reserve(source.size());
  for (std::size_t position = 0; position < source.size();) {
    const bool escaped = source[position] == '\\' && position + 1 < source.size();
    if (escaped) ++position;
    const char32_t c = decodeNext(source, position);
    if (!escaped && c == '*') {
      result.push_back(kAnyRun);
    } else {
      result.push_back(!escaped && c == '?' ? kAnyOne : c);
    }
  }
  return result;
}

// --- making a pattern ---

Pattern::Pattern(std::u32string_view pattern, Folding folding) {
  for (std::size_t begin = 0; begin < pattern.size();) {
    const bool wild = isWildcard(pattern[begin]);
    std::size_t end = begin + 1;
    while (end < pattern.size() && isWildcard(pattern[end]) == wild) ++end;
    const std::u32string_view part = pattern.substr(begin, end - begin);
    if (wild) {
      addWildcards(part, begin == 0, end == pattern.size());
    } else {
      addLiteral(part, folding);
    }
    begin = end;
  }
  prepareSearch();
}

void Pattern::addLiteral(std::u32string_view stretch, Folding folding) {
  const auto begin = static_cast<std::uint32_t>(literals_.size());
  literals_ += foldText(stretch, folding);
  const auto size = static_cast<std::uint32_t>(literals_.size() - begin);
  steps_.push_back({Step::Kind::kLiteral, begin, size});
}

/// Wildcards side by side are as many single characters as there are ?, and if one is * then any
/// more. A * at either end of the pattern leaves that end open and is not kept. Both hold by words
/// too: there "?*" and "*?" alike ask for one word character or more, and a run of them always
/// begins and ends at a boundary.
void Pattern::addWildcards(std::u32string_view run, bool leading, bool trailing) {
  const auto ones = static_cast<std::uint32_t>(std::count(run.begin(), run.end(), kAnyOne));
  const bool open = ones < run.size();
  if (ones > 0) steps_.push_back({Step::Kind::kOnes, 0, ones});
  if (open && leading) openStart_ = true;
  if (open && trailing) openEnd_ = true;
  if (open && !leading && !trailing) steps_.push_back({Step::Kind::kRun, 0, 0});
}

void Pattern::prepareSearch() {
  const bool needed = std::any_of(steps_.begin(), steps_.end(), [](const Step& step) {
    return step.kind == Step::Kind::kLiteral && step.size >= kLongStretch;
  });
  if (!needed) return;
  failure_.assign(literals_.size(), 0);
  for (const Step& step : steps_) {
    if (step.kind != Step::Kind::kLiteral) continue;
    const std::string_view bytes = bytesOf(step);
    std::uint32_t* table = failure_.data() + step.begin;
    std::uint32_t length = 0;
    for (std::size_t i = 1; i < bytes.size(); ++i) {
      while (length > 0 && bytes[i] != bytes[length]) length = table[length - 1];
      if (bytes[i] == bytes[length]) ++length;
      table[i] = length;
    }
  }
}

bool Pattern::isLiteral() const {
  return !openStart_ && !openEnd_ &&
         (steps_.empty() || (steps_.size() == 1 && steps_[0].kind == Step::Kind::kLiteral));
}

std::optional<std::string_view> Pattern::prefix() const {
  const bool isPrefix =
      !openStart_ && openEnd_ && steps_.size() == 1 && steps_[0].kind == Step::Kind::kLiteral;
  return isPrefix ? std::optional(bytesOf(steps_[0])) : std::nullopt;
}

std::string_view Pattern::longestLiteral() const {
  std::string_view longest;
  for (const Step& step : steps_) {
    if (step.kind == Step::Kind::kLiteral && step.size > longest.size()) longest = bytesOf(step);
  }
  return longest;
}

std::string Pattern::text() const {
  std::string result(openStart_ ? "*" : "");
  for (const Step& step : steps_) {
    switch (step.kind) {
      case Step::Kind::kLiteral:
        result += bytesOf(step);
        break;
      case Step::Kind::kOnes:
        result.append(step.size, '?');
        break;
      case Step::Kind::kRun:
        result += '*';
        break;
    }
  }
  return result + (openEnd_ ? "*" : "");
}

// --- searching ---

/// Finds a literal step's bytes again and again, overlapping ones included.
class Pattern::LiteralFinder {
 public:
  LiteralFinder(const Pattern& pattern, const Step& step, std::string_view text, std::size_t from)
      : needle_(pattern.bytesOf(step)),
        table_(needle_.size() < kLongStretch ? nullptr : pattern.failure_.data() + step.begin),
        text_(text),
        position_(from) {}

  /// Where the next occurrence begins, or kNowhere.
  std::size_t next() { return table_ == nullptr ? nextShort() : nextLong(); }

 private:
  std::size_t nextShort() {
    const std::size_t found = text_.find(needle_, position_);
    if (found == std::string_view::npos) return kNowhere;
    position_ = found + 1;
    return found;
  }

  std::size_t nextLong() {
    while (position_ < text_.size()) {
      const char byte = text_[position_++];
      while (length_ > 0 && byte != needle_[length_]) length_ = table_[length_ - 1];
      if (byte == needle_[length_]) ++length_;
      if (length_ < needle_.size()) continue;
      length_ = table_[length_ - 1];
      return position_ - needle_.size();
    }
    return kNowhere;
  }

  std::string_view needle_;
  const std::uint32_t* table_;
  std::string_view text_;
  std::size_t position_;
  std::size_t length_ = 0;  // how much of the needle ends at position_
};

/// Finds the places, in their order, where a segment matches and begins within [from, last].
class Pattern::SegmentFinder {
 public:
  SegmentFinder(const Pattern& pattern, const FoldedText& text, Segment segment, std::size_t from,
                std::size_t last, bool wordsOnly)
      : pattern_(pattern), text_(text), segment_(segment), last_(last), wordsOnly_(wordsOnly) {
    if (segment.begin != segment.end && segment.begin->kind == Step::Kind::kLiteral) {
      const std::size_t end = last + segment.begin->size;
      literal_.emplace(pattern, *segment.begin, text.bytes().substr(0, end), from);
    } else {
      edge_ = from;
    }
  }

  /// Moves to the next place; false when there is none.
  bool next() {
    while ((begin_ = candidate()) != kNowhere) {
      end_ = pattern_.forward(text_, segment_, begin_, wordsOnly_);
      if (end_ != kNowhere) return true;
    }
    return false;
  }

  std::size_t begin() const { return begin_; }
  std::size_t end() const { return end_; }

 private:
  std::size_t candidate() {
    if (literal_) return literal_->next();
    const std::size_t result = edge_;
    if (result != kNowhere) edge_ = result < last_ ? text_.next(result) : kNowhere;
    return result;
  }

  const Pattern& pattern_;
  const FoldedText& text_;
  Segment segment_;
  std::size_t last_;
  bool wordsOnly_;
  std::optional<LiteralFinder> literal_;
  std::size_t edge_ = kNowhere;
  std::size_t begin_ = kNowhere;
  std::size_t end_ = kNowhere;
};

/// The steps from `begin` up to the next run.
Pattern::Segment Pattern::segmentAt(const Step* begin) const {
  return {begin, std::find_if(begin, stepsEnd(),
                              [](const Step& step) { return step.kind == Step::Kind::kRun; })};
}

/// Where `segment` ends when it begins at `position`; kNowhere when it does not match there.
std::size_t Pattern::forward(const FoldedText& text, Segment segment, std::size_t position,
                             bool wordsOnly) const {
  if (!text.isEdge(position)) return kNowhere;
  for (const Step* step = segment.begin; step != segment.end; ++step) {
    if (step->kind == Step::Kind::kLiteral) {
      const std::string_view bytes = bytesOf(*step);
      if (text.bytes().substr(position, bytes.size()) != bytes) return kNowhere;
      position += bytes.size();
      if (!text.isEdge(position)) return kNowhere;
      continue;
    }
    for (std::uint32_t i = 0; i < step->size; ++i) {
      if (position == text.size()) return kNowhere;
      if (wordsOnly && !text.isWordCharacter(position)) return kNowhere;
      position = text.next(position);
    }
  }
  return position;
}

/// Where `segment` begins when it ends at `position`; kNowhere when it does not match there.
std::size_t Pattern::backward(const FoldedText& text, Segment segment, std::size_t position) const {
  for (const Step* step = segment.end; step != segment.begin;) {
    --step;
    if (step->kind == Step::Kind::kLiteral) {
      const std::string_view bytes = bytesOf(*step);
      if (!text.bytes().substr(0, position).ends_with(bytes)) return kNowhere;
      position -= bytes.size();
      if (!text.isEdge(position)) return kNowhere;
      continue;
    }
    for (std::uint32_t i = 0; i < step->size; ++i) {
      if (position == 0) return kNowhere;
      position = text.previous(position);
    }
  }
  return position;
}

bool Pattern::matchesWhole(const FoldedText& text) const {
  Segment segment = segmentAt(steps_.data());
  std::size_t position = 0;
  if (!openStart_) {
    position = forward(text, segment, 0, /*wordsOnly=*/false);
    if (position == kNowhere) return false;
    if (segment.end == stepsEnd()) return openEnd_ || position == text.size();
    segment = segmentAt(segment.end + 1);
  }
  for (;; segment = segmentAt(segment.end + 1)) {
    const bool last = segment.end == stepsEnd();
    if (last && !openEnd_) {
      const std::size_t begin = backward(text, segment, text.size());
      return begin != kNowhere && begin >= position;
    }
    SegmentFinder finder(*this, text, segment, position, text.size(), /*wordsOnly=*/false);
    if (!finder.next()) return false;
    if (last) return true;
    position = finder.end();
  }
}

bool Pattern::matchesWords(const FoldedText& text) const {
  if (steps_.empty()) return openStart_;
  const Segment first = segmentAt(steps_.data());
  SegmentFinder finder(*this, text, first, 0, text.size(), /*wordsOnly=*/true);
  std::size_t failedRun = 0;
  while (finder.next()) {
    if (!openStart_ && !text.isBoundary(finder.begin())) continue;
    if (first.end == stepsEnd()) {
      if (openEnd_ || text.isBoundary(finder.end())) return true;
      continue;
    }
    // From two places in one run of word characters the second reaches nothing that the first does
    // not, so each run is tried once.
    if (finder.end() <= failedRun) continue;
    if (restInRun(text, segmentAt(first.end + 1), finder.end())) return true;
    failedRun = runEnd(text, finder.end());
  }
  return false;
}

/// Whether `segment` and those after it follow `position`, with word characters only in between.
bool Pattern::restInRun(const FoldedText& text, Segment segment, std::size_t position) const {
  std::size_t reach = runEnd(text, position);
  for (;; segment = segmentAt(segment.end + 1)) {
    const bool last = segment.end == stepsEnd();
    SegmentFinder finder(*this, text, segment, position, reach, /*wordsOnly=*/true);
    bool found = false;
    while (!found && finder.next()) {
      found = !last || openEnd_ || text.isBoundary(finder.end());
    }
    if (!found || last) return found;
    position = finder.end();
    if (position > reach) reach = runEnd(text, position);
  }
}

// --- matching a value ---

namespace {

/// The words of a value: the parts between characters that are neither word characters, nor marks,
/// nor wildcards. Parts of * alone say nothing and are left out.
std::vector<std::u32string> tokensOf(std::u32string_view pattern) {
  std::vector<std::u32string> tokens(1);
  const auto flushStretch = [&](std::u32string stretch) {
    for (const char32_t c : composed(std::move(stretch))) {
      if (isWordCharacter(c) || isMark(c)) {
        tokens.back().push_back(c);
      } else if (!tokens.back().empty()) {
        tokens.emplace_back();
      }
    }
  };
  std::u32string stretch;
  for (const char32_t c : pattern) {
    if (!isWildcard(c)) {
      stretch.push_back(c);
      continue;
    }
    flushStretch(std::exchange(stretch, {}));
    tokens.back().push_back(c);
  }
  flushStretch(std::move(stretch));
  std::erase_if(tokens, [](const std::u32string& token) {
    return std::all_of(token.begin(), token.end(), [](char32_t c) { return c == kAnyRun; });
  });
  return tokens;
}

}  // namespace

TextMatcher::TextMatcher(std::u32string_view pattern, Modifiers modifiers) : modifiers_(modifiers) {
  if (!modifiers.has(Modifiers::kTokens)) {
    patterns_.emplace_back(pattern, modifiers.folding());
    return;
  }
  for (const std::u32string& token : tokensOf(pattern)) {
    patterns_.emplace_back(token, modifiers.folding());
  }
}

bool TextMatcher::matches(std::string_view text, bool byWords, FoldedText& scratch) const {
  const bool words =
      byWords || modifiers_.has(Modifiers::kWords) || modifiers_.has(Modifiers::kTokens);
  scratch.assign(text, modifiers_.folding());
  if (!words) return patterns_.front().matchesWhole(scratch);
  return !patterns_.empty() &&
         std::all_of(patterns_.begin(), patterns_.end(),
                     [&](const Pattern& pattern) { return pattern.matchesWords(scratch); });
}

}  // namespace thmp::query
