// SPDX-License-Identifier: Apache-2.0
//
// What queries ask for most, of all messages, in memory: about a hundred bytes a message, from
// which the set of messages that a predicate holds for is worked out without reading one record.
// Made from the records and kept up to date with each commit; the records are the truth.
//
// A row whose attributes do not fit, or that changed where columns only grow, is irregular: its
// record has to be looked at.
//
// Reading on many threads at once, changing on one while none reads; the index has the lock.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/value.h"
#include "host/index/RowSet.h"
#include "host/index/SubjectColumn.h"
#include "host/index/TermColumn.h"
#include "host/index/ValuePool.h"
#include "host/store/attribute_keys.h"

namespace thmp {

/// How an attribute is kept.
enum class ColumnKind : std::uint8_t {
  kShape,       // in the shapes: see isShapeAttribute()
  kNumber,      // as a number a row
  kTerms,       // as distinct texts with their rows
  kSubject,     // folded, as distinct texts
  kIdentifier,  // as a hash a row
  kNone,
};

class Columns {
 public:
  static ColumnKind kindOf(AttributeKey key) noexcept;
  /// One attribute of each column of the kind kTerms.
  static const std::vector<AttributeKey>& termAttributes();

  /// Whether two records, each with its mailbox left aside, have the same in all columns but that
  /// of the shapes.
  static bool areAlike(std::string_view recordA, std::string_view recordB, const ValuePool& pool);

  /// Puts a message in. One that is there already, or that comes after a higher ID, is irregular.
  /// False, and nothing is done, for an ID that no row can have.
  bool put(std::int64_t id, std::int64_t mailbox, std::string_view record, const ValuePool& pool);
  /// Of a message that is there, only the mailbox and the shape have changed.
  void putShape(std::int64_t id, std::int64_t mailbox, std::string_view record);
  void setIrregular(std::int64_t id);
  void remove(std::int64_t id);

  /// The messages of these mailboxes are not in present() and irregular() until the next call.
  void hide(const std::unordered_set<std::int64_t>& mailboxes);

  // Sets of rows. Dead, hidden and irregular ones may be among them.
  /// Of `within`, those whose shape `holds`; it is asked once for each shape among them.
  RowSet rowsOfShapes(const RowSet& within, const ValuePool& pool,
                      const std::function<bool(const ValuePool::Entry& shape)>& holds) const;
  /// The rows for whose number `holds`; it is asked for the few numbers among which nothing changes
  /// between two of `breaks`. REQUIRES: kindOf(key) is kNumber.
  RowSet rowsWithNumber(AttributeKey key, const std::vector<double>& breaks,
                        const std::function<bool(const Value& number)>& holds) const;
  /// REQUIRES: kindOf(key) is kTerms.
  const TermColumn& terms(AttributeKey key) const;
  const SubjectColumn& subjects() const { return subjects_; }
  /// Those whose Message-ID may equal `identifier`, case and diacritics aside; empty for any.
  RowSet rowsWithIdentifier(std::optional<std::string_view> identifier) const;

  /// Gives back memory that was taken for more rows to come.
  void shrink();

  /// All but what is hidden.
  void write(ByteWriter& out) const;
  /// Null when the bytes are no columns.
  static std::unique_ptr<Columns> read(ByteReader& in);

  /// All that are there and not hidden.
  RowSet present() const;
  /// Of present(), those that have to be looked at.
  RowSet irregular() const;
  std::size_t size() const { return count_; }
  std::size_t irregularCount() const { return irregular_.size(); }

 private:
  static constexpr std::size_t kNumberColumns = 6;
  static constexpr std::size_t kTermColumns = 14;
  static constexpr std::int32_t kNoNumber = INT32_MIN;

  class Reading;
  struct Place;
  static bool isInOwnColumn(AttributeKey key) noexcept;
  static const std::array<Place, 256>& places();

  bool contains(std::int64_t id) const;
  void grow(Row row);
  bool setShape(Row row, std::string_view record);
  void setMailbox(Row row, std::int64_t mailbox);
  bool isSound() const;

  RowSet present_;
  RowSet irregular_;
  RowSet hidden_;
  std::size_t count_ = 0;
  Row end_ = 0;  // above every row that has been put in

  std::vector<std::uint32_t> shapes_;        // by row: an ordinal from 1 on, 0 for none
  std::vector<std::uint32_t> shapeNumbers_;  // by ordinal - 1: in the pool
  std::unordered_map<std::uint32_t, std::uint32_t> shapeOrdinals_;

  std::vector<std::uint32_t> mailboxes_;      // by row: an ordinal from 1 on
  std::vector<std::int64_t> mailboxNumbers_;  // by ordinal - 1
  std::unordered_map<std::int64_t, std::uint32_t> mailboxOrdinals_;
  std::unordered_set<std::int64_t> hiddenMailboxes_;

  std::array<std::vector<std::int32_t>, kNumberColumns> numbers_;  // by row
  std::array<TermColumn, kTermColumns> terms_;
  std::vector<std::uint32_t> identifiers_;  // by row: a hash, 0 for none

  SubjectColumn subjects_;
};

}  // namespace thmp
