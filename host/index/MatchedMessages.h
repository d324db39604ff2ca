// SPDX-License-Identifier: Apache-2.0
//
// Messages that a query has found, by descending ID. Their records are read when somebody first
// asks for one, so that the first of many can be shown before the last is read; all are of one
// state of the index. The index outlives them. Any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/mutex.h"
#include "base/result.h"
#include "base/value.h"
#include "host/index/ChunkReader.h"
#include "host/index/Index.h"
#include "host/index/RowSet.h"

namespace thmp {

class Index::MatchedMessages {
 public:
  /// Those of `rows`, which are in descending order. Reads the first of them, ChunkReader::kChunk.
  MatchedMessages(const Index& index, std::vector<Row> rows);
  /// One that has been read.
  explicit MatchedMessages(IndexedMessage message);
  MatchedMessages(const MatchedMessages&) = delete;
  MatchedMessages& operator=(const MatchedMessages&) = delete;

  std::size_t size() const noexcept { return messages_.size(); }
  std::int64_t id(std::size_t place) const {
    return rows_.empty() ? messages_[place].id() : std::int64_t{rows_[place]};
  }

  /// Null for one that cannot be read, or was gone or hidden when the first was read. Valid as long
  /// as this object.
  const IndexedMessage* at(std::size_t place) {
    if (place >= read_.load(std::memory_order_acquire)) readTo(place);
    return isThere(place) ? &messages_[place] : nullptr;
  }
  /// Whether at() is known to be null. Reads nothing.
  bool isLost(std::size_t place) const {
    return place < read_.load(std::memory_order_acquire) && !isThere(place);
  }

  /// Reads what has not been read, for somebody who keeps them, and lets go of the index.
  void readRest();
  /// An error when some could not be read.
  Result<void> result();

 private:
  bool isThere(std::size_t place) const { return messages_[place].id() != 0; }
  void readTo(std::size_t place);
  void readChunk() THMP_REQUIRES(mutex_);

  const std::vector<Row> rows_;           // none when all have been read before
  std::vector<IndexedMessage> messages_;  // by place
  std::atomic<std::size_t> read_;         // how many of them, from the first on
  Mutex mutex_;
  std::unique_ptr<ChunkReader> reader_ THMP_GUARDED_BY(mutex_);
  Result<void> result_ THMP_GUARDED_BY(mutex_);
};

/// Those of `entries` that the message at a place has, made when they are asked for; none when it
/// is not there.
Dictionary attributesOf(std::shared_ptr<Index::MatchedMessages> messages, std::size_t place,
                        std::shared_ptr<const RecordEntries> entries);

}  // namespace thmp
