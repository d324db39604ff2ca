// SPDX-License-Identifier: Apache-2.0
//
// Makes a dictionary in one allocation, with its texts: for those that are made by the thousand,
// written once and freed. Values of one other dictionary, the lender, can be taken over without
// counting each: the new dictionary holds the lender as a whole. The result is a dictionary like
// any other; who changes a copy of it gets one with entries of its own.
//
// One thread.
#pragma once

#include <cstddef>
#include <string_view>

#include "base/value.h"

namespace thmp {

class DictionaryBuilder {
 public:
  /// The most entries that one can have room for.
  static constexpr std::size_t kMostEntries = 128;

  /// Room for so many entries, at most kMostEntries, and for texts of `textBytes` bytes together,
  /// their heads of some 20 bytes each included. Holds `lender`. Throws std::bad_alloc, as text()
  /// and append() may.
  DictionaryBuilder(std::size_t entries, std::size_t textBytes, const Dictionary& lender);
  ~DictionaryBuilder();
  DictionaryBuilder(const DictionaryBuilder&) = delete;
  DictionaryBuilder& operator=(const DictionaryBuilder&) = delete;

  /// A text in the dictionary's own memory, or by itself where there is no room. No value that
  /// the dictionary holds may hold it in turn, such as an array: neither would ever be freed.
  Value text(std::string_view bytes);

  /// Of the entries so far; 0 and null once it is finished.
  std::size_t size() const noexcept;
  const Dictionary::Entry* begin() const noexcept;

  /// REQUIRES: there is room, the key comes after all others, and the value is not null.
  void append(const Text& key, Value value);
  /// The same for an entry of the lender's.
  void appendLent(const Dictionary::Entry& lent);

  /// The dictionary; there is no room for more afterwards.
  Dictionary finish() noexcept;

 private:
  bool isOwn(const value_internal::Node* node) const noexcept;

  value_internal::Node* node_;  // null when finished
  std::size_t used_;            // bytes from the node on
  std::size_t allocated_;
};

}  // namespace thmp
