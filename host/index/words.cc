// SPDX-License-Identifier: Apache-2.0
#include "host/index/words.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "host/query/characters.h"

namespace thmp {

namespace {

// A word that is longer, in bytes, or has more pieces is random letters rather than a word: an
// identifier or encoded data. It is kept in short forms only.
constexpr std::size_t kLongestWord = 64;
constexpr std::size_t kMostPieces = 6;

// Collects the words of one text. A run of word characters is cut where ideographs stand; what
// lies between is a word, and has pieces where its case steps up.
class WordWriter {
 public:
  explicit WordWriter(std::string& stream) : stream_(stream) {}

  void beginPiece(std::size_t at) { edges_.push_back(at); }

  /// A character of the text became several.
  void setExpanded() {
    if (std::exchange(hasExpanded_, true)) return;
    // At the place of the word before, so that its neighbours stay neighbours.
    stream_.push_back(stream_.empty() ? kNextWord : kOtherForm);
    stream_.append(kExpanded);
  }

  /// The word that began with its first piece ends before `end`.
  void endWord(std::string_view bytes, std::size_t end) {
    if (edges_.empty()) return;
    edges_.push_back(end);
    separator_ = kNextWord;
    const bool isWord = edges_.size() - 1 <= kMostPieces && end - edges_.front() <= kLongestWord;
    addForms(bytes, isWord ? kLongestWord : kLongestSure);
    if (!isWord) {
      addCutForms(bytes);
      if (!std::exchange(hasUncovered_, true)) add(kUncovered);
    }
    edges_.clear();
  }

 private:
  void add(std::string_view form) {
    stream_.push_back(std::exchange(separator_, kOtherForm));
    stream_.append(form);
  }

  // Every stretch from one edge to another.
  void addForms(std::string_view bytes, std::size_t longest) {
    for (std::size_t from = 0; from + 1 < edges_.size(); ++from) {
      for (std::size_t to = from + 1; to < edges_.size(); ++to) {
        const std::size_t size = edges_[to] - edges_[from];
        if (size > longest) break;
        add(bytes.substr(edges_[from], size));
      }
    }
  }

  void addCutForms(std::string_view bytes) {
    for (std::size_t from = 0; from + 1 < edges_.size(); ++from) {
      const std::size_t size = std::min(edges_.back() - edges_[from], kLongestSure);
      add(kCutForm + std::string(bytes.substr(edges_[from], size)));
    }
  }

  std::string& stream_;
  std::vector<std::size_t> edges_;
  char separator_ = kNextWord;
  bool hasUncovered_ = false;
  bool hasExpanded_ = false;
};

enum AsciiClass : std::uint8_t { kSeparator = 0, kLower = 1, kUpper = 2, kDigit = 4, kBeyond = 8 };

constexpr std::array<std::uint8_t, 256> asciiClasses() {
  std::array<std::uint8_t, 256> classes{};
  for (unsigned c = '0'; c <= '9'; ++c) classes[c] = kDigit;
  for (unsigned c = 'a'; c <= 'z'; ++c) classes[c] = kLower;
  for (unsigned c = 'A'; c <= 'Z'; ++c) classes[c] = kUpper;
  for (unsigned c = 0x80; c <= 0xFF; ++c) classes[c] = kBeyond;
  return classes;
}

constexpr std::array<std::uint8_t, 256> kAsciiClasses = asciiClasses();

std::uint8_t asciiClassOf(char byte) { return kAsciiClasses[static_cast<unsigned char>(byte)]; }

bool isOneCharacter(std::string_view bytes) {
  std::size_t at = 0;
  query::decodeNext(bytes, at);
  return at == bytes.size();
}

bool standsAlone(std::string_view bytes, std::size_t at) {
  return (query::classOf(query::decodeNext(bytes, at)) & query::kWordByItself) != 0;
}

void appendAnyWords(const query::FoldedText& folded, WordWriter& writer) {
  const std::string_view bytes = folded.bytes();
  bool inWord = false;
  bool isAlone = false;
  bool isExpanded = false;
  for (std::size_t at = 0; at < bytes.size(); at = folded.next(at)) {
    if (!folded.isWordCharacter(at)) {
      if (inWord) writer.endWord(bytes, at);
      inWord = false;
      continue;
    }
    if (!isOneCharacter(bytes.substr(at, folded.next(at) - at))) isExpanded = true;
    const bool isNextAlone = standsAlone(bytes, at);
    if (inWord && (isAlone || isNextAlone)) {
      writer.endWord(bytes, at);
      inWord = false;
    }
    if (!inWord || folded.isBoundary(at)) writer.beginPiece(at);
    inWord = true;
    isAlone = isNextAlone;
  }
  writer.endWord(bytes, bytes.size());
  if (isExpanded) writer.setExpanded();
}

// One word of ASCII.
void appendAsciiWord(std::string_view word, std::string& buffer, WordWriter& writer) {
  buffer.resize(word.size());
  query::lowerAscii(word, buffer.data());
  std::uint8_t left = kSeparator;
  for (std::size_t i = 0; i < word.size(); ++i) {
    const std::uint8_t right = asciiClassOf(word[i]);
    if (i == 0 || (left == kLower && right == kUpper)) writer.beginPiece(i);
    left = right;
  }
  writer.endWord(buffer, buffer.size());
}

}  // namespace

// An ASCII separator parts words whatever stands around it, so what lies between two of them can be
// taken by itself; nearly always it is one word of ASCII.
void appendWords(std::string_view text, query::FoldedText& scratch, std::string& stream) {
  stream.reserve(stream.size() + text.size() + text.size() / 8);
  WordWriter writer(stream);
  std::string buffer;
  for (std::size_t begin = 0; begin < text.size();) {
    unsigned seen = 0;
    std::size_t end = begin;
    for (; end < text.size(); ++end) {
      const std::uint8_t kind = asciiClassOf(text[end]);
      if (kind == kSeparator) break;
      seen |= kind;
    }
    const std::string_view piece = text.substr(begin, end - begin);
    if ((seen & kBeyond) != 0) {
      scratch.assign(piece, kWordFolding);
      appendAnyWords(scratch, writer);
    } else if (!piece.empty()) {
      appendAsciiWord(piece, buffer, writer);
    }
    begin = end + 1;
  }
}

std::vector<std::string> wordsOfPattern(std::string_view foldedStretch) {
  const std::string bytes = query::foldText(foldedStretch, kWordFolding);
  std::vector<std::string> words;
  bool inWord = false;
  bool isAlone = false;
  for (std::size_t at = 0; at < bytes.size();) {
    const std::size_t begin = at;
    const unsigned kind = query::classOf(query::decodeNext(bytes, at));
    const bool isWord = (kind & query::kWordCharacter) != 0;
    const bool isMark = (kind & query::kMark) != 0;
    const bool isNextAlone = (kind & query::kWordByItself) != 0;
    if (isWord && (!inWord || isAlone || isNextAlone)) words.emplace_back();
    if (isWord) isAlone = isNextAlone;
    inWord = isWord || (isMark && inWord);
    if (inWord) words.back().append(bytes, begin, at - begin);
  }
  return words;
}

}  // namespace thmp
