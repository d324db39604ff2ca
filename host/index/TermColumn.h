// SPDX-License-Identifier: Apache-2.0
//
// One attribute of all messages, where many have the same texts: each text once, with the rows that
// have it. Rows are only ever added, in ascending order. One thread at a time; the column it is
// part of has the lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/value.h"
#include "host/index/RowSet.h"
#include "host/index/byte_stream.h"

namespace thmp {

/// The texts of several columns, each once.
class TextTable {
 public:
  std::uint32_t numberOf(const Text& text);
  /// Empty for a number that is not known.
  Text at(std::uint32_t number) const { return number < texts_.size() ? texts_[number] : Text(); }

  void write(ByteWriter& out) const;
  void read(ByteReader& in);

 private:
  std::vector<Text> texts_;
  std::unordered_map<std::string_view, std::uint32_t> numbers_;
};

class TermColumn {
 public:
  /// REQUIRES: no row above `row` has been added.
  void add(Row row, const Text& text);
  /// Gives back memory that was taken for more to come.
  void shrink();

  void write(ByteWriter& out, TextTable& texts) const;
  /// False when the bytes are no column, or name rows from `end` on.
  bool read(ByteReader& in, const TextTable& texts, Row end);

  /// The rows with a text that `holds`. Looks at every text.
  RowSet rowsWith(const std::function<bool(const Text& text)>& holds) const;
  /// Looks only at texts that are equal to `text` but for case and diacritics.
  RowSet rowsLike(std::string_view text, const std::function<bool(const Text& text)>& holds) const;
  /// The rows that have any text.
  const RowSet& present() const { return present_; }

 private:
  // Rows as differences from the row before, seven bits a byte.
  struct Term {
    Text text;
    std::string rows;
    Row last = 0;
    std::uint32_t fold = 0;  // a hash of the folded text
    std::uint32_t next = 0;  // of those in one slot, as number + 1
  };

  static std::uint32_t foldHash(std::string_view text);
  std::uint32_t& slotOf(std::uint32_t fold) { return slots_[fold & (slots_.size() - 1)]; }
  void link(std::uint32_t number);
  void makeSlots(std::size_t terms);
  Term& termOf(const Text& text);
  template <typename Visit>
  static bool forEachRow(const Term& term, const Visit& visit);
  static void addRows(const Term& term, RowSet& rows);

  std::vector<Term> terms_;
  std::vector<std::uint32_t> slots_;  // as many as a power of two: a term's number + 1
  RowSet present_;
};

}  // namespace thmp
