// SPDX-License-Identifier: Apache-2.0
//
// A set of library IDs. Those of one search lie close together, so each 64 neighbours share one
// word: all of a million messages take some 600 kB. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

namespace thmp {

class LibraryIDSet {
 public:
  /// Whether it is new.
  bool insert(std::int64_t libraryID);
  bool contains(std::int64_t libraryID) const;
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

 private:
  std::unordered_map<std::int64_t, std::uint64_t> words_;  // by the ID without its lowest six bits
  std::size_t size_ = 0;
};

}  // namespace thmp
