// SPDX-License-Identifier: Apache-2.0
#include "host/query/fold.h"

#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <numeric>

#include "host/query/characters.h"

namespace thmp::query {

namespace {

constexpr char32_t kFirstMark = 0x300;
constexpr char32_t kFirstCodePointWithLastingMarks = 0x510;

const utf8proc_property_t& property(char32_t codePoint) {
  return *utf8proc_get_property(static_cast<utf8proc_int32_t>(codePoint));
}

/// Letters, digits and signs that NFC neither changes nor joins to their left neighbour. Most text
/// has no others and is spared the two passes. Not complete, and need not be.
constexpr bool isUnmovedByNfc(char32_t c) {
  return c < 0x300 || (c >= 0x388 && c <= 0x482) || (c >= 0x48A && c <= 0x52F) ||
         (c >= 0x2010 && c <= 0x205E) || (c >= 0x3041 && c <= 0x3096) ||
         (c >= 0x30A0 && c <= 0x30FF) || (c >= 0x3400 && c <= 0x4DBF) ||
         (c >= 0x4E00 && c <= 0x9FFF) || (c >= 0xAC00 && c <= 0xD7A3) ||
         (c >= 0x1F300 && c <= 0x1FAFF);
}

bool isUnmovedByNfc(std::u32string_view text) {
  return std::all_of(text.begin(), text.end(), [](char32_t c) { return isUnmovedByNfc(c); });
}

constexpr std::size_t kCombiningClasses = 256;

std::uint8_t combiningClass(char32_t c) {
  return c < kFirstMark ? std::uint8_t{0} : static_cast<std::uint8_t>(property(c).combining_class);
}

/// Sorts marks by their classes, those of one class in their order, in linear time.
void sortByClass(std::u32string& text, std::size_t begin, std::size_t end) {
  const std::u32string marks = text.substr(begin, end - begin);
  std::array<std::size_t, kCombiningClasses + 1> places{};
  for (const char32_t c : marks) ++places[combiningClass(c) + 1U];
  std::partial_sum(places.begin(), places.end(), places.begin());
  for (const char32_t c : marks) text[begin + places[combiningClass(c)]++] = c;
}

/// Marks after one base into the canonical order. A text may be nothing but marks.
void orderMarks(std::u32string& text) {
  std::size_t begin = 0;
  while (begin < text.size()) {
    std::size_t end = begin;
    std::uint8_t highest = 0;
    bool ordered = true;
    for (; end < text.size(); ++end) {
      const std::uint8_t next = combiningClass(text[end]);
      if (next == 0) break;
      ordered = ordered && next >= highest;
      highest = std::max(highest, next);
    }
    if (!ordered) sortByClass(text, begin, end);
    begin = std::max(end, begin + 1);
  }
}

/// What neither NFD nor case folding changes. Syllables of Hangul are taken apart by rule.
bool isUnmoved(char32_t c) {
  const bool isSyllable = c >= 0xAC00 && c <= 0xD7A3;
  return (classOf(c) & kUnmovedByFolds) != 0 && !isSyllable;
}

/// NFD; with `foldCase` each code point is case-folded on the way.
std::u32string decomposed(std::u32string_view text, bool foldCase) {
  constexpr std::size_t kLongestDecomposition = 32;
  const auto options = static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_DECOMPOSE |
                                                      (foldCase ? UTF8PROC_CASEFOLD : 0));
  std::u32string result;
  result.reserve(text.size());
  for (const char32_t c : text) {
    if (isUnmoved(c)) {
      result.push_back(c);
      continue;
    }
    utf8proc_int32_t parts[kLongestDecomposition];
    int boundaryClass = 0;
    const utf8proc_ssize_t count = utf8proc_decompose_char(
        static_cast<utf8proc_int32_t>(c), parts, kLongestDecomposition, options, &boundaryClass);
    if (count < 0 || count > static_cast<utf8proc_ssize_t>(kLongestDecomposition)) {
      result.push_back(kReplacementCharacter);
      continue;
    }
    for (utf8proc_ssize_t i = 0; i < count; ++i) result.push_back(static_cast<char32_t>(parts[i]));
  }
  orderMarks(result);
  return result;
}

/// Joins what NFD has taken apart.
void compose(std::u32string& text) {
  if (isUnmovedByNfc(text)) return;
  std::array<utf8proc_int32_t, 32> few;
  std::vector<utf8proc_int32_t> many(text.size() > few.size() ? text.size() : 0);
  utf8proc_int32_t* const points = many.empty() ? few.data() : many.data();
  std::copy(text.begin(), text.end(), points);
  const utf8proc_ssize_t length =
      utf8proc_normalize_utf32(points, static_cast<utf8proc_ssize_t>(text.size()),
                               static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
  if (length >= 0) text.assign(points, points + length);
}

std::u32string decode(std::string_view text) {
  std::u32string result;
  result.reserve(text.size());
  for (std::size_t position = 0; position < text.size();) {
    result.push_back(decodeNext(text, position));
  }
  return result;
}

void dropMarks(std::u32string& character) {
  std::erase_if(character, [](char32_t c) {
    return c >= kFirstMark && c < kFirstCodePointWithLastingMarks &&
           property(c).category == UTF8PROC_CATEGORY_MN;
  });
}

std::string foldedApart(std::u32string_view character, Folding folding) {
  const bool hasBase = !isMark(character[0]);
  // A single code point is folded and taken apart at once, with the same outcome.
  const bool isWhole = std::all_of(character.begin(), character.end(), isUnmoved);
  std::u32string folded(character);
  if (!isWhole) folded = decomposed(folded, folding.foldCase && character.size() == 1);
  if (!isWhole && folding.foldCase && character.size() > 1) folded = decomposed(folded, true);
  if (folding.dropMarks && hasBase) dropMarks(folded);
  compose(folded);
  std::string out;
  for (const char32_t c : folded) appendUtf8(c, out);
  return out;
}

/// What single code points of the basic plane fold to, a page of them made when it is first needed.
class FoldTable {
 public:
  explicit FoldTable(Folding folding) : folding_(folding) {}

  const std::string& of(char32_t c) {
    const std::size_t number = c >> 8U;
    std::call_once(made_[number], [&] {
      pages_[number] = std::make_unique<Page>();
      for (char32_t low = 0; low < kPageSize; ++low) {
        const char32_t each = (c & ~char32_t{kPageSize - 1}) | low;
        (*pages_[number])[low] = foldedApart(std::u32string_view(&each, 1), folding_);
      }
    });
    return (*pages_[number])[c & (kPageSize - 1)];
  }

 private:
  static constexpr std::size_t kPageSize = 256;
  using Page = std::array<std::string, kPageSize>;

  Folding folding_;
  std::array<std::once_flag, 256> made_;
  std::array<std::unique_ptr<Page>, 256> pages_;
};

FoldTable& tableOf(Folding folding) {
  static FoldTable& cases = *new FoldTable({true, false});
  static FoldTable& marks = *new FoldTable({false, true});
  static FoldTable& both = *new FoldTable({true, true});
  if (!folding.dropMarks) return cases;
  return folding.foldCase ? both : marks;
}

/// Folds one character of a text in NFC.
void appendFolded(std::u32string_view character, Folding folding, std::string& out) {
  const bool isOne = character.size() == 1;
  const bool folds = folding.foldCase || folding.dropMarks;
  if (!folds || (isOne && (classOf(character[0]) & kUnmovedByFolds) != 0)) {
    for (const char32_t c : character) appendUtf8(c, out);
  } else if (isOne && character[0] < 0x10000) {
    out += tableOf(folding).of(character[0]);
  } else {
    out += foldedApart(character, folding);
  }
}

/// Where the character that begins at `begin` ends.
std::size_t characterEnd(std::u32string_view text, std::size_t begin) {
  std::size_t end = begin + 1;
  while (end < text.size() && isMark(text[end])) ++end;
  return end;
}

}  // namespace

std::u32string composed(std::u32string text) {
  if (isUnmovedByNfc(text)) return text;
  std::u32string result = decomposed(text, /*foldCase=*/false);
  compose(result);
  return result;
}

std::string foldText(std::string_view text, Folding folding) {
  FoldedText folded;
  folded.assign(text, folding);
  return std::string(folded.bytes());
}

std::string foldText(std::u32string_view text, Folding folding) {
  std::string folded;
  folded.reserve(text.size());
  if (std::all_of(text.begin(), text.end(), [](char32_t c) { return c < 0x80; })) {
    for (const char32_t c : text) folded.push_back(static_cast<char>(c));
    if (folding.foldCase) lowerAscii(folded, folded.data());
    return folded;
  }
  const std::u32string whole = composed(std::u32string(text));
  for (std::size_t begin = 0; begin < whole.size();) {
    const std::size_t end = characterEnd(whole, begin);
    appendFolded(std::u32string_view(whole).substr(begin, end - begin), folding, folded);
    begin = end;
  }
  return folded;
}

void FoldedText::assign(std::string_view text, Folding folding) {
  original_ = text;
  ascii_ = isAscii(text);
  if (ascii_) {
    assignAscii(folding);
  } else {
    assignCharacters(folding);
  }
}

void FoldedText::assignAscii(Folding folding) {
  bytes_ = original_;
  if (!folding.foldCase) return;
  buffer_.resize(original_.size());
  lowerAscii(original_, buffer_.data());
  bytes_ = buffer_;
}

void FoldedText::assignCharacters(Folding folding) {
  const std::u32string text = composed(decode(original_));
  buffer_.clear();
  buffer_.reserve(original_.size());
  flags_.clear();
  flags_.reserve(original_.size() + 1);
  const auto mark = [&](unsigned flags) {
    flags_.resize(buffer_.size() + 1);
    flags_.back() = static_cast<std::uint8_t>(flags);
  };
  unsigned left = 0;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = characterEnd(text, begin);
    const unsigned right = classOf(text[begin]);
    unsigned flags = kEdge;
    if ((right & kWordCharacter) != 0) flags |= kInWord;
    if (isWordBoundary(left, right)) flags |= kBoundary;
    mark(flags);
    appendFolded(std::u32string_view(text).substr(begin, end - begin), folding, buffer_);
    left = right;
    begin = end;
  }
  mark(kEdge | kBoundary);
  bytes_ = buffer_;
}

std::size_t FoldedText::next(std::size_t position) const {
  do {
    ++position;
  } while (!isEdge(position));
  return position;
}

std::size_t FoldedText::previous(std::size_t position) const {
  do {
    --position;
  } while (!isEdge(position));
  return position;
}

bool FoldedText::isWordCharacter(std::size_t position) const {
  if (!ascii_) return (flags_[position] & kInWord) != 0;
  return position < original_.size() &&
         query::isWordCharacter(static_cast<unsigned char>(original_[position]));
}

bool FoldedText::isBoundary(std::size_t position) const {
  if (!ascii_) return (flags_[position] & kBoundary) != 0;
  if (position == 0 || position == original_.size()) return true;
  return isWordBoundary(classOf(static_cast<unsigned char>(original_[position - 1])),
                        classOf(static_cast<unsigned char>(original_[position])));
}

}  // namespace thmp::query
