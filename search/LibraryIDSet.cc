// SPDX-License-Identifier: Apache-2.0
#include "search/LibraryIDSet.h"

namespace thmp {

namespace {

std::int64_t wordOf(std::int64_t libraryID) { return libraryID >> 6; }
std::uint64_t bitOf(std::int64_t libraryID) { return std::uint64_t{1} << (libraryID & 63); }

}  // namespace

bool LibraryIDSet::insert(std::int64_t libraryID) {
  std::uint64_t& word = words_[wordOf(libraryID)];
  if ((word & bitOf(libraryID)) != 0) return false;
  word |= bitOf(libraryID);
  ++size_;
  return true;
}

bool LibraryIDSet::contains(std::int64_t libraryID) const {
  const auto word = words_.find(wordOf(libraryID));
  return word != words_.end() && (word->second & bitOf(libraryID)) != 0;
}

}  // namespace thmp
