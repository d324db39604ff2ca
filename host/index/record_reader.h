// SPDX-License-Identifier: Apache-2.0
//
// The bytes of a record, read: for the code of this folder. message_record.h says what stands in
// one. Whatever the bytes are, reading them is safe.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/value.h"
#include "host/index/ValuePool.h"
#include "host/store/attribute_keys.h"

namespace thmp {

namespace record_format {

enum Tag : std::uint8_t {
  kFalse = 1,
  kTrue,
  kInteger,
  kUnsigned,
  kReal,
  kWholeDate,
  kDate,
  kData,
  kText,
  kArray,
  kDictionary,
  kSameAs,     // the attribute with this key, stored before
  kPooled,     // this number of the pool
  kEarlier,    // the text that stands at this place of the record
  kAngled,     // that text between < and >
  kMessageUrl  // the link to the message of which that text is the Message-ID
};

inline constexpr std::size_t kRecordChecksumSize = 4;
inline constexpr int kMostDepth = 8;

/// A length is written after what it counts, so room for it is kept: one byte, or for a long value
/// this mark and three.
inline constexpr std::uint8_t kLongMark = 0xFF;

/// More than all numbers of keys.
inline constexpr std::size_t kKeys = 256;
/// Those that the attribute table has.
inline constexpr std::array<bool, kKeys> kKnownKeys = [] {
  std::array<bool, kKeys> known{};
  for (std::size_t number = 0; number < kKeys; ++number) {
    known[number] = number < static_cast<std::size_t>(AttributeKey::kFetchedCount) ||
                    (number > static_cast<std::size_t>(AttributeKey::kBeforeQueryOnly) &&
                     number < static_cast<std::size_t>(AttributeKey::kEnd));
  }
  return known;
}();
inline bool isKnownKey(std::uint8_t number) { return kKnownKeys[number]; }

/// The place of each key in the order of the names, in which dictionaries and records are.
inline constexpr std::array<std::uint16_t, kKeys> kNameRanks = [] {
  std::array<std::string_view, kKeys> names{};
#define THMP_STORED(number, key, name, ...) names[number] = name;
#define THMP_QUERY_ONLY(number, key, name, ...) names[number] = name;
#define THMP_ABSENT(...)
#include "host/query/attribute_table.def"
  std::array<std::uint16_t, kKeys> ranks{};
  for (std::size_t key = 0; key < kKeys; ++key) {
    for (std::size_t other = 0; other < kKeys && kKnownKeys[key]; ++other) {
      if (kKnownKeys[other] && names[other] < names[key]) ++ranks[key];
    }
  }
  return ranks;
}();
inline std::uint16_t rankOf(AttributeKey key) { return kNameRanks[static_cast<std::size_t>(key)]; }

}  // namespace record_format

/// Reads values, from a record or from one value by itself.
class RecordReader {
 public:
  /// Of the bytes from `at` up to but without `end`; what stands before may be referred to.
  RecordReader(std::string_view whole, std::size_t at, std::size_t end, const ValuePool* pool)
      : whole_(whole.data()), at_(whole.data() + at), end_(whole.data() + end), pool_(pool) {}

  /// False after something that is not well formed; what is read from then on means nothing.
  bool ok() const { return ok_; }
  bool atEnd() const { return at_ == end_; }
  std::size_t place() const { return static_cast<std::size_t>(at_ - whole_); }
  void goTo(std::size_t place) { at_ = whole_ + place; }

  std::uint8_t byte() { return need(1) ? static_cast<std::uint8_t>(*at_++) : std::uint8_t{0}; }
  std::uint64_t number() {
    std::uint64_t value = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
      const std::uint8_t next = byte();
      value |= static_cast<std::uint64_t>(next & 0x7F) << shift;
      if ((next & 0x80) == 0) return value;
    }
    ok_ = false;
    return 0;
  }

  // Of the value that comes next:
  /// Its tag; 0 at the end.
  std::uint8_t tag() const {
    return at_ == end_ ? std::uint8_t{0} : static_cast<std::uint8_t>(*at_);
  }
  /// Whether it is a text in one of its forms, but for a pooled one.
  bool isText() const;

  // Each reads it. With another tag than these are for, it is not well formed.
  Value value(int depth = 0);
  /// Without making it. A text must stand there itself.
  void skipValue(int depth);
  /// Valid as long as the record, or until the next text is read.
  std::string_view text();
  /// Where the text stands that kEarlier refers to.
  std::size_t earlierPlace() {
    byte();
    return static_cast<std::size_t>(number());
  }
  /// A number that the pool has.
  std::optional<std::uint32_t> pooled();
  /// How many elements follow, after an array's or dictionary's tag; of a dictionary each is a key
  /// and a value. Each takes a byte at least, so a count that cannot be is found before it is
  /// believed.
  std::size_t count(int depth);

 private:
  bool need(std::uint64_t size) {
    if (size > static_cast<std::uint64_t>(end_ - at_)) {
      ok_ = false;
      at_ = end_;
    }
    return ok_;
  }

  std::int64_t signedNumber() {
    const std::uint64_t zigzag = number();
    return static_cast<std::int64_t>(zigzag >> 1) ^ -static_cast<std::int64_t>(zigzag & 1);
  }
  double real();
  std::string_view bytes();
  std::string_view earlier(std::size_t begin);
  Value array(int depth);
  Value dictionary(int depth);

  const char* const whole_;
  const char* at_;
  const char* const end_;
  const ValuePool* const pool_;
  std::string composed_;
  bool ok_ = true;
};

/// Walks the attributes of a record that stand in it, without their values.
class RecordWalk {
 public:
  RecordWalk(std::string_view record, const ValuePool& pool)
      : record_(record),
        reader_(record, std::min(record_format::kRecordChecksumSize, record.size()), record.size(),
                &pool) {
    const std::uint64_t shape = reader_.number();
    if (reader_.ok() && shape > 0 && shape <= UINT32_MAX) {
      shape_ = pool.at(static_cast<std::uint32_t>(shape - 1));
    }
    if (shape_ != nullptr && shape_->keys.empty()) shape_ = nullptr;
    end_ = reader_.ok() ? reader_.place() : record.size();
  }

  const ValuePool::Entry* shape() const { return shape_; }
  Dictionary shapeAttributes() const {
    return shape_ == nullptr ? Dictionary() : *shape_->value.asDictionary();
  }

  /// To the next attribute with a known key; false at the end.
  bool next() {
    do {
      // Its key, the length of its value, and that.
      std::size_t at = end_;
      if (record_.size() - at < 2) return false;
      key_ = static_cast<std::uint8_t>(record_[at]);
      std::size_t size = static_cast<std::uint8_t>(record_[at + 1]);
      at += 2;
      if (size == record_format::kLongMark) {
        if (record_.size() - at < 3) return false;
        size = 0;
        for (std::size_t i = 0; i < 3; ++i) {
          size |= std::size_t{static_cast<std::uint8_t>(record_[at++])} << (8 * i);
        }
      }
      if (record_.size() - at < size) return false;
      begin_ = at;
      end_ = at + size;
    } while (!record_format::isKnownKey(key_));
    return true;
  }

  AttributeKey key() const { return static_cast<AttributeKey>(key_); }
  /// Where the value begins.
  std::size_t begin() const { return begin_; }

  /// The value; where it is that of another attribute, of which the number is given, `earlier` is
  /// asked for it. Null when it is not well formed.
  template <typename Earlier>
  Value value(const Earlier& earlier) {
    reader_.goTo(begin_);
    Value found;
    if (reader_.tag() == record_format::kSameAs) {
      reader_.byte();
      found = earlier(reader_.byte());
    } else {
      found = reader_.value();
    }
    return reader_.ok() && reader_.place() == end_ ? found : Value();
  }

 private:
  const std::string_view record_;
  RecordReader reader_;
  const ValuePool::Entry* shape_ = nullptr;
  std::uint8_t key_ = 0;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace thmp
