// SPDX-License-Identifier: Apache-2.0
//
// What stands behind an index: its connections, the changes on their way to the file, to the
// columns and to the listeners, and those columns. `writing` is taken before `viewing`, and neither
// while listeners are told.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>

#include "base/mutex.h"
#include "host/index/Columns.h"
#include "host/index/Index.h"
#include "host/index/RecentTexts.h"
#include "host/index/ValuePool.h"
#include "host/index/columns_file.h"
#include "host/index/index_tables.h"
#include "host/index/plan.h"
#include "host/store/sqlite_connection.h"

namespace thmp {

struct Index::State {
  State(std::string file, Access access);

  const std::string path;
  const Access access;
  mutable ReadPool readers;
  mutable std::atomic<bool> damaged{false};
  std::atomic<IndexLoss> loss{IndexLoss::kNone};  // and not told yet
  std::atomic<std::uint64_t> inode{0};            // of the file that is written to
  TextSource textSource;
  mutable RecentTexts recentTexts;

  Mutex writing;
  std::unique_ptr<Connection> writer THMP_GUARDED_BY(writing);
  // What waits for the next commit.
  std::unique_ptr<Transaction> pending THMP_GUARDED_BY(writing);
  IndexChanges changes THMP_GUARDED_BY(writing);
  std::int64_t keptToken THMP_GUARDED_BY(writing) = 0;  // of the columns file; 0 for none
  bool isKept THMP_GUARDED_BY(writing) = false;         // that file has been seen to be good
  bool cannotKeep THMP_GUARDED_BY(writing) = false;

  mutable SharedMutex viewing;
  std::shared_ptr<ValuePool> pool THMP_GUARDED_BY(viewing);
  std::unique_ptr<Columns> columns THMP_GUARDED_BY(viewing);  // null until they are asked for
  std::size_t settledIrregular THMP_GUARDED_BY(viewing) = 0;  // those that there were at first

  Mutex hiding;
  std::shared_ptr<const std::unordered_set<std::int64_t>> hidden THMP_GUARDED_BY(hiding) =
      std::make_shared<std::unordered_set<std::int64_t>>();

  // Changes wait here for one thread at a time to tell them, in the order of their commits.
  Mutex telling;
  std::deque<IndexChange> untold THMP_GUARDED_BY(telling);
  bool isTelling THMP_GUARDED_BY(telling) = false;
  std::map<std::uint64_t, std::shared_ptr<const ChangeListener>> listeners THMP_GUARDED_BY(telling);
  std::uint64_t lastListener THMP_GUARDED_BY(telling) = 0;

  std::shared_ptr<ValuePool> newPool() const;
  std::shared_ptr<ValuePool> poolNow() const;
  std::shared_ptr<const std::unordered_set<std::int64_t>> hiddenNow();

  /// Whether what stands at the path is what is written to.
  bool isFileThere() const noexcept;
  Result<void> openWriter() THMP_REQUIRES(writing);

  /// The first reason counts: what follows from it is no news.
  void noteLoss(IndexLoss found);
  void noteResult(int code) const;
  Error failure(Connection& connection) const;
  Error unreadable() const;

  /// Another process may write; what its records refer to is there when they are.
  bool followPool(Connection& reader, ValuePool& values) const;

  /// Runs `change`, which says in the IndexChanges what it did, in the transaction that is open.
  /// Once that is committed, readers see it and listeners are told.
  template <typename Change>
  Result<void> write(Commit commit, const Change& change) {
    {
      const Lock lock(writing);
      if (!writer) return Error::posix(EROFS, "the search index is open for reading only");
      const std::shared_ptr<ValuePool> values = poolNow();
      if (!pending) pending = std::make_unique<Transaction>(*writer);
      const bool changed = pending->begun() && change(*writer, *values, changes);
      if (changed && commit == Commit::kWithOthers && changes.rows.size() < kMostPending) return {};
      const bool stored =
          changed && values->store(*writer) && (keptToken == 0 || putLater(*writer, changes));
      if (!stored || !pending->commit()) {
        Error error = failure(*writer);
        drop(*values);
        return error;
      }
      values->end(/*committed=*/true);
      publish(*values);
      pending.reset();
      enqueue(std::move(changes.told));
      changes = {};
    }
    tell();
    return {};
  }

  /// Takes back what was not committed.
  void drop(ValuePool& values) THMP_REQUIRES(writing);

  enum class Source : bool { kFileOrRecords, kRecords };
  /// Columns of what is committed. Nobody in this process commits meanwhile.
  Result<void> makeColumns(Source source) THMP_REQUIRES(writing);
  bool hasColumns() const;
  /// Makes them where there are none.
  Result<void> prepareColumns();
  bool areColumnsSlow() const;
  Result<bool> areColumnsKept() THMP_REQUIRES(writing);
  Result<void> keepColumns() THMP_REQUIRES(writing);

  /// Empty when the columns went away a moment ago.
  Result<std::optional<Candidates>> candidates(const query::Query& query);

  /// Listeners hear of changes in the order of these calls; after a commit the writer is still
  /// locked for it.
  void enqueue(IndexChange change);
  /// On the calling thread, unless another one is at it.
  void tell() noexcept;

 private:
  /// Messages that one transaction takes in while others are to come.
  static constexpr std::size_t kMostPending = 5'000;

  std::uint64_t inodeAtPath() const noexcept;
  std::shared_ptr<const ChangeListener> find(std::uint64_t number);
  void publish(const ValuePool& values) THMP_REQUIRES(writing);
  std::unique_ptr<Columns> columnsOfRecords(Connection& reader, const ValuePool& values);
  std::optional<KeptColumns> columnsOfFile(Connection& reader, const ValuePool& values);
  void putRecord(const Statement& row, const ValuePool& values, Columns& made) const;
};

}  // namespace thmp
