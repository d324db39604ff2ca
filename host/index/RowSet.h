// SPDX-License-Identifier: Apache-2.0
//
// A set of messages: one bit for each row, which is the message's library ID. At a million messages
// it is 125 kB, and joining two takes microseconds. Sets of different lengths go together; what one
// lacks at its end is not in it. One thread at a time.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/index/byte_stream.h"

namespace thmp {

/// A message's place in the columns of the index: its library ID, as far as those go.
using Row = std::uint32_t;
inline constexpr std::int64_t kMostRow = (std::int64_t{1} << 31) - 2;
/// Whether the message of that ID can have a row. Queries find no other.
constexpr bool isRow(std::int64_t id) { return id > 0 && id <= kMostRow; }

class RowSet {
 public:
  RowSet() = default;

  bool contains(Row row) const {
    const std::size_t word = row / 64;
    return word < words_.size() && ((words_[word] >> (row % 64)) & 1) != 0;
  }
  void insert(Row row) {
    const std::size_t word = row / 64;
    if (word >= words_.size()) words_.resize(word + 1);
    words_[word] |= std::uint64_t{1} << (row % 64);
  }
  void erase(Row row) {
    const std::size_t word = row / 64;
    if (word < words_.size()) words_[word] &= ~(std::uint64_t{1} << (row % 64));
  }
  void clear() { words_.clear(); }
  void shrink() { words_.shrink_to_fit(); }

  void write(ByteWriter& out) const { out.put(words_); }
  void read(ByteReader& in) { in.get(words_); }

  std::size_t size() const {
    std::size_t count = 0;
    for (const std::uint64_t word : words_) count += static_cast<std::size_t>(std::popcount(word));
    return count;
  }
  bool empty() const {
    for (const std::uint64_t word : words_) {
      if (word != 0) return false;
    }
    return true;
  }

  RowSet& operator&=(const RowSet& other) {
    if (words_.size() > other.words_.size()) words_.resize(other.words_.size());
    for (std::size_t i = 0; i < words_.size(); ++i) words_[i] &= other.words_[i];
    return *this;
  }
  RowSet& operator|=(const RowSet& other) {
    if (words_.size() < other.words_.size()) words_.resize(other.words_.size());
    for (std::size_t i = 0; i < other.words_.size(); ++i) words_[i] |= other.words_[i];
    return *this;
  }
  RowSet& operator-=(const RowSet& other) {
    const std::size_t common =
        words_.size() < other.words_.size() ? words_.size() : other.words_.size();
    for (std::size_t i = 0; i < common; ++i) words_[i] &= ~other.words_[i];
    return *this;
  }

  /// Calls `visit` with each row, the highest first, until it returns false.
  template <typename Visit>
  void forEachDescending(const Visit& visit) const {
    for (std::size_t i = words_.size(); i-- > 0;) {
      for (std::uint64_t word = words_[i]; word != 0;) {
        const int bit = 63 - std::countl_zero(word);
        word &= ~(std::uint64_t{1} << bit);
        if (!visit(static_cast<Row>(i * 64 + static_cast<std::size_t>(bit)))) return;
      }
    }
  }

 private:
  std::vector<std::uint64_t> words_;
};

}  // namespace thmp
