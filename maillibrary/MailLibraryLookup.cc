// SPDX-License-Identifier: Apache-2.0
#include "maillibrary/MailLibraryLookup.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <numeric>
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

/// In the order of `messages`.
std::vector<std::string> dataPathsOfType(const MailLibrary& mailLibrary,
                                         const std::vector<MailMessagePlace>& messages, int type) {
  std::vector<std::string> paths;
  if (!messages.empty() && mailLibrary.dataPathsForMessages) {
    paths = mailLibrary.dataPathsForMessages(messages, type);
    paths.resize(messages.size());
    return paths;
  }
  paths.reserve(messages.size());
  for (const MailMessagePlace& message : messages) {
    paths.push_back(mailLibrary.dataPathForMessage(message.libraryID, message.mailboxID, type));
  }
  return paths;
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

std::vector<std::string> MailLibraryLookup::existingDataPaths(
    const MailLibrary& mailLibrary, const std::vector<MailMessagePlace>& messages) {
  std::vector<std::string> paths(messages.size());
  std::vector<MailMessagePlace> asked = messages;
  std::vector<std::size_t> places(messages.size());
  std::iota(places.begin(), places.end(), std::size_t{0});
  for (const int type : kStorageTypes) {
    std::vector<std::string> found = dataPathsOfType(mailLibrary, asked, type);
    std::size_t left = 0;
    for (std::size_t i = 0; i < asked.size(); ++i) {
      if (!found[i].empty() && files_.exists(found[i])) {
        paths[places[i]] = std::move(found[i]);
      } else {
        asked[left] = asked[i];
        places[left++] = places[i];
      }
    }
    asked.resize(left);
  }
  return paths;
}

std::optional<std::string> MailLibraryLookup::messagePath(std::int64_t libraryID) {
  const std::shared_ptr<MailLibrary> mailLibrary = library();
  if (!mailLibrary) return std::nullopt;
  const std::shared_ptr<MailMessage> message = mailLibrary->messageWithLibraryID(libraryID);
  return message ? message->path() : std::nullopt;
}

std::vector<std::string> MailLibraryLookup::dataPaths(const std::vector<std::int64_t>& libraryIDs) {
  std::vector<std::string> paths(libraryIDs.size());
  if (libraryIDs.empty()) return paths;
  std::vector<MailMessagePlace> known;
  known.reserve(libraryIDs.size());
  const std::string sql = mailboxesStatement(libraryIDs);
  const bool handedOver = scPerformSynchronousSqliteBlock([&](sqlite3* handle) {
    IntegerRows rows(handle, sql);
    while (rows.next()) known.push_back({rows.column(0), rows.column(1)});
  });
  const std::shared_ptr<MailLibrary> mailLibrary = library();
  if (!handedOver || !mailLibrary || !mailLibrary->dataPathForMessage) return paths;
  const auto isBefore = [](const MailMessagePlace& a, const MailMessagePlace& b) {
    return a.libraryID < b.libraryID;
  };
  if (!std::is_sorted(known.begin(), known.end(), isBefore)) {
    std::stable_sort(known.begin(), known.end(), isBefore);
  }
  std::vector<MailMessagePlace> messages;
  std::vector<std::size_t> places;
  messages.reserve(known.size());
  places.reserve(known.size());
  for (std::size_t i = 0; i < libraryIDs.size(); ++i) {
    // Of rows with one ID the last one counts.
    const auto after =
        std::upper_bound(known.begin(), known.end(), MailMessagePlace{libraryIDs[i], 0}, isBefore);
    if (after == known.begin() || std::prev(after)->libraryID != libraryIDs[i]) continue;
    // A mailbox of 0 is used like any other here; the lookup of a single message takes it for none.
    messages.push_back(*std::prev(after));
    places.push_back(i);
  }
  std::vector<std::string> found = existingDataPaths(*mailLibrary, messages);
  for (std::size_t i = 0; i < places.size(); ++i) paths[places[i]] = std::move(found[i]);
  return paths;
}

std::vector<FoundItem> MailLibraryLookup::loadFilePaths(std::vector<FoundItem> items,
                                                        std::uint64_t& foundItemIndex) {
  std::vector<std::int64_t> libraryIDs;
  libraryIDs.reserve(items.size());
  for (const FoundItem& item : items) {
    if (!item.path && item.libraryID) libraryIDs.push_back(*item.libraryID);
  }
  std::vector<std::string> paths = dataPaths(libraryIDs);
  std::size_t next = 0;  // of `paths`

  std::vector<FoundItem> kept;
  kept.reserve(items.size());
  for (FoundItem& item : items) {
    if (!item.path) {
      if (!item.libraryID) continue;
      std::string& path = paths[next++];
      item.path = path.empty() ? messagePath(*item.libraryID) : std::move(path);
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
    std::vector<std::string> paths = existingDataPaths(*mailLibrary, {{libraryID, mailboxID}});
    if (!paths.front().empty()) return std::move(paths.front());
  }
  return messagePath(libraryID);
}

}  // namespace thmp
