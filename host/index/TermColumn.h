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

namespace thmp {

class TermColumn {
 public:
  /// REQUIRES: no row above `row` has been added.
  void add(Row row, const Text& text);

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
    std::uint32_t nextLike = 0;  // the next one of the same fold, as number + 1
  };

  static std::uint64_t foldHash(std::string_view text);
  Term& termOf(const Text& text);
  static void addRows(const Term& term, RowSet& rows);

  std::vector<Term> terms_;
  std::unordered_map<std::uint64_t, std::uint32_t> byFold_;
  RowSet present_;
};

}  // namespace thmp
