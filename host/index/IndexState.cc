// SPDX-License-Identifier: Apache-2.0
#include "host/index/IndexState.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <random>

#include "host/index/message_record.h"

namespace thmp {

namespace {

// As many as these that have to be looked at one by one are no burden.
constexpr std::size_t kFewIrregular = 1'000;

// A number that no other file of columns has.
std::int64_t newToken() {
  std::random_device device;
  std::uniform_int_distribution<std::int64_t> any(1, INT64_MAX);
  return any(device);
}

// Changed messages that are no burden, neither to queries nor to the next start.
std::size_t few(const Columns* columns) {
  return (columns == nullptr ? 0 : columns->size() / 50) + kFewIrregular;
}

bool setStale(Connection& reader, Columns& made) {
  Statement& stale = reader.statement("SELECT id FROM stale");
  while (stale.row()) made.setIrregular(stale.integer(0));
  return stale.result() == SQLITE_DONE;
}

}  // namespace

Index::State::State(std::string file, Access access_)
    : path(std::move(file)), access(access_), readers(path, prepareWordTable), pool(newPool()) {}

std::shared_ptr<ValuePool> Index::State::newPool() const {
  return std::make_shared<ValuePool>(access == Access::kReadWrite ? ValuePool::Use::kWriting
                                                                  : ValuePool::Use::kReading);
}

std::shared_ptr<ValuePool> Index::State::poolNow() const {
  const SharedLock lock(viewing);
  return pool;
}

std::shared_ptr<const std::unordered_set<std::int64_t>> Index::State::hiddenNow() {
  const Lock lock(hiding);
  return hidden;
}

std::uint64_t Index::State::inodeAtPath() const noexcept {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

bool Index::State::isFileThere() const noexcept {
  return access == Access::kReadOnly || inodeAtPath() == inode.load();
}

Result<void> Index::State::openWriter() {
  auto tables = openIndexTables(path);
  if (!tables) return tables.error();
  writer = std::move(tables->writer);
  inode.store(inodeAtPath());
  keptToken = readMark(*writer, marks::kColumns);
  isKept = false;
  noteLoss(tables->loss);
  return {};
}

void Index::State::noteLoss(IndexLoss found) {
  IndexLoss none = IndexLoss::kNone;
  loss.compare_exchange_strong(none, found);
}

void Index::State::noteResult(int code) const {
  if (isDamage(code)) damaged.store(true);
}

Error Index::State::failure(Connection& connection) const {
  noteResult(sqlite3_errcode(connection.handle()));
  return connection.error("cannot use the search index " + path);
}

Error Index::State::unreadable() const {
  return Error::posix(EIO, "cannot read the search index " + path);
}

bool Index::State::followPool(Connection& reader, ValuePool& values) const {
  if (access == Access::kReadWrite) return true;
  const ExclusiveLock lock(viewing);
  return values.load(reader);
}

void Index::State::enqueue(IndexChange change) {
  if (change.added.empty() && change.changed.empty() && change.removed.empty()) return;
  for (auto* list : {&change.added, &change.changed, &change.removed}) {
    std::sort(list->begin(), list->end());
  }
  const Lock lock(telling);
  untold.push_back(std::move(change));
}

void Index::State::tell() noexcept {
  while (true) {
    IndexChange change;
    std::vector<std::uint64_t> numbers;
    {
      const Lock lock(telling);
      if (isTelling || untold.empty()) return;
      isTelling = true;
      change = std::move(untold.front());
      untold.pop_front();
      for (const auto& [number, listener] : listeners) numbers.push_back(number);
    }
    for (const std::uint64_t number : numbers) {
      if (const auto listener = find(number)) (*listener)(change);
    }
    const Lock lock(telling);
    isTelling = false;
  }
}

std::shared_ptr<const Index::ChangeListener> Index::State::find(std::uint64_t number) {
  const Lock lock(telling);
  const auto found = listeners.find(number);
  return found == listeners.end() ? nullptr : found->second;
}

void Index::State::drop(ValuePool& values) {
  pending.reset();
  values.end(/*committed=*/false);
  changes = {};
}

void Index::State::publish(const ValuePool& values) {
  const ExclusiveLock lock(viewing);
  if (!columns) return;
  for (const RowChange& row : changes.rows) {
    switch (row.kind) {
      case RowChange::Kind::kPut:
        columns->put(row.id, row.mailbox, row.record, values);
        break;
      case RowChange::Kind::kPutShape:
        columns->putShape(row.id, row.mailbox, row.record);
        break;
      case RowChange::Kind::kRemove:
        columns->remove(row.id);
        break;
    }
    if (row.isStale) columns->setIrregular(row.id);
  }
}

// Of the table of records. Null when it cannot be read to its end.
std::unique_ptr<Columns> Index::State::columnsOfRecords(Connection& reader,
                                                        const ValuePool& values) {
  auto made = std::make_unique<Columns>();
  Statement& row = reader.statement("SELECT id, mailbox, record FROM records ORDER BY id");
  while (row.row()) putRecord(row, values, *made);
  // At once, while the connection still knows what went wrong.
  if (row.result() != SQLITE_DONE) return nullptr;
  return setStale(reader, *made) ? std::move(made) : nullptr;
}

// Of the file, brought up to date with what has changed since. Null when there is no good one.
std::optional<KeptColumns> Index::State::columnsOfFile(Connection& reader,
                                                       const ValuePool& values) {
  const std::int64_t token = readMark(reader, marks::kColumns);
  if (token == 0) return std::nullopt;
  std::optional<KeptColumns> kept = readColumnsFile(columnsPath(path), token);
  if (!kept) return std::nullopt;
  Statement& row = reader.statement(
      "SELECT later.id, records.mailbox, records.record FROM later "
      "LEFT JOIN records ON records.id = later.id ORDER BY later.id");
  while (row.row()) {
    if (row.isNull(2)) {
      kept->columns->remove(row.integer(0));
    } else {
      putRecord(row, values, *kept->columns);
    }
  }
  if (row.result() != SQLITE_DONE || !setStale(reader, *kept->columns)) return std::nullopt;
  return kept;
}

void Index::State::putRecord(const Statement& row, const ValuePool& values, Columns& made) const {
  const std::string_view record = row.bytes(2);
  if (isIntactRecord(record)) {
    made.put(row.integer(0), row.integer(1), record, values);
  } else {
    damaged.store(true);
  }
}

Result<void> Index::State::makeColumns(Source source) {
  const auto reader = readers.borrow();
  if (!reader) return unreadable();
  const ReadTransaction reading(*reader);
  const std::shared_ptr<ValuePool> values = poolNow();
  if (!followPool(*reader, *values)) return failure(*reader);
  std::optional<KeptColumns> made;
  if (source == Source::kFileOrRecords) {
    made = columnsOfFile(*reader, *values);
    isKept = made.has_value();
  }
  if (!made) {
    made = KeptColumns{columnsOfRecords(*reader, *values), 0};
    if (!made->columns) return failure(*reader);
    made->settledIrregular = made->columns->irregularCount();
  }
  made->columns->shrink();
  made->columns->hide(*hiddenNow());
  const ExclusiveLock lock(viewing);
  settledIrregular = made->settledIrregular;
  columns = std::move(made->columns);
  return {};
}

bool Index::State::areColumnsSlow() const {
  const SharedLock lock(viewing);
  return columns && columns->irregularCount() > settledIrregular + few(columns.get());
}

Result<bool> Index::State::areColumnsKept() {
  if (!isKept) isKept = keptToken != 0 && isColumnsFile(columnsPath(path), keptToken);
  if (!isKept) return false;
  Statement& row = writer->statement("SELECT count(*) FROM later");
  if (!row.row()) return failure(*writer);
  const auto later = static_cast<std::size_t>(row.integer(0));
  row.reset();
  const SharedLock lock(viewing);
  return later <= few(columns.get());
}

// The file first, then the token that makes it good.
Result<void> Index::State::keepColumns() {
  const std::int64_t token = newToken();
  std::string body;
  {
    const SharedLock lock(viewing);
    body = columnsFileBody(token, *columns, settledIrregular);
  }
  isKept = writeColumnsFile(columnsPath(path), body);
  cannotKeep = !isKept;
  if (cannotKeep) return {};
  // Whether or not it is committed: from now on changes are written down.
  keptToken = token;
  Transaction transaction(*writer);
  if (!transaction.begun() || !setMark(*writer, marks::kColumns, token) ||
      !writer->execute("DELETE FROM later") || !transaction.commit()) {
    isKept = false;
    return failure(*writer);
  }
  return {};
}

bool Index::State::hasColumns() const {
  const SharedLock lock(viewing);
  return columns != nullptr;
}

Result<void> Index::State::prepareColumns() {
  if (hasColumns()) return {};
  const Lock lock(writing);
  if (hasColumns()) return {};
  return makeColumns(Source::kFileOrRecords);
}

Result<std::optional<Candidates>> Index::State::candidates(const query::Query& query) {
  const auto reader = readers.borrow();
  if (!reader) return unreadable();
  const SharedLock lock(viewing);
  if (!columns) return std::optional<Candidates>();
  Candidates found = findCandidates(query, {*columns, *pool, *reader});
  noteResult(found.failure);
  return std::optional(std::move(found));
}

}  // namespace thmp
