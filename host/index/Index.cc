// SPDX-License-Identifier: Apache-2.0
#include "host/index/Index.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <deque>
#include <map>
#include <unordered_set>
#include <utility>

#include "base/mutex.h"
#include "host/index/message_record.h"
#include "host/store/sqlite_connection.h"

namespace thmp {

namespace {

constexpr std::int64_t kSchemaVersion = 1;
constexpr std::int64_t kChunk = 256;

constexpr const char* kSchema = R"(
  CREATE TABLE files(
    id INTEGER PRIMARY KEY,
    mailbox INTEGER NOT NULL,
    content INTEGER NOT NULL,
    place INTEGER NOT NULL,
    incomplete INTEGER NOT NULL);
  CREATE INDEX files_by_mailbox ON files(mailbox);
  CREATE TABLE records(id INTEGER PRIMARY KEY, mailbox INTEGER NOT NULL, record BLOB NOT NULL);
  CREATE TABLE texts(id INTEGER PRIMARY KEY, text BLOB NOT NULL);
  CREATE TABLE incomplete(id INTEGER, reason TEXT, PRIMARY KEY(id, reason)) WITHOUT ROWID;
  CREATE TABLE failed(source TEXT, path TEXT, reason TEXT NOT NULL, PRIMARY KEY(source, path))
    WITHOUT ROWID;
  CREATE TABLE marks(name TEXT PRIMARY KEY, value REAL) WITHOUT ROWID;
  PRAGMA user_version = 1;
)";

constexpr const char* kSettings =
    "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA secure_delete = OFF; "
    "PRAGMA cache_size = -65536; PRAGMA journal_size_limit = 67108864";

bool isDamage(int code) {
  const int primary = code & 0xFF;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

std::int64_t userVersion(Connection& connection) {
  Statement version = connection.prepare("PRAGMA user_version");
  return version.row() ? version.integer(0) : -1;
}

Error unreadable(const std::string& path) {
  return Error::posix(EIO, "cannot read the search index " + path);
}

std::string freeDamagedName(const std::string& path) {
  for (int number = 1;; ++number) {
    std::string name = path + ".damaged-" + std::to_string(number);
    if (::access(name.c_str(), F_OK) != 0 || number == 1000) return name;
  }
}

void setAside(const std::string& path) {
  const std::string name = freeDamagedName(path);
  std::rename(path.c_str(), name.c_str());
  std::rename((path + "-wal").c_str(), (name + "-wal").c_str());
  ::unlink((path + "-shm").c_str());
}

void removeFile(const std::string& path) {
  for (const char* suffix : {"", "-wal", "-shm"}) ::unlink((path + suffix).c_str());
}

enum class Opened : std::uint8_t { kReady, kDamaged, kOtherVersion, kFailed };

Opened openWriter(const std::string& path, std::unique_ptr<Connection>& writer, Error& error) {
  auto opened = Connection::open(path, Connection::Mode::kReadWrite);
  if (!opened) {
    error = opened.error();
    return isDamage(static_cast<int>(error.code)) ? Opened::kDamaged : Opened::kFailed;
  }
  Connection& connection = **opened;
  const auto failed = [&] {
    error = connection.error("cannot use the search index " + path);
    return isDamage(sqlite3_errcode(connection.handle())) ? Opened::kDamaged : Opened::kFailed;
  };
  if (!connection.execute(kSettings)) return failed();
  const std::int64_t version = userVersion(connection);
  if (version < 0) return failed();
  if (version != 0 && version != kSchemaVersion) return Opened::kOtherVersion;
  if (version == 0) {
    Transaction transaction(connection);
    if (!transaction.begun() || !connection.execute(kSchema) || !transaction.commit()) {
      return failed();
    }
  }
  if (!connection.execute("SELECT max(id) FROM files; SELECT max(id) FROM records; "
                          "SELECT max(id) FROM texts; SELECT count(*) FROM marks")) {
    return failed();
  }
  writer = std::move(*opened);
  return Opened::kReady;
}

// Opens, or begins anew what is damaged or of another version.
Result<std::unique_ptr<Connection>> openOrBegin(const std::string& path) {
  std::unique_ptr<Connection> writer;
  Error error;
  switch (openWriter(path, writer, error)) {
    case Opened::kReady:
      return writer;
    case Opened::kFailed:
      return error;
    case Opened::kDamaged:
      setAside(path);
      break;
    case Opened::kOtherVersion:
      removeFile(path);
      break;
  }
  if (openWriter(path, writer, error) == Opened::kReady) return writer;
  return error.isSet() ? error : unreadable(path);
}

}  // namespace

struct Index::State {
  explicit State(std::string file) : path(std::move(file)), readers(path) {}

  const std::string path;
  mutable ReadPool readers;
  mutable std::atomic<bool> damaged{false};

  Mutex writing;
  std::unique_ptr<Connection> writer THMP_GUARDED_BY(writing);

  Mutex hiding;
  std::shared_ptr<const std::unordered_set<std::int64_t>> hidden THMP_GUARDED_BY(hiding) =
      std::make_shared<std::unordered_set<std::int64_t>>();

  // Changes wait here for one thread at a time to tell them, in the order of their commits.
  Mutex telling;
  std::deque<IndexChange> untold THMP_GUARDED_BY(telling);
  bool isTelling THMP_GUARDED_BY(telling) = false;
  std::map<std::uint64_t, std::shared_ptr<const ChangeListener>> listeners THMP_GUARDED_BY(telling);
  std::uint64_t lastListener THMP_GUARDED_BY(telling) = 0;

  std::shared_ptr<const std::unordered_set<std::int64_t>> hiddenNow() {
    const Lock lock(hiding);
    return hidden;
  }

  void noteResult(int code) const {
    if (isDamage(code)) damaged.store(true);
  }

  Error failure(Connection& connection) const {
    noteResult(sqlite3_errcode(connection.handle()));
    return connection.error("cannot use the search index " + path);
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
  Result<void> write(const Change& change) {
    {
      const Lock lock(writing);
      if (!writer) return Error::posix(EROFS, "the search index is open for reading only");
      Transaction transaction(*writer);
      IndexChange told;
      if (!transaction.begun() || !change(*writer, told) || !transaction.commit()) {
        return failure(*writer);
      }
      enqueue(std::move(told));
    }
    tell();
    return {};
  }
};

// A text is kept with a checksum before it.
namespace {

std::string packText(std::string_view text) {
  const auto checksum = fingerprint(text);
  std::string packed(reinterpret_cast<const char*>(&checksum), sizeof checksum);
  packed.append(text);
  return packed;
}

bool unpackText(std::string_view packed, std::string& text) {
  std::uint64_t checksum = 0;
  if (packed.size() < sizeof checksum) return false;
  packed.copy(reinterpret_cast<char*>(&checksum), sizeof checksum);
  packed.remove_prefix(sizeof checksum);
  if (fingerprint(packed) != checksum) return false;
  text = packed;
  return true;
}

bool putEntry(Connection& writer, const IndexEntry& entry, IndexChange& told) {
  Statement& known = writer.statement("SELECT 1 FROM files WHERE id = ?");
  const bool isKnown = known.bind(1, entry.id).row();
  known.reset();
  (isKnown ? told.changed : told.added).push_back(entry.id);

  const std::string record = encodeRecord(entry.attributes, entry.queryOnly);
  bool written =
      writer
          .statement(
              "INSERT OR REPLACE INTO files(id, mailbox, content, place, incomplete) "
              "VALUES(?, ?, ?, ?, ?)")
          .bind(1, entry.id)
          .bind(2, entry.mailbox)
          .bind(3, static_cast<std::int64_t>(entry.file.content))
          .bind(4, static_cast<std::int64_t>(entry.file.place))
          .bind(5, std::int64_t{entry.file.incomplete})
          .run() &&
      writer.statement("INSERT OR REPLACE INTO records(id, mailbox, record) VALUES(?, ?, ?)")
          .bind(1, entry.id)
          .bind(2, entry.mailbox)
          .bindBlob(3, record)
          .run();
  if (!entry.textContent) return written;
  if (isKnown) {
    written = written && writer.statement("DELETE FROM texts WHERE id = ?").bind(1, entry.id).run();
    written =
        written && writer.statement("DELETE FROM incomplete WHERE id = ?").bind(1, entry.id).run();
  }
  if (!entry.textContent->empty()) {
    const std::string packed = packText(*entry.textContent);
    written = written && writer.statement("INSERT OR REPLACE INTO texts(id, text) VALUES(?, ?)")
                             .bind(1, entry.id)
                             .bindBlob(2, packed)
                             .run();
  }
  for (const std::string& reason : entry.incomplete) {
    written =
        written && writer.statement("INSERT OR REPLACE INTO incomplete(id, reason) VALUES(?, ?)")
                       .bind(1, entry.id)
                       .bind(2, reason)
                       .run();
  }
  return written;
}

bool removeOne(Connection& writer, std::int64_t id, IndexChange& told) {
  Statement& known = writer.statement("SELECT 1 FROM files WHERE id = ?");
  const bool isKnown = known.bind(1, id).row();
  known.reset();
  if (isKnown) told.removed.push_back(id);
  bool removed = true;
  for (const char* sql :
       {"DELETE FROM files WHERE id = ?", "DELETE FROM records WHERE id = ?",
        "DELETE FROM texts WHERE id = ?", "DELETE FROM incomplete WHERE id = ?"}) {
    removed = removed && writer.statement(sql).bind(1, id).run();
  }
  return removed;
}

}  // namespace

Value IndexedMessage::value(std::string_view attribute) const {
  const auto key = keyNamed(attribute);
  return key ? value(*key) : Value();
}

Value IndexedMessage::value(AttributeKey key) const {
  if (key == AttributeKey::kExternalID) return Value(std::to_string(id_));
  if (key != AttributeKey::kTextContent) return recordValue(record_, key);
  const std::string text = index_->textContent(id_);
  return text.empty() ? Value() : Value(text);
}

Dictionary IndexedMessage::attributes() const {
  std::vector<Dictionary::Entry> entries;
  entries.reserve(static_cast<std::size_t>(AttributeKey::kFetchedCount));
  entries.push_back({keyText(AttributeKey::kExternalID), Value(std::to_string(id_))});
  forEachInRecord(record_, [&](AttributeKey key, const Value& found) {
    if (isQueryOnly(key)) return false;
    entries.push_back({keyText(key), found});
    return true;
  });
  return Dictionary(std::move(entries));
}

Dictionary IndexedMessage::attributes(std::span<const std::string> names) const {
  std::array<bool, 256> wanted{};
  for (const std::string& name : names) {
    const auto key = keyNamed(name);
    if (key) wanted[static_cast<std::size_t>(*key)] = true;
  }
  std::vector<Dictionary::Entry> entries;
  if (wanted[static_cast<std::size_t>(AttributeKey::kExternalID)]) {
    entries.push_back({keyText(AttributeKey::kExternalID), Value(std::to_string(id_))});
  }
  forEachInRecord(record_, [&](AttributeKey key, const Value& found) {
    if (isQueryOnly(key)) return false;
    if (wanted[static_cast<std::size_t>(key)]) entries.push_back({keyText(key), found});
    return true;
  });
  return Dictionary(std::move(entries));
}

void IndexedMessage::forEachAttribute(
    const std::function<bool(AttributeKey key, const Value& value)>& visit) const {
  if (!visit(AttributeKey::kExternalID, Value(std::to_string(id_)))) return;
  forEachInRecord(record_, visit);
}

Index::Index(std::unique_ptr<State> state) : state_(std::move(state)) {}
Index::~Index() = default;

Result<std::unique_ptr<Index>> Index::open(const std::string& path, Access access) {
  auto state = std::make_unique<State>(path);
  if (access == Access::kReadWrite) {
    Error error;
    if (!makeParentFolders(path, &error)) return error;
    auto writer = openOrBegin(path);
    if (!writer) return writer.error();
    const Lock lock(state->writing);
    state->writer = std::move(*writer);
  } else {
    const auto reader = state->readers.borrow();
    if (!reader) return Error::posix(ENOENT, "no search index at " + path);
    if (userVersion(*reader) != kSchemaVersion) {
      return reader->error("cannot use the search index " + path);
    }
  }
  return std::unique_ptr<Index>(new Index(std::move(state)));
}

Result<void> Index::forEachDescending(
    const std::function<bool(const IndexedMessage& message)>& visit) const {
  std::vector<IndexedMessage> chunk(kChunk);
  std::int64_t below = INT64_MAX;
  while (true) {
    std::size_t count = 0;
    {
      const auto reader = state_->readers.borrow();
      if (!reader) return unreadable(state_->path);
      Statement& row = reader->statement(
          "SELECT id, mailbox, record FROM records WHERE id < ? ORDER BY id DESC LIMIT ?");
      row.bind(1, below).bind(2, kChunk);
      while (count < chunk.size() && row.row()) {
        IndexedMessage& message = chunk[count++];
        message.id_ = row.integer(0);
        message.mailbox_ = row.integer(1);
        message.record_ = row.bytes(2);
        message.index_ = this;
      }
      const bool readAll = row.result() == SQLITE_ROW || row.result() == SQLITE_DONE;
      row.reset();
      if (!readAll) return state_->failure(*reader);
    }
    if (count == 0) return {};
    const auto hidden = state_->hiddenNow();
    for (std::size_t i = 0; i < count; ++i) {
      const IndexedMessage& message = chunk[i];
      if (hidden->contains(message.mailbox_)) continue;
      if (!isIntactRecord(message.record_)) {
        state_->damaged.store(true);
        continue;
      }
      if (!visit(message)) return {};
    }
    below = chunk[count - 1].id_;
  }
}

std::optional<IndexedMessage> Index::get(std::int64_t id) const {
  const auto reader = state_->readers.borrow();
  if (!reader) return std::nullopt;
  Statement& row = reader->statement("SELECT mailbox, record FROM records WHERE id = ?");
  if (!row.bind(1, id).row()) {
    state_->noteResult(row.result());
    return std::nullopt;
  }
  IndexedMessage message;
  message.id_ = id;
  message.mailbox_ = row.integer(0);
  message.record_ = row.bytes(1);
  message.index_ = this;
  row.reset();
  if (!isIntactRecord(message.record_)) {
    state_->damaged.store(true);
    return std::nullopt;
  }
  if (state_->hiddenNow()->contains(message.mailbox_)) return std::nullopt;
  return message;
}

bool Index::contains(std::int64_t id) const { return get(id).has_value(); }

std::string Index::textContent(std::int64_t id) const {
  const auto reader = state_->readers.borrow();
  if (!reader) return {};
  Statement& row = reader->statement("SELECT text FROM texts WHERE id = ?");
  std::string text;
  if (row.bind(1, id).row()) {
    if (!unpackText(row.bytes(0), text)) state_->damaged.store(true);
    row.reset();
  } else {
    state_->noteResult(row.result());
  }
  return text;
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

Result<std::vector<std::int64_t>> Index::mailboxes() const {
  const auto reader = state_->readers.borrow();
  if (!reader) return unreadable(state_->path);
  Statement& row = reader->statement("SELECT DISTINCT mailbox FROM files ORDER BY mailbox");
  std::vector<std::int64_t> all;
  while (row.row()) all.push_back(row.integer(0));
  if (row.result() != SQLITE_DONE) return state_->failure(*reader);
  return all;
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
  if (!reader) return std::nullopt;
  Statement& row = reader->statement("SELECT value FROM marks WHERE name = 'lastUpdate'");
  if (!row.row()) return std::nullopt;
  const Date date = Date::fromUnixSeconds(static_cast<double>(row.integer(0)));
  row.reset();
  return date;
}

void Index::hideMailboxes(const std::vector<std::int64_t>& mailboxes) {
  auto next =
      std::make_shared<std::unordered_set<std::int64_t>>(mailboxes.begin(), mailboxes.end());
  std::shared_ptr<const std::unordered_set<std::int64_t>> before = next;
  {
    const Lock lock(state_->hiding);
    std::swap(state_->hidden, before);
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

Result<void> Index::put(std::span<const IndexEntry> entries) {
  return state_->write([&](Connection& writer, IndexChange& told) {
    return std::all_of(entries.begin(), entries.end(),
                       [&](const IndexEntry& entry) { return putEntry(writer, entry, told); });
  });
}

Result<void> Index::remove(std::span<const std::int64_t> ids) {
  return state_->write([&](Connection& writer, IndexChange& told) {
    return std::all_of(ids.begin(), ids.end(),
                       [&](std::int64_t id) { return removeOne(writer, id, told); });
  });
}

Result<void> Index::removeMailbox(std::int64_t mailbox) {
  return state_->write([&](Connection& writer, IndexChange& told) {
    std::vector<std::int64_t> ids;
    Statement& row = writer.statement("SELECT id FROM files WHERE mailbox = ?");
    row.bind(1, mailbox);
    while (row.row()) ids.push_back(row.integer(0));
    return row.result() == SQLITE_DONE && std::all_of(ids.begin(), ids.end(), [&](std::int64_t id) {
             return removeOne(writer, id, told);
           });
  });
}

Result<void> Index::setFailed(const std::string& source,
                              const std::vector<UnreadablePath>& failed) {
  return state_->write([&](Connection& writer, IndexChange&) {
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
  return state_->write([&](Connection& writer, IndexChange&) {
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
  return state_->write([&](Connection& writer, IndexChange&) {
    return writer.statement("INSERT OR REPLACE INTO marks(name, value) VALUES('lastUpdate', ?)")
        .bind(1, static_cast<std::int64_t>(date.unixSeconds()))
        .run();
  });
}

bool Index::isDamaged() const noexcept { return state_->damaged.load(); }

Result<void> Index::makeAnew() {
  const Lock lock(state_->writing);
  if (!state_->writer) return Error::posix(EROFS, "the search index is open for reading only");
  state_->readers.close();
  state_->writer.reset();
  setAside(state_->path);
  auto writer = openOrBegin(state_->path);
  if (writer) state_->writer = std::move(*writer);
  state_->damaged.store(false);
  state_->readers.reopen();
  if (!state_->writer) return writer.error();
  return {};
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
