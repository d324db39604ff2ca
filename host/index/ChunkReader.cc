// SPDX-License-Identifier: Apache-2.0
#include "host/index/ChunkReader.h"

#include <algorithm>
#include <utility>

#include "host/index/IndexState.h"
#include "host/index/message_record.h"

namespace thmp {

Index::ChunkReader::ChunkReader(const Index& index, Sees sees) : index_(index), sees_(sees) {}

Result<void> Index::ChunkReader::readBelow(std::int64_t below) {
  return read([&](Connection& reader) {
    Statement& row = reader.statement(
        "SELECT id, mailbox, record FROM records WHERE id < ? ORDER BY id DESC LIMIT ?");
    row.bind(1, below).bind(2, static_cast<std::int64_t>(kChunk));
    return takeAll(row);
  });
}

Result<void> Index::ChunkReader::readOne(std::int64_t id) {
  return read([&](Connection& reader) {
    Statement& row = reader.statement("SELECT id, mailbox, record FROM records WHERE id = ?");
    row.bind(1, id);
    return takeAll(row);
  });
}

Result<void> Index::ChunkReader::readRows(std::span<const Row> rows) {
  if (rows.empty()) return {};
  return read([&](Connection& reader) {
    if (areClose(rows.back(), rows.front(), rows.size())) return readRange(reader, rows);
    Statement& row = reader.statement("SELECT id, mailbox, record FROM records WHERE id = ?");
    return std::all_of(rows.begin(), rows.end(), [&](Row wanted) {
      row.bind(1, std::int64_t{wanted});
      return takeAll(row);
    });
  });
}

std::vector<IndexedMessage> Index::ChunkReader::takeVisible() {
  std::erase_if(chunk_, [&](const IndexedMessage& message) {
    if (hidden_->contains(message.mailbox_)) return true;
    if (isIntactRecord(message.record_)) return false;
    index_.state_->damaged.store(true);
    return true;
  });
  return std::exchange(chunk_, {});
}

template <typename Read>
Result<void> Index::ChunkReader::read(const Read& readAll) {
  State& state = *index_.state_;
  chunk_.clear();
  if (!session_) {
    ReadPool::Lease reader = state.readers.borrow();
    if (!reader) return state.unreadable();
    session_.emplace(std::move(reader));
    // While a connection is lent the index is not made anew, so the pool is that of its records.
    pool_ = state.poolNow();
    hidden_ = state.hiddenNow();
  }
  Connection& reader = *session_->reader;
  Result<void> result;
  if (!readAll(reader) || !state.followPool(reader, *pool_)) result = state.failure(reader);
  if (sees_ == Sees::kEachCommit) session_.reset();
  return result;
}

bool Index::ChunkReader::readRange(Connection& reader, std::span<const Row> rows) {
  Statement& row = reader.statement(
      "SELECT id, mailbox, record FROM records WHERE id BETWEEN ? AND ? ORDER BY id DESC");
  row.bind(1, std::int64_t{rows.back()}).bind(2, std::int64_t{rows.front()});
  auto wanted = rows.begin();
  return takeAll(row, [&](std::int64_t id) {
    while (wanted != rows.end() && *wanted > id) ++wanted;
    return wanted != rows.end() && *wanted == id;
  });
}

bool Index::ChunkReader::takeAll(Statement& row) {
  return takeAll(row, [](std::int64_t) { return true; });
}

template <typename Wanted>
bool Index::ChunkReader::takeAll(Statement& row, const Wanted& isWanted) {
  while (row.row()) {
    if (!isWanted(row.integer(0))) continue;
    IndexedMessage& message = chunk_.emplace_back();
    message.id_ = row.integer(0);
    message.mailbox_ = row.integer(1);
    message.record_ = row.bytes(2);
    message.pool_ = pool_;
    message.index_ = &index_;
  }
  const bool readAll = row.result() == SQLITE_DONE;
  row.reset();
  return readAll;
}

}  // namespace thmp
