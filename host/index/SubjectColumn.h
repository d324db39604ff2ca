// SPDX-License-Identifier: Apache-2.0
//
// The folded subjects of all messages, each once: all answers of a thread have one. One thread at a
// time; the columns it is part of have the lock.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/index/RowSet.h"
#include "host/index/byte_stream.h"

namespace thmp {

class SubjectColumn {
 public:
  /// There are rows below `end`, the new ones without a subject.
  void growTo(Row end) { numbers_.resize(end, 0); }
  /// Gives a row its subject. False, and it has none, for one of several lines, and when there is
  /// no room. REQUIRES: the row is there.
  bool add(Row row, std::string_view folded);
  /// Gives back memory that was taken for more to come.
  void shrink();

  /// The rows whose subject contains `needle`; with an empty one, those that have a subject.
  RowSet rowsWith(std::string_view needle) const;

  void write(ByteWriter& out) const;
  /// False when the bytes are no subjects of the rows below `end`.
  bool read(ByteReader& in, Row end);

 private:
  static constexpr char kEnd = '\n';

  std::string_view textOf(std::uint32_t number) const;
  std::uint32_t numberOf(std::string_view folded);
  std::uint32_t* slotFor(std::string_view folded);
  void makeSlots();

  std::string texts_;                   // a line each
  std::vector<std::uint32_t> begins_;   // of the lines
  std::vector<std::uint32_t> numbers_;  // by row: a line's number + 1, 0 for none
  /// As many as a power of two, half of them free: a line's number + 1. Made for the first row that
  /// is added.
  std::vector<std::uint32_t> slots_;
};

}  // namespace thmp
