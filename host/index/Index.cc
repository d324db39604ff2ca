// SPDX-License-Identifier: Apache-2.0
#include "host/index/Index.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <utility>

#include "host/index/ChunkReader.h"
#include "host/index/IndexState.h"
#include "host/index/MatchedMessages.h"
#include "host/index/message_record.h"
#include "host/index/message_view.h"
#include "host/query/evaluator.h"

namespace thmp {

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

bool IndexedMessage::has(AttributeKey key) const {
  return key == AttributeKey::kExternalID || hasRecordValue(record_, key, *pool_);
}

void IndexedMessage::give(const RecordEntries& entries, EntrySink& sink) const {
  entries.give(record_, *pool_, std::to_string(id_), sink);
}

void IndexedMessage::forEachAttribute(
    const std::function<bool(AttributeKey key, const Value& value)>& visit) const {
  if (!visit(AttributeKey::kExternalID, Value(std::to_string(id_)))) return;
  forEachInRecord(record_, *pool_, visit);
}

Dictionary attributesOf(IndexedMessage message, std::shared_ptr<const RecordEntries> entries) {
  return attributesOf(std::make_shared<Index::MatchedMessages>(std::move(message)), 0,
                      std::move(entries));
}

Dictionary attributesOf(IndexedMessage message) {
  static const AttributeSelection kAll = [] {
    AttributeSelection all;
    for (std::size_t key = 0; key <= static_cast<std::size_t>(AttributeKey::kBeforeQueryOnly);
         ++key) {
      all.set(key);
    }
    return all;
  }();
  return attributesOf(std::move(message), std::make_shared<const RecordEntries>(kAll));
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

Result<void> Index::forEachDescending(
    const std::function<bool(const IndexedMessage& message)>& visit) const {
  ChunkReader reader(*this);
  for (std::int64_t below = INT64_MAX;;) {
    auto read = reader.readBelow(below);
    if (!read || reader.chunk().empty()) return read;
    below = reader.chunk().back().id();
    for (const IndexedMessage& message : reader.takeVisible()) {
      if (!visit(message)) return {};
    }
  }
}

Result<Candidates> Index::candidates(const query::Query& query) const {
  for (;;) {
    auto prepared = state_->prepareColumns();
    if (!prepared) return prepared.error();
    auto found = state_->candidates(query);
    if (!found) return found.error();
    if (*found) return std::move(**found);
  }
}

Result<void> Index::forEachMatch(
    const query::Query& query,
    const std::function<bool(const IndexedMessage& message)>& visit) const {
  const std::atomic<bool> cancelled{false};
  // All of a portion of that size has been read when it comes.
  return forEachPortion(query, ChunkReader::kChunk, cancelled, [&](const auto& portion) {
    for (std::size_t place = 0; place < portion->size(); ++place) {
      const IndexedMessage* message = portion->at(place);
      if (message != nullptr && !visit(*message)) return false;
    }
    return true;
  });
}

Result<void> Index::forEachPortion(const query::Query& query, std::size_t most,
                                   const std::atomic<bool>& cancelled,
                                   const PortionVisitor& visit) const {
  const auto found = candidates(query);
  if (!found) return found.error();
  std::vector<Row> rows;    // that match, for the next portion
  std::vector<Row> window;  // that come after them
  Result<void> result;
  bool goesOn = true;
  const auto visitRows = [&] {
    const auto portion = std::make_shared<MatchedMessages>(*this, std::exchange(rows, {}));
    result = portion->result();
    goesOn = result && visit(portion);
    if (portion.use_count() > 1) portion->readRest();
    if (result) result = portion->result();
  };
  const auto takeWindow = [&] {
    result = keepMatching(query, found->doubtful, window);
    rows.insert(rows.end(), window.begin(), window.end());
    window.clear();
    if (rows.size() == most) visitRows();
  };
  found->rows.forEachDescending([&](Row row) {
    window.push_back(row);
    if (window.size() == std::min(ChunkReader::kChunk, most - rows.size())) takeWindow();
    goesOn = goesOn && !cancelled;
    return goesOn && result;
  });
  if (goesOn && result && !window.empty()) takeWindow();
  const Result<void> walked = result;
  if (goesOn && !rows.empty()) visitRows();
  return walked ? result : walked;
}

Result<void> Index::keepMatching(const query::Query& query, const RowSet& doubtful,
                                 std::vector<Row>& rows) const {
  std::vector<Row> asked;
  std::copy_if(rows.begin(), rows.end(), std::back_inserter(asked),
               [&](Row row) { return doubtful.contains(row); });
  if (asked.empty()) return {};
  ChunkReader reader(*this);
  Result<void> read = reader.readRows(asked);
  std::unordered_set<Row> matching;
  for (const IndexedMessage& message : reader.takeVisible()) {
    if (query::matches(query, IndexedMessageView(message))) {
      matching.insert(static_cast<Row>(message.id()));
    }
  }
  std::erase_if(rows, [&](Row row) { return doubtful.contains(row) && !matching.contains(row); });
  return read;
}

std::optional<IndexedMessage> Index::get(std::int64_t id) const {
  ChunkReader reader(*this);
  if (!reader.readOne(id)) return std::nullopt;
  std::vector<IndexedMessage> read = reader.takeVisible();
  if (read.empty()) return std::nullopt;
  return std::move(read.front());
}

bool Index::contains(std::int64_t id) const { return get(id).has_value(); }

std::string Index::textContent(std::int64_t id, std::int64_t mailbox) const {
  if (auto text = state_->recentTexts.find(id)) return std::move(*text);
  return state_->textSource ? state_->textSource(id, mailbox) : std::string();
}

Result<std::uint64_t> Index::count() const {
  const auto reader = state_->readers.borrow();
  if (!reader) return state_->unreadable();
  Statement& row = reader->statement("SELECT count(*) FROM files");
  if (!row.row()) return state_->failure(*reader);
  const auto count = static_cast<std::uint64_t>(row.integer(0));
  row.reset();
  return count;
}

Result<std::unordered_map<std::int64_t, IndexedFile>> Index::files(std::int64_t mailbox) const {
  const auto reader = state_->readers.borrow();
  if (!reader) return state_->unreadable();
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
  if (!reader) return state_->unreadable();
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
  if (!reader) return state_->unreadable();
  Statement& row = reader->statement("SELECT DISTINCT mailbox FROM files ORDER BY mailbox");
  std::vector<std::int64_t> all;
  while (row.row()) all.push_back(row.integer(0));
  if (row.result() != SQLITE_DONE) return state_->failure(*reader);
  return all;
}

Result<std::unordered_map<std::int64_t, IndexedMailbox>> Index::mailboxStates() const {
  const auto reader = state_->readers.borrow();
  if (!reader) return state_->unreadable();
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
  if (!reader) return state_->unreadable();
  Statement& row = reader->statement("SELECT id, reason FROM incomplete ORDER BY id, reason");
  std::vector<IncompleteMessage> all;
  while (row.row()) all.push_back({row.integer(0), std::string(row.bytes(1))});
  if (row.result() != SQLITE_DONE) return state_->failure(*reader);
  return all;
}

Result<std::vector<UnreadablePath>> Index::failed() const {
  const auto reader = state_->readers.borrow();
  if (!reader) return state_->unreadable();
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
    return putEntries(writer, entries, pool, changes);
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
  if (!reader) return state_->unreadable();
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
