// SPDX-License-Identifier: Apache-2.0
//
// The attributes of records as entries of dictionaries, given without being made. Records of one
// shape mostly have the same attributes, so what depends on that alone is worked out once.
//
// Any thread.
#pragma once

#include <bitset>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/DictionarySource.h"
#include "base/mutex.h"
#include "host/index/ValuePool.h"
#include "host/store/attribute_keys.h"

namespace thmp {

/// Some of all attributes, by their numbers.
using AttributeSelection = std::bitset<256>;

/// Gives `sink` one value by itself, from the bytes that encodeValue() made of it.
void giveValue(std::string_view bytes, EntrySink& sink);

class RecordEntries {
 public:
  explicit RecordEntries(const AttributeSelection& wanted) : wanted_(wanted) {}
  RecordEntries(const RecordEntries&) = delete;
  RecordEntries& operator=(const RecordEntries&) = delete;

  const AttributeSelection& wanted() const { return wanted_; }

  /// How many kinds of records have been met; each takes some kilobytes.
  std::size_t layoutCount() const;

  /// Gives `sink` those that are wanted and that the record has, and `identifier`, which no record
  /// has by itself, as kExternalID when that is wanted. This object, the pool and the record
  /// outlive what `sink` makes of them.
  void give(std::string_view record, const ValuePool& pool, std::string_view identifier,
            EntrySink& sink) const;

 private:
  struct Layout {
    const ValuePool::Entry* shape;
    /// The keys of the attributes that stand in the record itself, a byte each.
    std::string own;
    EntryLayout entries;
    std::vector<bool> isGiven;                // by place in `own`
    std::size_t identifierBefore = SIZE_MAX;  // likewise; SIZE_MAX when it is not wanted
  };

  const Layout& layoutOf(const ValuePool::Entry* shape, std::string_view keys) const;
  Layout makeLayout(const ValuePool::Entry* shape, std::string_view keys) const;

  const AttributeSelection wanted_;
  mutable Mutex mutex_;
  mutable std::unordered_multimap<std::uint64_t, std::unique_ptr<const Layout>> layouts_
      THMP_GUARDED_BY(mutex_);  // by a hash of shape and keys
};

}  // namespace thmp
