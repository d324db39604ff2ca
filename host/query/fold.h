// SPDX-License-Identifier: Apache-2.0
//
// Text made ready for comparison. A text is brought to NFC and cut into characters, each a base
// with the marks that follow it; each character is folded by itself: NFD, case folding, leaving
// marks out, NFC. A FoldedText keeps the folded bytes together with the places where characters
// begin, since a match may begin and end only there. Folding knows no locale and is linear in the
// text. Bytes that are not UTF-8 count as U+FFFD.
//
// A FoldedText is a scratch object of one thread; everything else here is pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace thmp::query {

struct Folding {
  bool foldCase = false;   // full Unicode case folding: sharp s equals ss
  bool dropMarks = false;  // leaves out the non-spacing marks below U+0510 that follow a base

  friend bool operator==(const Folding&, const Folding&) = default;
};

/// `text` in NFC.
std::u32string composed(std::u32string text);

/// The characters of `text` folded, end to end, in UTF-8.
std::string foldText(std::string_view text, Folding folding);
std::string foldText(std::u32string_view text, Folding folding);

class FoldedText {
 public:
  FoldedText() = default;
  FoldedText(const FoldedText&) = delete;
  FoldedText& operator=(const FoldedText&) = delete;

  /// Folds `text`, which must live as long as this object shows it.
  void assign(std::string_view text, Folding folding);

  std::string_view bytes() const { return bytes_; }
  std::size_t size() const { return bytes_.size(); }

  /// Whether a character begins at `position`, or the text ends there.
  bool isEdge(std::size_t position) const { return ascii_ || (flags_[position] & kEdge) != 0; }
  /// The edge after, or before, the edge `position`. REQUIRES: there is one.
  std::size_t next(std::size_t position) const;
  std::size_t previous(std::size_t position) const;

  /// Whether the character that begins at the edge `position` is part of a word. False at the end.
  bool isWordCharacter(std::size_t position) const;
  /// Whether a word may begin or end at the edge `position`, seen before folding.
  bool isBoundary(std::size_t position) const;

 private:
  enum Flag : std::uint8_t { kEdge = 1, kInWord = 2, kBoundary = 4 };

  void assignAscii(Folding folding);
  void assignCharacters(Folding folding);

  std::string_view original_;
  std::string_view bytes_;  // of original_ or of buffer_
  bool ascii_ = true;       // every byte is a character and nothing stands in flags_
  std::string buffer_;
  std::vector<std::uint8_t> flags_;  // one for each byte and one for the end
};

}  // namespace thmp::query
