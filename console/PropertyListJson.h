// SPDX-License-Identifier: Apache-2.0
//
// What stands in a property list as JSON, made from its bytes: a search prints tens of attributes
// for each message that it finds, and most of them stand in its batch once.
#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/PropertyListView.h"

namespace thmp::console {

/// One thread.
class PropertyListJson {
 public:
  /// `list` outlives it. REQUIRES: it was opened within kBatchLimits.
  explicit PropertyListJson(const PropertyListView& list)
      : list_(list), values_(list.objectCount()), keys_(list.objectCount()) {}

  const PropertyListView& list() const { return list_; }

  /// Appends the object on one line, as appendJson() does for its value; what is shared as often as
  /// it is referred to.
  void append(PropertyListView::Object object, fmt::memory_buffer& json);

 private:
  /// What a scalar is in JSON; of a key with the comma before and the colon behind it.
  struct Piece {
    std::uint32_t begin = 0;  // in `pieces_`, which a list of 256 MB cannot make longer
    std::uint32_t size = 0;   // 0 when it was not made
  };

  void appendArray(const PropertyListView::Members& elements, fmt::memory_buffer& json);
  void appendObject(const PropertyListView::Entries& entries, fmt::memory_buffer& json);
  void makeValue(PropertyListView::Object object);
  void makeKey(PropertyListView::Object object);
  Piece pieceFrom(std::size_t begin) const;
  void copy(const Piece& piece, std::size_t skipped, fmt::memory_buffer& json) const;

  const PropertyListView& list_;
  std::vector<Piece> values_;  // by object
  std::vector<Piece> keys_;    // by object
  fmt::memory_buffer pieces_;
  std::string room_;
};

}  // namespace thmp::console
