// SPDX-License-Identifier: Apache-2.0
#include "host/index/Index.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <deque>
#include <iterator>
#include <map>
#include <random>
#include <unordered_set>
#include <utility>

#include "base/mutex.h"
#include "host/index/Columns.h"
#include "host/index/ValuePool.h"
#include "host/index/columns_file.h"
#include "host/index/index_tables.h"
#include "host/index/message_record.h"
#include "host/index/message_view.h"
#include "host/index/plan.h"
#include "host/query/evaluator.h"
#include "host/store/sqlite_connection.h"

namespace thmp {

namespace {

constexpr std::size_t kChunk = 256;

// Messages that one transaction takes in while others are to come.
constexpr std::size_t kMostPending = 5'000;

// As many as these that have to be looked at one by one are no burden.
constexpr std::size_t kFewIrregular = 1'000;

Error unreadable(const std::string& path) {
  return Error::posix(EIO, "cannot read the search index " + path);
}

// A file that is mapped would stay in memory page by page, and most of it is not asked for again;
// reading a page costs little beside what is made of it. So would the pages that each reader keeps.
bool prepareReader(Connection& reader) {
  return reader.execute(kMapNothing) && reader.execute("PRAGMA cache_size = -512") &&
         prepareWordTable(reader);
}

// A number that no other file of columns has.
std::int64_t newToken() {
  std::random_device device;
  std::uniform_int_distribution<std::int64_t> any(1, INT64_MAX);
  return any(device);
}

// All that is read until it ends is of one state of the database.
class ReadTransaction {
 public:
  explicit ReadTransaction(Connection& connection) : connection_(connection) {
    static_cast<void>(connection_.execute("BEGIN"));
  }
  ~ReadTransaction() { static_cast<void>(connection_.execute("COMMIT")); }
  ReadTransaction(const ReadTransaction&) = delete;
  ReadTransaction& operator=(const ReadTransaction&) = delete;

 private:
  Connection& connection_;
};

// Texts of messages that came a moment ago: every live query that looks at texts asks for them.
class RecentTexts {
 public:
  void put(std::int64_t id, std::string text) {
    const Lock lock(mutex_);
    std::erase_if(texts_, [id](const Kept& one) { return one.id == id; });
    bytes_ = text.size();
    for (const Kept& one : texts_) bytes_ += one.text.size();
    texts_.push_back({id, std::move(text)});
    while (texts_.size() > kMostTexts || (bytes_ > kMostBytes && !texts_.empty())) {
      bytes_ -= texts_.front().text.size();
      texts_.pop_front();
    }
  }

  void forget(std::int64_t id) {
    const Lock lock(mutex_);
    std::erase_if(texts_, [id](const Kept& one) { return one.id == id; });
  }

  std::optional<std::string> find(std::int64_t id) const {
    const Lock lock(mutex_);
    for (const Kept& one : texts_) {
      if (one.id == id) return one.text;
    }
    return std::nullopt;
  }

 private:
  static constexpr std::size_t kMostTexts = 64;
  static constexpr std::size_t kMostBytes = std::size_t{4} << 20;
  struct Kept {
    std::int64_t id;
    std::string text;
  };

  mutable Mutex mutex_;
  std::deque<Kept> texts_ THMP_GUARDED_BY(mutex_);
  std::size_t bytes_ THMP_GUARDED_BY(mutex_) = 0;
};

}  // namespace

struct Index::State {
  State(std::string file, Access access_)
      : path(std::move(file)), access(access_), readers(path, prepareReader), pool(newPool()) {}

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

  std::shared_ptr<ValuePool> newPool() const {
    return std::make_shared<ValuePool>(access == Access::kReadWrite ? ValuePool::Use::kWriting
                                                                    : ValuePool::Use::kReading);
  }

  std::shared_ptr<ValuePool> poolNow() const {
    const SharedLock lock(viewing);
    return pool;
  }

  std::shared_ptr<const std::unordered_set<std::int64_t>> hiddenNow() {
    const Lock lock(hiding);
    return hidden;
  }

  std::uint64_t inodeAtPath() const noexcept {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
  }

  bool isFileThere() const noexcept {
    return access == Access::kReadOnly || inodeAtPath() == inode.load();
  }

  Result<void> openWriter() THMP_REQUIRES(writing) {
    auto tables = openIndexTables(path);
    if (!tables) return tables.error();
    writer = std::move(tables->writer);
    inode.store(inodeAtPath());
    keptToken = readMark(*writer, marks::kColumns);
    isKept = false;
    noteLoss(tables->loss);
    return {};
  }

  // The first reason counts: what follows from it is no news.
  void noteLoss(IndexLoss found) {
    IndexLoss none = IndexLoss::kNone;
    loss.compare_exchange_strong(none, found);
  }

  void noteResult(int code) const {
    if (isDamage(code)) damaged.store(true);
  }

  Error failure(Connection& connection) const {
    noteResult(sqlite3_errcode(connection.handle()));
    return connection.error("cannot use the search index " + path);
  }

  // Another process may write; what its records refer to is there when they are.
  bool followPool(Connection& reader, ValuePool& values) const {
    if (access == Access::kReadWrite) return true;
    const ExclusiveLock lock(viewing);
    return values.load(reader);
  }

  // Called with the writer's lock held, so that the order is that of the commits.
  void enqueue(IndexChange change) {
    if (change.added.empty() && change.changed.empty() && change.removed.empty()) return;
    for (auto* list : {&change.added, &change.changed, &change.removed}) {
      std::sort(list->begin(), list->end());
    }
    const Lock lock(telling);
    untold.push_back(std::move(change));
  }

  void tell() noexcept {
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

  std::shared_ptr<const ChangeListener> find(std::uint64_t number) {
    const Lock lock(telling);
    const auto found = listeners.find(number);
    return found == listeners.end() ? nullptr : found->second;
  }

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

  void drop(ValuePool& values) THMP_REQUIRES(writing) {
    pending.reset();
    values.end(/*committed=*/false);
    changes = {};
  }

  void publish(const ValuePool& values) THMP_REQUIRES(writing) {
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
  std::unique_ptr<Columns> columnsOfRecords(Connection& reader, const ValuePool& values) {
    auto made = std::make_unique<Columns>();
    Statement& row = reader.statement("SELECT id, mailbox, record FROM records ORDER BY id");
    while (row.row()) putRecord(row, values, *made);
    // At once, while the connection still knows what went wrong.
    if (row.result() != SQLITE_DONE) return nullptr;
    return setStale(reader, *made) ? std::move(made) : nullptr;
  }

  // Of the file, brought up to date with what has changed since. Null when there is no good one.
  std::optional<KeptColumns> columnsOfFile(Connection& reader, const ValuePool& values) {
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

  void putRecord(const Statement& row, const ValuePool& values, Columns& made) const {
    const std::string_view record = row.bytes(2);
    if (isIntactRecord(record)) {
      made.put(row.integer(0), row.integer(1), record, values);
    } else {
      damaged.store(true);
    }
  }

  static bool setStale(Connection& reader, Columns& made) {
    Statement& stale = reader.statement("SELECT id FROM stale");
    while (stale.row()) made.setIrregular(stale.integer(0));
    return stale.result() == SQLITE_DONE;
  }

  enum class Source : bool { kFileOrRecords, kRecords };

  // Columns of what is committed. Nobody in this process commits meanwhile.
  Result<void> makeColumns(Source source) THMP_REQUIRES(writing) {
    const auto reader = readers.borrow();
    if (!reader) return unreadable(path);
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

  // Changed messages that are no burden, neither to queries nor to the next start.
  static std::size_t few(const Columns* columns) {
    return (columns == nullptr ? 0 : columns->size() / 50) + kFewIrregular;
  }

  bool areColumnsSlow() const {
    const SharedLock lock(viewing);
    return columns && columns->irregularCount() > settledIrregular + few(columns.get());
  }

  Result<bool> areColumnsKept() THMP_REQUIRES(writing) {
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
  Result<void> keepColumns() THMP_REQUIRES(writing) {
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

  bool hasColumns() const {
    const SharedLock lock(viewing);
    return columns != nullptr;
  }

  Result<void> prepareColumns() {
    if (hasColumns()) return {};
    const Lock lock(writing);
    if (hasColumns()) return {};
    return makeColumns(Source::kFileOrRecords);
  }

  // Empty when the columns went away a moment ago.
  Result<std::optional<Candidates>> candidates(const query::Query& query) {
    const auto reader = readers.borrow();
    if (!reader) return unreadable(path);
    const SharedLock lock(viewing);
    if (!columns) return std::optional<Candidates>();
    Candidates found = findCandidates(query, {*columns, *pool, *reader});
    noteResult(found.failure);
    return std::optional(std::move(found));
  }
};

AttributeSelection selectAttributes(std::span<const std::string> names) {
  AttributeSelection wanted;
  for (const std::string& name : names) {
    const auto key = keyNamed(name);
    if (key && !isQueryOnly(*key)) wanted.set(static_cast<std::size_t>(*key));
  }
  return wanted;
}

Value IndexedMessage::value(std::string_view attribute) const {
  const auto key = keyNamed(attribute);
  return key ? value(*key) : Value();
}

Value IndexedMessage::value(AttributeKey key) const {
  if (key == AttributeKey::kExternalID) return Value(std::to_string(id_));
  if (key != AttributeKey::kTextContent) return recordValue(record_, key, *pool_);
  const std::string text = index_->textContent(id_, mailbox_);
  return text.empty() ? Value() : Value(text);
}

Dictionary IndexedMessage::attributes() const {
  static const AttributeSelection kAll = [] {
    AttributeSelection all;
    for (std::size_t key = 0; key <= static_cast<std::size_t>(AttributeKey::kBeforeQueryOnly);
         ++key) {
      all.set(key);
    }
    return all;
  }();
  return attributes(kAll);
}

Dictionary IndexedMessage::attributes(const AttributeSelection& wanted) const {
  return recordAttributes(record_, *pool_, wanted, Value(std::to_string(id_)));
}

void IndexedMessage::forEachAttribute(
    const std::function<bool(AttributeKey key, const Value& value)>& visit) const {
  if (!visit(AttributeKey::kExternalID, Value(std::to_string(id_)))) return;
  forEachInRecord(record_, *pool_, visit);
}

Index::Index(std::unique_ptr<State> state) : state_(std::move(state)) {}

// The writer goes last: only then is its journal put away.
Index::~Index() { state_->readers.close(); }

Result<std::unique_ptr<Index>> Index::open(const std::string& path, Access access) {
  auto state = std::make_unique<State>(path, access);
  if (access == Access::kReadWrite) {
    Error error;
    if (!makeParentFolders(path, &error)) return error;
    const Lock lock(state->writing);
    // A pool that cannot be read is damage that opening did not meet.
    for (const bool isFirst : {true, false}) {
      if (const Result<void> opened = state->openWriter(); !opened) return opened.error();
      if (state->poolNow()->load(*state->writer)) break;
      if (!isFirst) return state->failure(*state->writer);
      state->writer.reset();
      setIndexAside(path);
      state->noteLoss(IndexLoss::kDamaged);
      const ExclusiveLock viewLock(state->viewing);
      state->pool = state->newPool();
    }
  } else {
    const auto reader = state->readers.borrow();
    if (!reader) return Error::posix(ENOENT, "no search index at " + path);
    if (!areIndexTables(*reader)) return reader->error("cannot use the search index " + path);
  }
  return std::unique_ptr<Index>(new Index(std::move(state)));
}

void Index::setTextSource(TextSource source) { state_->textSource = std::move(source); }

Result<void> Index::prepareColumns() { return state_->prepareColumns(); }

// Reads messages a chunk at a time, so that no statement is open while somebody looks at them.
class Index::ChunkReader {
 public:
  explicit ChunkReader(const Index& index) : index_(index), pool_(index.state_->poolNow()) {}

  std::vector<IndexedMessage>& chunk() { return chunk_; }

  /// The next messages below `below`, at most `most`.
  Result<void> readBelow(std::int64_t below, std::size_t most) {
    return read([&](Connection& reader) {
      Statement& row = reader.statement(
          "SELECT id, mailbox, record FROM records WHERE id < ? ORDER BY id DESC LIMIT ?");
      row.bind(1, below).bind(2, static_cast<std::int64_t>(most));
      return takeAll(row, [](std::int64_t) { return true; });
    });
  }

  Result<void> readOne(std::int64_t id) {
    return read([&](Connection& reader) {
      Statement& row = reader.statement("SELECT id, mailbox, record FROM records WHERE id = ?");
      row.bind(1, id);
      return takeAll(row, [](std::int64_t) { return true; });
    });
  }

  /// Those of `rows`, which are in descending order, that are there.
  Result<void> readRows(const std::vector<Row>& rows) {
    constexpr std::size_t kSpread = 4;
    if (rows.empty()) return {};
    return read([&](Connection& reader) {
      if (rows.front() - rows.back() < kSpread * rows.size()) return readRange(reader, rows);
      Statement& row = reader.statement("SELECT id, mailbox, record FROM records WHERE id = ?");
      return std::all_of(rows.begin(), rows.end(), [&](Row wanted) {
        row.bind(1, std::int64_t{wanted});
        return takeAll(row, [](std::int64_t) { return true; });
      });
    });
  }

 private:
  template <typename Read>
  Result<void> read(const Read& readAll) {
    const State& state = *index_.state_;
    chunk_.clear();
    const auto reader = state.readers.borrow();
    if (!reader) return unreadable(state.path);
    // SQLite locks the file for a statement outside of one, which costs as much as a record.
    const ReadTransaction together(*reader);
    if (!readAll(*reader) || !state.followPool(*reader, *pool_)) return state.failure(*reader);
    return {};
  }

  bool readRange(Connection& reader, const std::vector<Row>& rows) {
    Statement& row = reader.statement(
        "SELECT id, mailbox, record FROM records WHERE id BETWEEN ? AND ? ORDER BY id DESC");
    row.bind(1, std::int64_t{rows.back()}).bind(2, std::int64_t{rows.front()});
    auto wanted = rows.begin();
    return takeAll(row, [&](std::int64_t id) {
      while (wanted != rows.end() && *wanted > id) ++wanted;
      return wanted != rows.end() && *wanted == id;
    });
  }

  template <typename Wanted>
  bool takeAll(Statement& row, const Wanted& isWanted) {
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

  const Index& index_;
  const std::shared_ptr<ValuePool> pool_;
  std::vector<IndexedMessage> chunk_;
};

bool Index::isVisible(const IndexedMessage& message,
                      const std::unordered_set<std::int64_t>& hidden) const {
  if (hidden.contains(message.mailbox_)) return false;
  if (isIntactRecord(message.record_)) return true;
  state_->damaged.store(true);
  return false;
}

Result<void> Index::forEachDescending(
    const std::function<bool(const IndexedMessage& message)>& visit) const {
  ChunkReader reader(*this);
  for (std::int64_t below = INT64_MAX;; below = reader.chunk().back().id()) {
    auto read = reader.readBelow(below, kChunk);
    if (!read || reader.chunk().empty()) return read;
    const auto hidden = state_->hiddenNow();
    for (const IndexedMessage& message : reader.chunk()) {
      if (isVisible(message, *hidden) && !visit(message)) return {};
    }
  }
}

Result<void> Index::forEachMatch(const query::Query& query,
                                 const std::function<bool(IndexedMessage&& message)>& visit) const {
  std::optional<Candidates> candidates;
  while (!candidates) {
    auto prepared = state_->prepareColumns();
    if (!prepared) return prepared;
    auto found = state_->candidates(query);
    if (!found) return found.error();
    candidates = std::move(*found);
  }
  ChunkReader reader(*this);
  std::vector<Row> rows;
  bool goesOn = true;
  const auto visitRows = [&]() -> Result<void> {
    auto read = reader.readRows(rows);
    rows.clear();
    if (!read) return read;
    const auto hidden = state_->hiddenNow();
    for (IndexedMessage& message : reader.chunk()) {
      if (!isVisible(message, *hidden)) continue;
      if (candidates->doubtful.contains(static_cast<Row>(message.id())) &&
          !query::matches(query, IndexedMessageView(message))) {
        continue;
      }
      goesOn = visit(std::move(message));
      if (!goesOn) break;
    }
    return {};
  };
  Result<void> result;
  candidates->rows.forEachDescending([&](Row row) {
    rows.push_back(row);
    if (rows.size() == kChunk) result = visitRows();
    return goesOn && result;
  });
  if (goesOn && result && !rows.empty()) result = visitRows();
  return result;
}

std::optional<IndexedMessage> Index::get(std::int64_t id) const {
  ChunkReader reader(*this);
  const auto read = reader.readOne(id);
  if (!read || reader.chunk().empty()) return std::nullopt;
  const IndexedMessage& message = reader.chunk().front();
  if (!isVisible(message, *state_->hiddenNow())) return std::nullopt;
  return message;
}

bool Index::contains(std::int64_t id) const { return get(id).has_value(); }

std::string Index::textContent(std::int64_t id, std::int64_t mailbox) const {
  if (auto text = state_->recentTexts.find(id)) return std::move(*text);
  return state_->textSource ? state_->textSource(id, mailbox) : std::string();
}

Result<std::uint64_t> Index::count() const {
  const auto reader = state_->readers.borrow();
  if (!reader) return unreadable(state_->path);
  Statement& row = reader->statement("SELECT count(*) FROM files");
  if (!row.row()) return state_->failure(*reader);
  const auto count = static_cast<std::uint64_t>(row.integer(0));
  row.reset();
  return count;
}

Result<std::unordered_map<std::int64_t, IndexedFile>> Index::files(std::int64_t mailbox) const {
  const auto reader = state_->readers.borrow();
  if (!reader) return unreadable(state_->path);
  Statement& row =
      reader->statement("SELECT id, content, place, incomplete FROM files WHERE mailbox = ?");
  row.bind(1, mailbox);
  std::unordered_map<std::int64_t, IndexedFile> files;
  while (row.row()) {
    files.emplace(row.integer(0),
                  IndexedFile{static_cast<std::uint64_t>(row.integer(1)),
                              static_cast<std::uint64_t>(row.integer(2)), row.integer(3) != 0});
  }
  if (row.result() != SQLITE_DONE) return state_->failure(*reader);
  return files;
}

Result<std::optional<IndexedFile>> Index::file(std::int64_t id) const {
  const auto reader = state_->readers.borrow();
  if (!reader) return unreadable(state_->path);
  Statement& row = reader->statement("SELECT content, place, incomplete FROM files WHERE id = ?");
  std::optional<IndexedFile> file;
  if (row.bind(1, id).row()) {
    file = IndexedFile{static_cast<std::uint64_t>(row.integer(0)),
                       static_cast<std::uint64_t>(row.integer(1)), row.integer(2) != 0};
  } else if (row.result() != SQLITE_DONE) {
    return state_->failure(*reader);
  }
  row.reset();
  return file;
}

Result<std::vector<std::int64_t>> Index::mailboxes() const {
  const auto reader = state_->readers.borrow();
  if (!reader) return unreadable(state_->path);
  Statement& row = reader->statement("SELECT DISTINCT mailbox FROM files ORDER BY mailbox");
  std::vector<std::int64_t> all;
  while (row.row()) all.push_back(row.integer(0));
  if (row.result() != SQLITE_DONE) return state_->failure(*reader);
  return all;
}

Result<std::unordered_map<std::int64_t, IndexedMailbox>> Index::mailboxStates() const {
  const auto reader = state_->readers.borrow();
  if (!reader) return unreadable(state_->path);
  std::unordered_map<std::int64_t, IndexedMailbox> states;
  Statement& row = reader->statement(
      "SELECT mailbox, count(*), sum(id), sum(incomplete) FROM files GROUP BY mailbox");
  while (row.row()) {
    IndexedMailbox& mailbox = states[row.integer(0)];
    mailbox.tally = {static_cast<std::uint64_t>(row.integer(1)), row.integer(2)};
    mailbox.incomplete = static_cast<std::uint64_t>(row.integer(3));
  }
  if (row.result() != SQLITE_DONE) return state_->failure(*reader);
  Statement& stamp = reader->statement("SELECT mailbox, stamp FROM stamps");
  while (stamp.row()) states[stamp.integer(0)].stamp = stamp.bytes(1);
  if (stamp.result() != SQLITE_DONE) return state_->failure(*reader);
  return states;
}

Result<std::vector<IncompleteMessage>> Index::incomplete() const {
  const auto reader = state_->readers.borrow();
  if (!reader) return unreadable(state_->path);
  Statement& row = reader->statement("SELECT id, reason FROM incomplete ORDER BY id, reason");
  std::vector<IncompleteMessage> all;
  while (row.row()) all.push_back({row.integer(0), std::string(row.bytes(1))});
  if (row.result() != SQLITE_DONE) return state_->failure(*reader);
  return all;
}

Result<std::vector<UnreadablePath>> Index::failed() const {
  const auto reader = state_->readers.borrow();
  if (!reader) return unreadable(state_->path);
  Statement& row = reader->statement("SELECT DISTINCT path, reason FROM failed ORDER BY path");
  std::vector<UnreadablePath> all;
  while (row.row()) all.push_back({std::string(row.bytes(0)), std::string(row.bytes(1))});
  if (row.result() != SQLITE_DONE) return state_->failure(*reader);
  return all;
}

std::optional<Date> Index::lastUpdate() const {
  const auto reader = state_->readers.borrow();
  const std::int64_t seconds = reader ? readMark(*reader, marks::kLastUpdate) : 0;
  if (seconds == 0) return std::nullopt;
  return Date::fromUnixSeconds(static_cast<double>(seconds));
}

void Index::hideMailboxes(const std::vector<std::int64_t>& mailboxes) {
  auto next =
      std::make_shared<std::unordered_set<std::int64_t>>(mailboxes.begin(), mailboxes.end());
  std::shared_ptr<const std::unordered_set<std::int64_t>> before = next;
  {
    const Lock lock(state_->hiding);
    std::swap(state_->hidden, before);
  }
  {
    const ExclusiveLock lock(state_->viewing);
    if (state_->columns) state_->columns->hide(*next);
  }
  IndexChange shown;
  for (const std::int64_t mailbox : *before) {
    if (next->contains(mailbox)) continue;
    const auto back = files(mailbox);
    if (!back) continue;
    for (const auto& [id, file] : *back) shown.added.push_back(id);
  }
  state_->enqueue(std::move(shown));
  state_->tell();
}

Result<void> Index::put(std::span<const IndexEntry> entries, Commit commit) {
  // Texts of many are not asked for a moment later, or by one who walks them all anyway.
  constexpr std::size_t kFewEntries = 32;
  for (const IndexEntry& entry : entries) {
    if (!entry.textContent) continue;
    if (entries.size() > kFewEntries) {
      state_->recentTexts.forget(entry.id);
    } else {
      state_->recentTexts.put(entry.id, *entry.textContent);
    }
  }
  return state_->write(commit, [&](Connection& writer, ValuePool& pool, IndexChanges& changes) {
    return std::all_of(entries.begin(), entries.end(), [&](const IndexEntry& entry) {
      return putEntry(writer, entry, pool, changes);
    });
  });
}

Result<void> Index::remove(std::span<const std::int64_t> ids) {
  return state_->write(Commit::kNow, [&](Connection& writer, ValuePool&, IndexChanges& changes) {
    return std::all_of(ids.begin(), ids.end(),
                       [&](std::int64_t id) { return removeEntry(writer, id, changes); });
  });
}

Result<void> Index::removeMailbox(std::int64_t mailbox) {
  return state_->write(Commit::kNow, [&](Connection& writer, ValuePool&, IndexChanges& changes) {
    std::vector<std::int64_t> ids;
    Statement& row = writer.statement("SELECT id FROM files WHERE mailbox = ?");
    row.bind(1, mailbox);
    while (row.row()) ids.push_back(row.integer(0));
    const bool isForgotten =
        writer.statement("DELETE FROM stamps WHERE mailbox = ?").bind(1, mailbox).run();
    return isForgotten && row.result() == SQLITE_DONE &&
           std::all_of(ids.begin(), ids.end(),
                       [&](std::int64_t id) { return removeEntry(writer, id, changes); });
  });
}

Result<void> Index::setStamp(std::int64_t mailbox, const std::string& stamp) {
  return state_->write(Commit::kWithOthers, [&](Connection& writer, ValuePool&, IndexChanges&) {
    if (stamp.empty()) {
      return writer.statement("DELETE FROM stamps WHERE mailbox = ?").bind(1, mailbox).run();
    }
    return writer.statement("INSERT OR REPLACE INTO stamps(mailbox, stamp) VALUES(?, ?)")
        .bind(1, mailbox)
        .bindBlob(2, stamp)
        .run();
  });
}

Result<void> Index::setFailed(const std::string& source,
                              const std::vector<UnreadablePath>& failed) {
  return state_->write(Commit::kNow, [&](Connection& writer, ValuePool&, IndexChanges&) {
    bool written = writer.statement("DELETE FROM failed WHERE source = ?").bind(1, source).run();
    for (const UnreadablePath& one : failed) {
      written = written && writer
                               .statement(
                                   "INSERT OR REPLACE INTO failed(source, path, reason) "
                                   "VALUES(?, ?, ?)")
                               .bind(1, source)
                               .bind(2, one.path)
                               .bind(3, one.reason)
                               .run();
    }
    return written;
  });
}

Result<void> Index::keepFailed(const std::vector<std::string>& sources) {
  return state_->write(Commit::kNow, [&](Connection& writer, ValuePool&, IndexChanges&) {
    std::vector<std::string> stale;
    Statement& row = writer.statement("SELECT DISTINCT source FROM failed");
    while (row.row()) {
      std::string source(row.bytes(0));
      if (std::find(sources.begin(), sources.end(), source) == sources.end()) {
        stale.push_back(std::move(source));
      }
    }
    return row.result() == SQLITE_DONE &&
           std::all_of(stale.begin(), stale.end(), [&](const std::string& source) {
             return writer.statement("DELETE FROM failed WHERE source = ?").bind(1, source).run();
           });
  });
}

Result<void> Index::setLastUpdate(Date date) {
  return state_->write(Commit::kNow, [&](Connection& writer, ValuePool&, IndexChanges&) {
    return setMark(writer, marks::kLastUpdate, static_cast<std::int64_t>(date.unixSeconds()));
  });
}

bool Index::isDamaged() const noexcept { return state_->damaged.load() || !state_->isFileThere(); }

IndexLoss Index::takeLoss() noexcept { return state_->loss.exchange(IndexLoss::kNone); }

Result<void> Index::settle() {
  const Lock lock(state_->writing);
  if (!state_->writer || state_->pending) return {};
  if (state_->areColumnsSlow()) {
    if (auto made = state_->makeColumns(State::Source::kRecords); !made) return made;
  }
  state_->writer->releasePages();
  const auto kept = state_->areColumnsKept();
  if (!kept) return kept.error();
  if (*kept || state_->cannotKeep) return {};
  if (!state_->hasColumns()) {
    if (auto made = state_->makeColumns(State::Source::kFileOrRecords); !made) return made;
  }
  return state_->keepColumns();
}

Result<std::uint64_t> Index::staleCount() const {
  const auto reader = state_->readers.borrow();
  if (!reader) return unreadable(state_->path);
  Statement& row = reader->statement("SELECT count(*) FROM stale");
  if (!row.row()) return state_->failure(*reader);
  const auto count = static_cast<std::uint64_t>(row.integer(0));
  row.reset();
  return count;
}

Result<void> Index::makeAnew() {
  const Lock lock(state_->writing);
  if (state_->access == Access::kReadOnly) {
    return Error::posix(EROFS, "the search index is open for reading only");
  }
  state_->drop(*state_->poolNow());
  state_->readers.close();
  state_->writer.reset();
  const bool isMissing = !state_->isFileThere();
  if (isMissing) state_->noteLoss(IndexLoss::kMissing);
  if (state_->damaged.exchange(false) && !isMissing) {
    state_->noteLoss(IndexLoss::kDamaged);
    setIndexAside(state_->path);
  } else {
    removeIndexFiles(state_->path);
  }
  auto opened = state_->openWriter();
  if (!opened) state_->damaged.store(true);
  {
    const ExclusiveLock viewLock(state_->viewing);
    state_->pool = state_->newPool();
    if (state_->columns) state_->columns = std::make_unique<Columns>();
    if (state_->columns) state_->columns->hide(*state_->hiddenNow());
  }
  state_->readers.reopen();
  return opened;
}

std::uint64_t Index::addListener(ChangeListener listener) {
  const Lock lock(state_->telling);
  const std::uint64_t number = ++state_->lastListener;
  state_->listeners.emplace(number, std::make_shared<const ChangeListener>(std::move(listener)));
  return number;
}

void Index::removeListener(std::uint64_t number) {
  const Lock lock(state_->telling);
  state_->listeners.erase(number);
}

}  // namespace thmp
