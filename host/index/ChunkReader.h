// SPDX-License-Identifier: Apache-2.0
//
// Reads messages of the index a chunk at a time, so that no statement is open while somebody looks
// at them: for the code of this folder. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <unordered_set>
#include <vector>

#include "base/result.h"
#include "host/index/Index.h"
#include "host/index/RowSet.h"
#include "host/store/sqlite_connection.h"

namespace thmp {

class Index::ChunkReader {
 public:
  /// `kOneState`: all that is read is of the state that the index has at the first read, and until
  /// the reader goes it keeps a connection.
  enum class Sees : bool { kEachCommit, kOneState };

  /// The index outlives it.
  explicit ChunkReader(const Index& index, Sees sees = Sees::kEachCommit);

  /// What is read in one go, where somebody reads all.
  static constexpr std::size_t kChunk = 256;

  /// What was read last, hidden and damaged ones included.
  const std::vector<IndexedMessage>& chunk() const { return chunk_; }
  /// The others, in the same order.
  std::vector<IndexedMessage> takeVisible();

  /// The next messages below `below`, at most kChunk.
  Result<void> readBelow(std::int64_t below);
  Result<void> readOne(std::int64_t id);
  /// Those of `rows`, which are in descending order, that are there.
  Result<void> readRows(std::span<const Row> rows);

 private:
  /// SQLite locks the file for a statement outside of a transaction, which costs as much as a
  /// record.
  struct Session {
    explicit Session(ReadPool::Lease lease) : reader(std::move(lease)), together(*reader) {}
    ReadPool::Lease reader;
    ReadTransaction together;
  };

  template <typename Read>
  Result<void> read(const Read& readAll);
  template <typename Wanted>
  bool takeAll(Statement& row, const Wanted& isWanted);
  bool takeAll(Statement& row);
  bool readRange(Connection& reader, std::span<const Row> rows);

  const Index& index_;
  const Sees sees_;
  // Those of when the session began.
  std::shared_ptr<ValuePool> pool_;
  std::shared_ptr<const std::unordered_set<std::int64_t>> hidden_;
  std::vector<IndexedMessage> chunk_;
  std::optional<Session> session_;
};

}  // namespace thmp
