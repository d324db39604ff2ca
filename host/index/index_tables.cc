// SPDX-License-Identifier: Apache-2.0
#include "host/index/index_tables.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <utility>

#include "host/index/Columns.h"
#include "host/index/columns_file.h"
#include "host/index/message_record.h"
#include "host/index/words.h"
#include "host/query/fold.h"

namespace thmp {

namespace {

constexpr std::int64_t kSchemaVersion = 4;

constexpr const char* kSchema = R"(
  CREATE TABLE files(
    id INTEGER PRIMARY KEY,
    mailbox INTEGER NOT NULL,
    content INTEGER NOT NULL,
    place INTEGER NOT NULL,
    incomplete INTEGER NOT NULL,
    words INTEGER NOT NULL);
  CREATE INDEX files_by_mailbox ON files(mailbox);
  CREATE TABLE records(id INTEGER PRIMARY KEY, mailbox INTEGER NOT NULL, record BLOB NOT NULL);
  CREATE TABLE stale(id INTEGER PRIMARY KEY);
  CREATE TABLE incomplete(id INTEGER, reason TEXT, PRIMARY KEY(id, reason)) WITHOUT ROWID;
  CREATE TABLE failed(source TEXT, path TEXT, reason TEXT NOT NULL, PRIMARY KEY(source, path))
    WITHOUT ROWID;
  CREATE TABLE stamps(mailbox INTEGER PRIMARY KEY, stamp BLOB NOT NULL);
  CREATE TABLE later(id INTEGER PRIMARY KEY);
  CREATE TABLE marks(name TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;
  PRAGMA user_version = 4;
)";

constexpr const char* kSettings =
    "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA secure_delete = OFF; "
    "PRAGMA cache_size = -65536; PRAGMA journal_size_limit = 67108864";

constexpr const char* kLookThrough =
    "SELECT max(id) FROM files; SELECT max(id) FROM records; SELECT max(number) FROM pool; "
    "SELECT max(id) FROM stale; SELECT max(id) FROM later; SELECT count(*) FROM marks";

std::int64_t userVersion(Connection& connection) {
  Statement version = connection.prepare("PRAGMA user_version");
  return version.row() ? version.integer(0) : -1;
}

std::string freeDamagedName(const std::string& path) {
  for (int number = 1;; ++number) {
    std::string name = path + ".damaged-" + std::to_string(number);
    if (::access(name.c_str(), F_OK) != 0 || number == 1000) return name;
  }
}

enum class Opened : std::uint8_t { kReady, kDamaged, kOtherVersion, kFailed };

Opened openWriter(const std::string& path, OpenedTables& tables, Error& error) {
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
  if (!connection.execute(kSettings) || !prepareWordTable(connection)) return failed();
  const std::int64_t version = userVersion(connection);
  if (version < 0) return failed();
  if (version != 0 && version != kSchemaVersion) return Opened::kOtherVersion;
  if (version == 0) {
    Transaction transaction(connection);
    if (!transaction.begun() || !connection.execute(kSchema) ||
        !connection.execute(ValuePool::kSchema) || !connection.execute(kWordTableSchema) ||
        !transaction.commit()) {
      return failed();
    }
    if (tables.loss == IndexLoss::kNone) tables.loss = IndexLoss::kMissing;
  }
  if (!connection.execute(kLookThrough)) return failed();
  tables.writer = std::move(*opened);
  return Opened::kReady;
}

// The mark of a message's words that stands in `files`; empty for an unknown message.
std::optional<std::int64_t> knownWords(Connection& writer, std::int64_t id) {
  Statement& known = writer.statement("SELECT words FROM files WHERE id = ?");
  std::optional<std::int64_t> mark;
  if (known.bind(1, id).row()) mark = known.integer(0);
  known.reset();
  return mark;
}

bool isStale(Connection& writer, std::int64_t id) {
  Statement& stale = writer.statement("SELECT 1 FROM stale WHERE id = ?");
  const bool found = stale.bind(1, id).row();
  stale.reset();
  return found;
}

bool setStale(Connection& writer, std::int64_t id) {
  return writer.statement("INSERT OR IGNORE INTO stale(id) VALUES(?)").bind(1, id).run();
}

std::int64_t markOf(const MessageWords& words) {
  return static_cast<std::int64_t>(fingerprint(words.text) * 31 + fingerprint(words.rest));
}

std::string storedRecord(Connection& writer, std::int64_t id) {
  Statement& row = writer.statement("SELECT record FROM records WHERE id = ?");
  std::string record;
  if (row.bind(1, id).row()) record = row.bytes(0);
  row.reset();
  return record;
}

bool putIncomplete(Connection& writer, const IndexEntry& entry) {
  bool written = writer.statement("DELETE FROM incomplete WHERE id = ?").bind(1, entry.id).run();
  for (const std::string& reason : entry.incomplete) {
    written =
        written && writer.statement("INSERT OR REPLACE INTO incomplete(id, reason) VALUES(?, ?)")
                       .bind(1, entry.id)
                       .bind(2, reason)
                       .run();
  }
  return written;
}

// Two statements in place of INSERT OR REPLACE: that one opens a savepoint of its own, at which the
// full-text table writes out all that it has gathered, for each message anew.
bool putRow(Connection& writer, const IndexEntry& entry, std::string_view record, std::int64_t mark,
            bool isKnown) {
  return writer
             .statement(isKnown
                            ? "UPDATE files SET mailbox = ?2, content = ?3, place = ?4, "
                              "incomplete = ?5, words = ?6 WHERE id = ?1"
                            : "INSERT INTO files(id, mailbox, content, place, incomplete, words) "
                              "VALUES(?1, ?2, ?3, ?4, ?5, ?6)")
             .bind(1, entry.id)
             .bind(2, entry.mailbox)
             .bind(3, static_cast<std::int64_t>(entry.file.content))
             .bind(4, static_cast<std::int64_t>(entry.file.place))
             .bind(5, std::int64_t{entry.file.incomplete})
             .bind(6, mark)
             .run() &&
         writer
             .statement(isKnown ? "UPDATE records SET mailbox = ?2, record = ?3 WHERE id = ?1"
                                : "INSERT INTO records(id, mailbox, record) VALUES(?1, ?2, ?3)")
             .bind(1, entry.id)
             .bind(2, entry.mailbox)
             .bindBlob(3, record)
             .run();
}

// What became of a message's words.
struct StoredWords {
  bool isKnown;  // the message, from before
  std::int64_t mark;
  bool isStale;  // they are not what stands in the table
  bool written;
};

StoredWords storeWords(Connection& writer, const IndexEntry& entry) {
  const std::optional<std::int64_t> known = knownWords(writer, entry.id);
  StoredWords stored{known.has_value(), known.value_or(0), false, true};
  if (!entry.textContent) return stored;
  std::optional<MessageWords> made;
  if (!entry.words) made = wordsOf(entry);
  const MessageWords& words = made ? *made : *entry.words;
  stored.mark = markOf(words);
  if (!known) {
    stored.isStale = isStale(writer, entry.id);
    if (!stored.isStale) stored.written = putWords(writer, entry.id, words);
  } else if (stored.mark != *known) {
    stored.isStale = true;
    stored.written = setStale(writer, entry.id);
  }
  return stored;
}

bool putRecord(Connection& writer, const IndexEntry& entry, const StoredWords& words,
               ValuePool& pool, IndexChanges& changes) {
  (words.isKnown ? changes.told.changed : changes.told.added).push_back(entry.id);

  RowChange row{RowChange::Kind::kPut, entry.id, entry.mailbox, {}, words.isStale};
  row.record = encodeRecord(entry.attributes, entry.queryOnly, pool);
  if (words.isKnown && Columns::areAlike(storedRecord(writer, entry.id), row.record, pool)) {
    row.kind = RowChange::Kind::kPutShape;
  }
  bool written = putRow(writer, entry, row.record, words.mark, words.isKnown);
  if (entry.textContent && (words.isKnown || !entry.incomplete.empty())) {
    written = written && putIncomplete(writer, entry);
  }
  changes.rows.push_back(std::move(row));
  return written;
}

}  // namespace

bool isDamage(int sqliteCode) {
  const int primary = sqliteCode & 0xFF;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

void setIndexAside(const std::string& path) {
  const std::string name = freeDamagedName(path);
  std::rename(path.c_str(), name.c_str());
  std::rename((path + "-wal").c_str(), (name + "-wal").c_str());
  ::unlink((path + "-shm").c_str());
  ::unlink(columnsPath(path).c_str());
}

void removeIndexFiles(const std::string& path) {
  for (const char* suffix : {"", "-wal", "-shm"}) ::unlink((path + suffix).c_str());
  ::unlink(columnsPath(path).c_str());
}

Result<OpenedTables> openIndexTables(const std::string& path) {
  OpenedTables tables;
  Error error;
  switch (openWriter(path, tables, error)) {
    case Opened::kReady:
      return tables;
    case Opened::kFailed:
      return error;
    case Opened::kDamaged:
      setIndexAside(path);
      tables.loss = IndexLoss::kDamaged;
      break;
    case Opened::kOtherVersion:
      removeIndexFiles(path);
      tables.loss = IndexLoss::kOtherVersion;
      break;
  }
  if (openWriter(path, tables, error) == Opened::kReady) return tables;
  return error.isSet() ? error : Error::posix(EIO, "cannot use the search index " + path);
}

bool areIndexTables(Connection& reader) { return userVersion(reader) == kSchemaVersion; }

MessageWords wordsOf(const IndexEntry& entry) {
  thread_local query::FoldedText scratch;
  MessageWords words;
  if (entry.textContent) appendWords(*entry.textContent, scratch, words.text);
  const auto identifier = entry.attributes[keyText(AttributeKey::kMessageID)].asText();
  if (identifier) appendWords(*identifier, scratch, words.rest);
  return words;
}

bool putEntries(Connection& writer, std::span<const IndexEntry> entries, ValuePool& pool,
                IndexChanges& changes) {
  // By themselves: between words stands much that would take their table out of the processor's
  // cache.
  std::vector<StoredWords> words;
  words.reserve(entries.size());
  for (const IndexEntry& entry : entries) {
    words.push_back(storeWords(writer, entry));
    if (!words.back().written) return false;
  }
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (!putRecord(writer, entries[i], words[i], pool, changes)) return false;
  }
  return true;
}

bool removeEntry(Connection& writer, std::int64_t id, IndexChanges& changes) {
  if (!knownWords(writer, id)) return true;
  changes.told.removed.push_back(id);
  changes.rows.push_back({RowChange::Kind::kRemove, id, 0, {}, false});
  bool removed = setStale(writer, id);
  for (const char* sql : {"DELETE FROM files WHERE id = ?", "DELETE FROM records WHERE id = ?",
                          "DELETE FROM incomplete WHERE id = ?"}) {
    removed = removed && writer.statement(sql).bind(1, id).run();
  }
  return removed;
}

std::int64_t readMark(Connection& connection, std::string_view name) {
  Statement& row = connection.statement("SELECT value FROM marks WHERE name = ?");
  const std::int64_t value = row.bind(1, name).row() ? row.integer(0) : 0;
  row.reset();
  return value;
}

bool setMark(Connection& writer, std::string_view name, std::int64_t value) {
  return writer.statement("INSERT OR REPLACE INTO marks(name, value) VALUES(?, ?)")
      .bind(1, name)
      .bind(2, value)
      .run();
}

bool putLater(Connection& writer, const IndexChanges& changes) {
  return std::all_of(changes.rows.begin(), changes.rows.end(), [&writer](const RowChange& row) {
    return writer.statement("INSERT OR IGNORE INTO later(id) VALUES(?)").bind(1, row.id).run();
  });
}

}  // namespace thmp
