// SPDX-License-Identifier: Apache-2.0
//
// The tables of the search index, and what is written to them; Index puts it together.
//
//   files       what is remembered of each message's file, and a mark for its words
//   records     the attributes: message_record.h
//   pool        values that many records share: ValuePool.h
//   words       the words, by place: WordTable.h
//   stale       IDs under which `words` has what the message no longer says, or one that is gone
//   incomplete  why a message was not read whole
//   failed      files that could not be opened, by the place they were found from
//   stamps      how a mailbox's folders looked when all of it had been put in
//   later       which messages have changed since the columns were kept: columns_file.h
//   marks       numbers by name: when an update last came to its end, the token of the kept columns
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "base/result.h"
#include "host/index/ValuePool.h"
#include "host/index/WordTable.h"
#include "host/index/index_types.h"
#include "host/store/sqlite_connection.h"

namespace thmp {

/// Opens the index in the file at `path` for writing; makes it when it is missing, and anew when it
/// is damaged or of another version.
struct OpenedTables {
  std::unique_ptr<Connection> writer;
  IndexLoss loss = IndexLoss::kNone;
};
Result<OpenedTables> openIndexTables(const std::string& path);

/// Whether a reader finds tables of this version.
bool areIndexTables(Connection& reader);

/// Gives the files at `path` another name, or takes them away.
void setIndexAside(const std::string& path);
void removeIndexFiles(const std::string& path);

bool isDamage(int sqliteCode);

/// The numbers in `marks`. 0 for one that is not there.
namespace marks {
inline constexpr std::string_view kLastUpdate = "lastUpdate";
inline constexpr std::string_view kColumns = "columns";
}  // namespace marks
std::int64_t readMark(Connection& connection, std::string_view name);
bool setMark(Connection& writer, std::string_view name, std::int64_t value);

/// What one commit means for those who keep the index in memory.
struct RowChange {
  enum class Kind : std::uint8_t { kPut, kPutShape, kRemove };
  Kind kind = Kind::kPut;
  std::int64_t id = 0;
  std::int64_t mailbox = 0;
  std::string record;
  bool isStale = false;
};

struct IndexChanges {
  IndexChange told;
  std::vector<RowChange> rows;
};

/// The words of a message as the table takes them.
MessageWords wordsOf(const IndexEntry& entry);

// Each within a transaction. False when it could not be written.
/// REQUIRES: no two of one ID.
bool putEntries(Connection& writer, std::span<const IndexEntry> entries, ValuePool& pool,
                IndexChanges& changes);
bool removeEntry(Connection& writer, std::int64_t id, IndexChanges& changes);
/// Writes down which messages changed.
bool putLater(Connection& writer, const IndexChanges& changes);

}  // namespace thmp
