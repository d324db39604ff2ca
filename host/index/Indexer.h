// SPDX-License-Identifier: Apache-2.0
//
// Brings library and index up to date with the mail on disk. Files that have not changed are known
// by size, modification time and inode and are not read; a rename for a flag changes one row. The
// library is always committed before the index names its IDs, so that an interruption anywhere is
// made good by the next update.
//
// Any thread; updates wait for each other. Library and index outlive the indexer.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/result.h"
#include "host/index/Index.h"
#include "host/store/ChangeFeed.h"
#include "host/store/Library.h"
#include "host/store/MessageParser.h"

namespace thmp {

/// What an update saw and did, in message files.
struct Coverage {
  std::uint64_t seen = 0;
  /// Read and put into the index.
  std::uint64_t indexed = 0;
  /// In the index already; a rename alone counts here.
  std::uint64_t unchanged = 0;
  std::uint64_t removed = 0;
  /// Of those seen, not read whole.
  std::uint64_t incomplete = 0;
  /// Of those seen, not opened.
  std::uint64_t failed = 0;
  /// It was stopped before its end.
  bool stopped = false;
};

struct IndexProgress {
  std::uint64_t seen = 0;
  std::uint64_t total = 0;
  /// Messages a second since the update began.
  double rate = 0;
};

struct IndexerOptions {
  ParseLimits limits;
  /// Messages read for one transaction.
  std::size_t batchSize = 500;
  /// Bytes of text held for one transaction, whichever comes first.
  std::size_t batchBytes = std::size_t{32} << 20;
  /// With so many more messages gone than there are, whose words still take up place, an update of
  /// all mail makes the index anew.
  std::uint64_t mostStale = 10'000;
  /// Reads mail only when nobody else needs the processor or the disk, where there is much to read.
  bool isPolite = false;
  /// Told in one line what has happened to the index, on the thread that updates.
  std::function<void(const std::string& line)> tell;
};

class Indexer {
 public:
  using Progress = std::function<void(const IndexProgress& progress)>;

  Indexer(Library& library, Index& index, IndexerOptions options = {});

  /// The mail folders, absolute. Mail of others leaves library and index with the next update().
  void setRoots(std::vector<std::string> roots);

  /// All mail. An error when library or index cannot be written.
  Result<Coverage> update(const Progress& progress = {});
  /// The mail that a change feed told of.
  Result<Coverage> update(const MailChanges& changes);
  /// What update() would do; changes nothing.
  Result<Coverage> count();

  /// Makes a running update, and every later one, end after the message in hand. Any thread, and
  /// safe in a signal handler.
  void stop() noexcept { stopped_.store(true, std::memory_order_relaxed); }

 private:
  class Run;
  Result<Coverage> updateAll(const Progress& progress) THMP_REQUIRES(running_);
  Result<void> makeSound();
  bool isMostlyStale() const;
  void tellOfLoss();

  Library& library_;
  Index& index_;
  const IndexerOptions options_;
  std::atomic<bool> stopped_{false};
  Mutex running_;
  std::vector<std::string> roots_ THMP_GUARDED_BY(running_);
};

}  // namespace thmp
