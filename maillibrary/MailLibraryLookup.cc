// SPDX-License-Identifier: Apache-2.0
#include "maillibrary/MailLibraryLookup.h"

#include <sqlite3.h>

#include <array>
#include <charconv>
#include <utility>

namespace thmp {

namespace {

// Where storage of a message is looked for, in this order.
constexpr std::array<int, 2> kStorageTypes = {0, 1};

void appendNumber(std::string& text, std::int64_t number) {
  std::array<char, 24> digits;
  const auto [end, error] = std::to_chars(digits.begin(), digits.end(), number);
  text.append(digits.begin(), end);
}

/// Two columns of integers, row by row, of a statement that is finalised with this object. Without
/// a handle, or with a text that does not prepare, there are no rows.
class IntegerRows {
 public:
  IntegerRows(sqlite3* handle, const std::string& sql) noexcept {
    if (handle == nullptr) return;
    if (sqlite3_prepare_v2(handle, sql.c_str(), -1, &statement_, nullptr) != SQLITE_OK) {
      statement_ = nullptr;
    }
  }
  ~IntegerRows() { sqlite3_finalize(statement_); }
  IntegerRows(const IntegerRows&) = delete;
  IntegerRows& operator=(const IntegerRows&) = delete;

  /// False at the end and at an error alike.
  bool next() noexcept { return statement_ != nullptr && sqlite3_step(statement_) == SQLITE_ROW; }
  std::int64_t column(int index) const noexcept { return sqlite3_column_int64(statement_, index); }

 private:
  sqlite3_stmt* statement_ = nullptr;
};

std::string mailboxesStatement(const std::vector<std::int64_t>& libraryIDs) {
  std::string sql = "SELECT rowid, mailbox FROM messages where rowid in (";
  sql.reserve(sql.size() + libraryIDs.size() * 8);
  for (std::size_t i = 0; i < libraryIDs.size(); ++i) {
    if (i > 0) sql += ',';
    appendNumber(sql, libraryIDs[i]);
  }
  return sql += ')';
}

}  // namespace

std::shared_ptr<MailLibrary> MailLibraryLookup::library() {
  {
    const Lock lock(mutex_);
    if (library_) return library_;
  }
  // Two first calls may both ask; the first answer stays.
  const std::shared_ptr<MailLibraryClass> libraryClass = mail_.libraryClass("MFLibrary");
  std::shared_ptr<MailLibrary> found = libraryClass ? libraryClass->defaultLibrary() : nullptr;
  const Lock lock(mutex_);
  if (!library_) library_ = std::move(found);
  return library_;
}

bool MailLibraryLookup::scPerformSynchronousSqliteBlock(
    const std::function<void(sqlite3* handle)>& block) {
  const std::shared_ptr<MailLibrary> mailLibrary = library();
  if (!mailLibrary || !mailLibrary->libraryDatabase) return false;
  const std::shared_ptr<LibraryDatabase> database = mailLibrary->libraryDatabase();
  if (!database || !database->performReadBlock) return false;
  database->performReadBlock([&block](LibraryConnection& connection) noexcept {
    try {
      block(connection.sqlDB());
    } catch (...) {
      // Nothing may be thrown into the mail application; what was read until here is used.
    }
    return true;
  });
  return true;
}

std::optional<std::string> MailLibraryLookup::existingDataPath(const MailLibrary& mailLibrary,
                                                               std::int64_t libraryID,
                                                               std::int64_t mailboxID) {
  for (const int type : kStorageTypes) {
    std::string path = mailLibrary.dataPathForMessage(libraryID, mailboxID, type);
    if (!path.empty() && files_.exists(path)) return path;
  }
  return std::nullopt;
}

std::optional<std::string> MailLibraryLookup::messagePath(std::int64_t libraryID) {
  const std::shared_ptr<MailLibrary> mailLibrary = library();
  if (!mailLibrary) return std::nullopt;
  const std::shared_ptr<MailMessage> message = mailLibrary->messageWithLibraryID(libraryID);
  return message ? message->path() : std::nullopt;
}

MailLibraryLookup::PathsByID MailLibraryLookup::dataPaths(
    const std::vector<std::int64_t>& libraryIDs) {
  PathsByID paths;
  if (libraryIDs.empty()) return paths;
  std::unordered_map<std::int64_t, std::int64_t> mailboxes;
  mailboxes.reserve(libraryIDs.size());
  const std::string sql = mailboxesStatement(libraryIDs);
  const bool handedOver = scPerformSynchronousSqliteBlock([&](sqlite3* handle) {
    IntegerRows rows(handle, sql);
    while (rows.next()) mailboxes.insert_or_assign(rows.column(0), rows.column(1));
  });
  const std::shared_ptr<MailLibrary> mailLibrary = library();
  if (!handedOver || !mailLibrary || !mailLibrary->dataPathForMessage) return paths;
  paths.reserve(mailboxes.size());
  for (const std::int64_t libraryID : libraryIDs) {
    const auto mailbox = mailboxes.find(libraryID);
    if (mailbox == mailboxes.end()) continue;
    // A mailbox of 0 is used like any other here; the lookup of a single message takes it for none.
    if (auto path = existingDataPath(*mailLibrary, libraryID, mailbox->second)) {
      paths.insert_or_assign(libraryID, std::move(*path));
    }
  }
  return paths;
}

std::vector<FoundItem> MailLibraryLookup::loadFilePaths(std::vector<FoundItem> items,
                                                        std::uint64_t& foundItemIndex) {
  std::vector<std::int64_t> libraryIDs;
  libraryIDs.reserve(items.size());
  for (const FoundItem& item : items) {
    if (!item.path && item.libraryID) libraryIDs.push_back(*item.libraryID);
  }
  const PathsByID paths = dataPaths(libraryIDs);

  std::vector<FoundItem> kept;
  kept.reserve(items.size());
  for (FoundItem& item : items) {
    if (!item.path) {
      if (!item.libraryID) continue;
      const auto found = paths.find(*item.libraryID);
      item.path = found != paths.end() ? found->second : messagePath(*item.libraryID);
      if (!item.path) continue;
      if (!item.attributes.contains("kMDItemDisplayName")) {
        item.attributes.set("kMDItemDisplayName", files_.displayName(*item.path));
      }
    }
    item.index = foundItemIndex++;
    kept.push_back(std::move(item));
  }
  return kept;
}

std::optional<std::string> MailLibraryLookup::emlxPathForMessageWithLibraryID(
    std::int64_t libraryID) {
  const std::shared_ptr<MailLibrary> mailLibrary = library();
  std::int64_t mailboxID = 0;
  bool handedOver = false;
  if (libraryID != 0) {
    std::string sql = "SELECT rowid, mailbox FROM messages where rowid = ";
    appendNumber(sql, libraryID);
    handedOver = scPerformSynchronousSqliteBlock([&](sqlite3* handle) {
      IntegerRows rows(handle, sql);
      if (rows.next()) mailboxID = rows.column(1);
    });
  }
  if (handedOver && mailboxID != 0 && mailLibrary && mailLibrary->dataPathForMessage) {
    if (auto path = existingDataPath(*mailLibrary, libraryID, mailboxID)) return path;
  }
  return messagePath(libraryID);
}

}  // namespace thmp
