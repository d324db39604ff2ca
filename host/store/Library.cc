// SPDX-License-Identifier: Apache-2.0
#include "host/store/Library.h"

#include <sys/stat.h>

#include <algorithm>
#include <numeric>
#include <unordered_map>
#include <utility>

#include "base/mutex.h"
#include "host/store/sqlite_connection.h"

namespace thmp {

namespace {

constexpr std::int64_t kSchemaVersion = 1;

constexpr const char* kSchema = R"(
  CREATE TABLE mailboxes(
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    root TEXT NOT NULL,
    path TEXT NOT NULL UNIQUE,
    format INTEGER NOT NULL,
    identifier TEXT NOT NULL);
  CREATE TABLE messages(
    rowid INTEGER PRIMARY KEY AUTOINCREMENT,
    mailbox INTEGER NOT NULL REFERENCES mailboxes(id),
    name TEXT NOT NULL,
    part TEXT NOT NULL,
    file TEXT NOT NULL,
    UNIQUE(mailbox, name));
  PRAGMA user_version = 1;
)";

// Beside the schema, which older programs go on to read.
constexpr const char* kRootsSchema = R"(
  CREATE TABLE IF NOT EXISTS roots(
    path TEXT PRIMARY KEY,
    device INTEGER NOT NULL,
    inode INTEGER NOT NULL) WITHOUT ROWID;
)";

std::int64_t userVersion(Connection& connection) {
  Statement version = connection.prepare("PRAGMA user_version");
  return version.row() ? version.integer(0) : -1;
}

bool fileExists(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

Result<void> prepareSchema(Connection& connection) {
  connection.execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;");
  const std::int64_t version = userVersion(connection);
  if (version == kSchemaVersion) {
    if (!connection.execute(kRootsSchema)) return connection.error("cannot make the mail library");
    return {};
  }
  if (version < 0) return connection.error("cannot read the mail library");
  if (version != 0) {
    Error error;
    error.domain = kSqliteErrorDomain;
    error.code = SQLITE_MISMATCH;
    error.description = "the mail library is of a newer version than this program";
    return error;
  }
  Transaction transaction(connection);
  if (!transaction.begun() || !connection.execute(kSchema) || !connection.execute(kRootsSchema) ||
      !transaction.commit()) {
    return connection.error("cannot make the mail library");
  }
  return {};
}

MailFolder folderOf(const Statement& row) {
  MailFolder folder;
  folder.root = row.bytes(1);
  folder.path = row.bytes(2);
  folder.format = static_cast<MessageFormat>(row.integer(3));
  folder.identifier = row.bytes(4);
  return folder;
}

std::optional<FolderIdentity> identityOf(Connection& connection, const std::string& root) {
  Statement& row = connection.statement("SELECT device, inode FROM roots WHERE path = ?");
  if (!row.bind(1, root).row()) return std::nullopt;
  const FolderIdentity identity{static_cast<std::uint64_t>(row.integer(0)),
                                static_cast<std::uint64_t>(row.integer(1))};
  row.reset();
  return identity;
}

// As JSON, which a statement that is made once can take.
}  // namespace

struct Library::State {
  explicit State(const std::string& path) : readers(path) {}

  mutable ReadPool readers;
  Mutex writing;
  std::unique_ptr<Connection> writer THMP_GUARDED_BY(writing);
  // A mailbox keeps its path for ever.
  Mutex known;
  std::unordered_map<std::int64_t, MailFolder> folders THMP_GUARDED_BY(known);

  std::optional<MailFolder> folder(Connection& connection, std::int64_t mailbox) {
    const Lock lock(known);
    const auto found = folders.find(mailbox);
    if (found != folders.end()) return found->second;
    Statement& row = connection.statement(
        "SELECT id, root, path, format, identifier FROM mailboxes WHERE id = ?");
    if (!row.bind(1, mailbox).row()) return std::nullopt;
    MailFolder folder = folderOf(row);
    row.reset();
    folders.emplace(mailbox, folder);
    return folder;
  }
};

Library::Library(std::unique_ptr<State> state) : state_(std::move(state)) {}
// The writer closes last, which puts what is in the write-ahead log into the file.
Library::~Library() { state_->readers.close(); }

Result<std::unique_ptr<Library>> Library::open(const std::string& path, Access access) {
  auto state = std::make_unique<State>(path);
  if (access == Access::kReadWrite) {
    Error error;
    if (!makeParentFolders(path, &error)) return error;
    auto opened = Connection::open(path, Connection::Mode::kReadWrite);
    if (!opened) return opened.error();
    const auto prepared = prepareSchema(**opened);
    if (!prepared) return prepared.error();
    const Lock lock(state->writing);
    state->writer = std::move(*opened);
  } else {
    const auto reader = state->readers.borrow();
    if (!reader || userVersion(*reader) != kSchemaVersion) {
      return Error::posix(ENOENT, "no mail library at " + path);
    }
  }
  return std::unique_ptr<Library>(new Library(std::move(state)));
}

bool Library::performRead(const std::function<bool(sqlite3*)>& block) const {
  const auto reader = state_->readers.borrow();
  return reader && block(reader->handle());
}

std::string Library::dataPath(std::int64_t id, std::int64_t mailbox, int type) const {
  const MailMessagePlace place{id, mailbox};
  return std::move(dataPaths({&place, 1}, type).front());
}

std::vector<std::string> Library::dataPaths(std::span<const MailMessagePlace> messages,
                                            int type) const {
  std::vector<std::string> paths(messages.size());
  const auto reader = state_->readers.borrow();
  if (!reader || messages.empty()) return paths;
  const ReadTransaction together(*reader);
  std::unordered_map<std::int64_t, std::optional<MailFolder>> folders;
  const auto take = [&](std::size_t place, const Statement& row) {
    const std::int64_t mailbox = messages[place].mailboxID;
    const std::string_view file = row.bytes(3);
    const int stored = file.ends_with(".partial.emlx") ? 1 : 0;
    if (row.integer(1) != mailbox || stored != type) return;
    const auto [folder, isNew] = folders.try_emplace(mailbox);
    if (isNew) folder->second = state_->folder(*reader, mailbox);
    if (folder->second) paths[place] = messagePath(folder->second->path, row.bytes(2), file);
  };
  std::vector<std::size_t> places(messages.size());  // by ascending ID
  std::iota(places.begin(), places.end(), std::size_t{0});
  const auto idAt = [&](std::size_t place) { return messages[place].libraryID; };
  std::sort(places.begin(), places.end(),
            [&](std::size_t a, std::size_t b) { return idAt(a) < idAt(b); });
  if (areClose(idAt(places.front()), idAt(places.back()), places.size())) {
    Statement& row = reader->statement(
        "SELECT rowid, mailbox, part, file FROM messages WHERE rowid BETWEEN ? AND ? "
        "ORDER BY rowid");
    row.bind(1, idAt(places.front())).bind(2, idAt(places.back()));
    for (auto place = places.begin(); row.row();) {
      while (place != places.end() && idAt(*place) < row.integer(0)) ++place;
      for (; place != places.end() && idAt(*place) == row.integer(0); ++place) take(*place, row);
    }
    row.reset();
  } else {
    Statement& row =
        reader->statement("SELECT rowid, mailbox, part, file FROM messages WHERE rowid = ?");
    for (const std::size_t place : places) {
      if (row.bind(1, idAt(place)).row()) take(place, row);
      row.reset();
    }
  }
  return paths;
}

std::optional<std::string> Library::pathOfMessage(std::int64_t id) const {
  std::optional<MailFolder> folder;
  MessageEntry entry;
  {
    const auto reader = state_->readers.borrow();
    if (!reader) return std::nullopt;
    Statement& row =
        reader->statement("SELECT mailbox, name, part, file FROM messages WHERE rowid = ?");
    if (!row.bind(1, id).row()) return std::nullopt;
    const std::int64_t mailbox = row.integer(0);
    entry.name = row.bytes(1);
    entry.part = row.bytes(2);
    entry.file = row.bytes(3);
    row.reset();
    folder = state_->folder(*reader, mailbox);
  }
  if (!folder) return std::nullopt;
  std::string path = messagePath(folder->path, entry.part, entry.file);
  if (fileExists(path)) return path;
  const auto listing = listMailbox(*folder);
  if (!listing) return std::nullopt;
  for (const MessageEntry& now : listing->entries) {
    if (now.name == entry.name) return messagePath(folder->path, now.part, now.file);
  }
  return std::nullopt;
}

Result<std::vector<LibraryMailbox>> Library::mailboxes() const {
  const auto reader = state_->readers.borrow();
  if (!reader) return Error::posix(EIO, "cannot read the mail library");
  Statement& row =
      reader->statement("SELECT id, root, path, format, identifier FROM mailboxes ORDER BY path");
  std::vector<LibraryMailbox> all;
  while (row.row()) all.push_back({row.integer(0), folderOf(row)});
  if (row.result() != SQLITE_DONE) return reader->error("cannot read the mail library");
  return all;
}

Result<std::vector<LibraryMessage>> Library::messages(std::int64_t mailbox) const {
  const auto reader = state_->readers.borrow();
  if (!reader) return Error::posix(EIO, "cannot read the mail library");
  Statement& row = reader->statement(
      "SELECT rowid, name, part, file FROM messages WHERE mailbox = ? ORDER BY name");
  row.bind(1, mailbox);
  std::vector<LibraryMessage> all;
  while (row.row()) {
    all.push_back(
        {row.integer(0),
         {std::string(row.bytes(1)), std::string(row.bytes(2)), std::string(row.bytes(3))}});
  }
  if (row.result() != SQLITE_DONE) return reader->error("cannot read the mail library");
  return all;
}

Result<std::optional<LibraryMessage>> Library::message(std::int64_t mailbox,
                                                       const std::string& name) const {
  const auto reader = state_->readers.borrow();
  if (!reader) return Error::posix(EIO, "cannot read the mail library");
  Statement& row =
      reader->statement("SELECT rowid, part, file FROM messages WHERE mailbox = ? AND name = ?");
  row.bind(1, mailbox).bind(2, name);
  std::optional<LibraryMessage> message;
  if (row.row()) {
    message = LibraryMessage{row.integer(0),
                             {name, std::string(row.bytes(1)), std::string(row.bytes(2))}};
  } else if (row.result() != SQLITE_DONE) {
    return reader->error("cannot read the mail library");
  }
  row.reset();
  return message;
}

Result<std::uint64_t> Library::messageCount() const {
  const auto reader = state_->readers.borrow();
  if (!reader) return Error::posix(EIO, "cannot read the mail library");
  Statement& row = reader->statement("SELECT count(*) FROM messages");
  if (!row.row()) return reader->error("cannot read the mail library");
  const auto count = static_cast<std::uint64_t>(row.integer(0));
  row.reset();
  return count;
}

Result<std::unordered_map<std::int64_t, std::uint64_t>> Library::messageCounts() const {
  const auto reader = state_->readers.borrow();
  if (!reader) return Error::posix(EIO, "cannot read the mail library");
  Statement& row = reader->statement("SELECT mailbox, count(*) FROM messages GROUP BY mailbox");
  std::unordered_map<std::int64_t, std::uint64_t> counts;
  while (row.row()) counts.emplace(row.integer(0), static_cast<std::uint64_t>(row.integer(1)));
  if (row.result() != SQLITE_DONE) return reader->error("cannot read the mail library");
  return counts;
}

Result<std::unordered_map<std::int64_t, MailboxTally>> Library::tallies() const {
  const auto reader = state_->readers.borrow();
  if (!reader) return Error::posix(EIO, "cannot read the mail library");
  Statement& row =
      reader->statement("SELECT mailbox, count(*), sum(rowid) FROM messages GROUP BY mailbox");
  std::unordered_map<std::int64_t, MailboxTally> tallies;
  while (row.row()) {
    tallies[row.integer(0)] = {static_cast<std::uint64_t>(row.integer(1)), row.integer(2)};
  }
  if (row.result() != SQLITE_DONE) return reader->error("cannot read the mail library");
  return tallies;
}

Result<std::vector<std::string>> Library::roots() const {
  const auto reader = state_->readers.borrow();
  if (!reader) return Error::posix(EIO, "cannot read the mail library");
  Statement& row = reader->statement("SELECT DISTINCT root FROM mailboxes ORDER BY root");
  std::vector<std::string> all;
  while (row.row()) all.emplace_back(row.bytes(0));
  if (row.result() != SQLITE_DONE) return reader->error("cannot read the mail library");
  return all;
}

std::string Library::whyUnreachable(const std::string& root) const {
  FolderLook look = lookAt(root);
  if (!look.unreadable.empty() || !look.isEmpty) return std::move(look.unreadable);
  const auto reader = state_->readers.borrow();
  if (!reader) return {};
  const std::optional<FolderIdentity> before = identityOf(*reader, root);
  if (!before || *before == look.identity) return {};
  return "it is empty and another folder than before; is its file system mounted?";
}

Result<void> Library::keepRoot(const std::string& root, const FolderIdentity& identity) {
  const Lock lock(state_->writing);
  if (!state_->writer) return Error::posix(EROFS, "the mail library is open for reading only");
  Connection& writer = *state_->writer;
  if (identityOf(writer, root) == identity) return {};
  Statement& upsert = writer.statement(
      "INSERT INTO roots(path, device, inode) VALUES(?, ?, ?) "
      "ON CONFLICT(path) DO UPDATE SET device = excluded.device, inode = excluded.inode");
  upsert.bind(1, root).bind(2, static_cast<std::int64_t>(identity.device));
  upsert.bind(3, static_cast<std::int64_t>(identity.inode));
  if (!upsert.run()) return writer.error("cannot write the mail library");
  return {};
}

std::vector<std::int64_t> Library::unreachableMailboxes() const {
  std::vector<std::int64_t> unreachable;
  const auto all = mailboxes();
  if (!all) return unreachable;
  std::unordered_map<std::string, bool> readable;
  for (const LibraryMailbox& mailbox : *all) {
    const auto [root, isNew] = readable.try_emplace(mailbox.folder.root, false);
    if (isNew) root->second = whyUnreachable(root->first).empty();
    if (!root->second) unreachable.push_back(mailbox.id);
  }
  return unreachable;
}

Result<std::int64_t> Library::addMailbox(const MailFolder& folder) {
  const Lock lock(state_->writing);
  if (!state_->writer) return Error::posix(EROFS, "the mail library is open for reading only");
  Connection& writer = *state_->writer;
  Statement& upsert = writer.statement(
      "INSERT INTO mailboxes(root, path, format, identifier) VALUES(?, ?, ?, ?) "
      "ON CONFLICT(path) DO UPDATE SET root = excluded.root, format = excluded.format, "
      "identifier = excluded.identifier RETURNING id");
  upsert.bind(1, folder.root).bind(2, folder.path);
  upsert.bind(3, static_cast<std::int64_t>(folder.format)).bind(4, folder.identifier);
  if (!upsert.row()) return writer.error("cannot write the mail library");
  const std::int64_t id = upsert.integer(0);
  if (!upsert.run()) return writer.error("cannot write the mail library");
  const Lock knownLock(state_->known);
  state_->folders[id] = folder;
  return id;
}

Result<std::vector<std::int64_t>> Library::removeMailbox(std::int64_t mailbox) {
  const Lock lock(state_->writing);
  if (!state_->writer) return Error::posix(EROFS, "the mail library is open for reading only");
  Connection& writer = *state_->writer;
  Transaction transaction(writer);
  std::vector<std::int64_t> ids;
  Statement& messages = writer.statement("DELETE FROM messages WHERE mailbox = ? RETURNING rowid");
  messages.bind(1, mailbox);
  while (messages.row()) ids.push_back(messages.integer(0));
  const bool removed =
      transaction.begun() && messages.result() == SQLITE_DONE &&
      writer.statement("DELETE FROM mailboxes WHERE id = ?").bind(1, mailbox).run();
  if (!removed || !transaction.commit()) return writer.error("cannot write the mail library");
  const Lock knownLock(state_->known);
  state_->folders.erase(mailbox);
  return ids;
}

Result<std::vector<std::int64_t>> Library::apply(std::int64_t mailbox,
                                                 const LibraryChanges& changes) {
  const Lock lock(state_->writing);
  if (!state_->writer) return Error::posix(EROFS, "the mail library is open for reading only");
  Connection& writer = *state_->writer;
  Transaction transaction(writer);
  bool written = transaction.begun();
  std::vector<std::int64_t> ids;
  for (const std::int64_t id : changes.removed) {
    written = written && writer.statement("DELETE FROM messages WHERE rowid = ? AND mailbox = ?")
                             .bind(1, id)
                             .bind(2, mailbox)
                             .run();
  }
  for (const LibraryMessage& moved : changes.moved) {
    written = written && writer.statement("UPDATE messages SET part = ?, file = ? WHERE rowid = ?")
                             .bind(1, moved.entry.part)
                             .bind(2, moved.entry.file)
                             .bind(3, moved.id)
                             .run();
  }
  for (const MessageEntry& added : changes.added) {
    written = written &&
              writer.statement("INSERT INTO messages(mailbox, name, part, file) VALUES(?, ?, ?, ?)")
                  .bind(1, mailbox)
                  .bind(2, added.name)
                  .bind(3, added.part)
                  .bind(4, added.file)
                  .run();
    ids.push_back(sqlite3_last_insert_rowid(writer.handle()));
  }
  if (!written || !transaction.commit()) return writer.error("cannot write the mail library");
  return ids;
}

}  // namespace thmp
