// SPDX-License-Identifier: Apache-2.0
#include "maillibrary/MailLibraryLookup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <limits>
#include <new>
#include <random>
#include <thread>

#include "platform/fake/FakePlatform.h"

namespace thmp {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using DataPathCall = ScriptedLibrary::DataPathCall;

FoundItem itemWithID(std::int64_t libraryID) {
  FoundItem item;
  item.libraryID = libraryID;
  return item;
}

FoundItem itemWithPath(const std::string& path) {
  FoundItem item;
  item.path = path;
  return item;
}

class LibraryLookup : public ::testing::Test {
 protected:
  /// A message with row, data path and file.
  void addMessage(std::int64_t libraryID, std::int64_t mailboxID, const std::string& path) {
    fake_.mail.addMessage(libraryID, mailboxID, path);
    fake_.files.writeFile(path, "mail");
  }

  std::vector<std::string> pathsOf(std::vector<FoundItem> items) {
    std::vector<std::string> paths;
    for (const FoundItem& item : lookup_.loadFilePaths(std::move(items), index_)) {
      paths.push_back(item.path.value_or("none"));
    }
    return paths;
  }

  ScriptedLibrary& library() { return fake_.mail.library(); }
  ScriptedDatabase& database() { return fake_.mail.database(); }

  FakePlatform fake_;
  MailLibraryLookup lookup_{fake_.mail, fake_.files};
  std::uint64_t index_ = 0;
};

TEST_F(LibraryLookup, LibraryIsAskedForOnce) {
  const auto first = lookup_.library();
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(lookup_.library(), first);
  EXPECT_EQ(fake_.mail.defaultLibraryCount(), 1);
  EXPECT_THAT(fake_.mail.classNames(), ElementsAre("MFLibrary"));
}

TEST_F(LibraryLookup, MissingLibraryIsAskedForAgain) {
  fake_.mail.setHasLibrary(false);
  EXPECT_EQ(lookup_.library(), nullptr);
  EXPECT_EQ(lookup_.library(), nullptr);
  EXPECT_EQ(fake_.mail.defaultLibraryCount(), 2);
  fake_.mail.setHasLibrary(true);
  EXPECT_NE(lookup_.library(), nullptr);
}

TEST_F(LibraryLookup, LibraryOnceFoundIsKeptWhenTheClassGoes) {
  const auto first = lookup_.library();
  fake_.mail.setHasLibraryClass(false);
  EXPECT_EQ(lookup_.library(), first);
}

TEST_F(LibraryLookup, BlockGetsTheConnectionsHandleAndReadPathSucceeds) {
  sqlite3* seen = nullptr;
  EXPECT_TRUE(lookup_.scPerformSynchronousSqliteBlock([&](sqlite3* handle) { seen = handle; }));
  EXPECT_NE(seen, nullptr);
  EXPECT_EQ(database().readBlocks(), 1);
  EXPECT_EQ(database().lastBlockResult(), true);
}

TEST_F(LibraryLookup, BlockIsNotRunWithoutReadPath) {
  int runs = 0;
  const auto block = [&](sqlite3*) { ++runs; };
  database().performReadBlock = nullptr;
  EXPECT_FALSE(lookup_.scPerformSynchronousSqliteBlock(block));
  library().setDatabase(nullptr);
  EXPECT_FALSE(lookup_.scPerformSynchronousSqliteBlock(block));
  library().libraryDatabase = nullptr;
  EXPECT_FALSE(lookup_.scPerformSynchronousSqliteBlock(block));
  EXPECT_EQ(runs, 0);
}

TEST_F(LibraryLookup, BlockThatThrowsDoesNotReachTheMailApplication) {
  EXPECT_TRUE(lookup_.scPerformSynchronousSqliteBlock([](sqlite3*) { throw std::bad_alloc(); }));
  EXPECT_EQ(database().lastBlockResult(), true);
}

TEST_F(LibraryLookup, EmptyBatchRunsNoSqlAndLeavesTheCounter) {
  index_ = 5;
  EXPECT_THAT(pathsOf({}), IsEmpty());
  EXPECT_EQ(database().readBlocks(), 0);
  EXPECT_EQ(index_, 5u);
}

TEST_F(LibraryLookup, ItemsWithPathsRunNoSqlAndChangeButForTheirIndex) {
  index_ = 3;
  FoundItem item = itemWithPath("/mail/a.eml");
  item.libraryID = 9;
  item.attributes.set("kMDItemSubject", "Hello");
  const auto kept = lookup_.loadFilePaths({item, itemWithPath("/mail/b.eml")}, index_);
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(kept[0].attributes.size(), 1u);
  EXPECT_EQ(kept[0].libraryID, 9);
  EXPECT_EQ(kept[0].path, "/mail/a.eml");
  EXPECT_EQ(kept[0].index, 3u);
  EXPECT_EQ(kept[1].index, 4u);
  EXPECT_EQ(index_, 5u);
  EXPECT_EQ(database().readBlocks(), 0);
  EXPECT_THAT(fake_.files.accesses(), IsEmpty());
}

TEST_F(LibraryLookup, OneStatementAsksForAllIDsInTheirOrderRepeatsIncluded) {
  addMessage(7, 1, "/mail/7.eml");
  addMessage(12, 1, "/mail/12.eml");
  const auto kept = lookup_.loadFilePaths({itemWithID(12), itemWithID(7), itemWithID(12)}, index_);
  EXPECT_THAT(database().statements(),
              ElementsAre("SELECT rowid, mailbox FROM messages where rowid in (12,7,12)"));
  ASSERT_EQ(kept.size(), 3u);
  EXPECT_EQ(kept[0].path, "/mail/12.eml");
  EXPECT_EQ(kept[2].path, "/mail/12.eml");
  EXPECT_EQ(kept[0].index, 0u);
  EXPECT_EQ(kept[1].path, "/mail/7.eml");
  EXPECT_EQ(kept[2].index, 2u);
}

TEST_F(LibraryLookup, WholeRangeOfIDsIsAskedFor) {
  constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
  constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
  addMessage(kHighest, 1, "/mail/high.eml");
  EXPECT_THAT(pathsOf({itemWithID(kLowest), itemWithID(-5), itemWithID(0), itemWithID(kHighest)}),
              ElementsAre("/mail/high.eml"));
  EXPECT_THAT(database().statements(),
              ElementsAre("SELECT rowid, mailbox FROM messages where rowid in "
                          "(-9223372036854775808,-5,0,9223372036854775807)"));
}

TEST_F(LibraryLookup, DroppedItemsLeaveNoGapsInTheIndicesOfSeveralBatches) {
  addMessage(1, 1, "/mail/1.eml");
  addMessage(2, 1, "/mail/2.eml");
  const auto first =
      lookup_.loadFilePaths({itemWithID(1), FoundItem(), itemWithPath("/mail/p.eml")}, index_);
  ASSERT_EQ(first.size(), 2u);
  EXPECT_EQ(first[0].index, 0u);
  EXPECT_EQ(first[1].index, 1u);
  const auto second = lookup_.loadFilePaths({itemWithID(404), itemWithID(2)}, index_);
  ASSERT_EQ(second.size(), 1u);
  EXPECT_EQ(second[0].index, 2u);
  EXPECT_EQ(index_, 3u);
}

TEST_F(LibraryLookup, WithoutTheLibraryClassOnlyItemsWithPathsAreKept) {
  fake_.mail.setHasLibraryClass(false);
  addMessage(1, 1, "/mail/1.eml");
  EXPECT_THAT(pathsOf({itemWithID(1), itemWithPath("/mail/p.eml")}), ElementsAre("/mail/p.eml"));
  EXPECT_EQ(lookup_.emlxPathForMessageWithLibraryID(1), std::nullopt);
}

TEST_F(LibraryLookup, IDWithoutRowFallsBackToTheMessageObject) {
  library().setMessage(5, "/elsewhere/5.eml");
  EXPECT_THAT(pathsOf({itemWithID(5)}), ElementsAre("/elsewhere/5.eml"));
  EXPECT_THAT(library().dataPathCalls(), IsEmpty());
  // Not tested on disk.
  EXPECT_EQ(fake_.files.count(FileOperation::kExists), 0u);
}

TEST_F(LibraryLookup, MessageObjectWithoutPathDropsTheItem) {
  library().setMessage(5, std::nullopt);
  EXPECT_THAT(pathsOf({itemWithID(5)}), IsEmpty());
  EXPECT_EQ(index_, 0u);
}

TEST_F(LibraryLookup, MessageObjectIsAskedOnlyForWhatTheBatchDidNotResolve) {
  addMessage(1, 1, "/mail/1.eml");
  library().setMessage(1, "/never/1.eml");
  library().setMessage(2, "/mail/2.eml");
  EXPECT_THAT(pathsOf({itemWithID(1), itemWithID(2)}), ElementsAre("/mail/1.eml", "/mail/2.eml"));
  EXPECT_THAT(library().messageCalls(), ElementsAre(2));
}

TEST_F(LibraryLookup, TypeOneIsTakenWhenTypeZeroIsEmpty) {
  database().addRow(1, 4);
  library().setDataPath(1, 4, 1, "/mail/1.partial.eml");
  fake_.files.writeFile("/mail/1.partial.eml", "");
  EXPECT_THAT(pathsOf({itemWithID(1)}), ElementsAre("/mail/1.partial.eml"));
  EXPECT_THAT(library().dataPathCalls(), ElementsAre(DataPathCall{1, 4, 0}, DataPathCall{1, 4, 1}));
}

TEST_F(LibraryLookup, TypeOneIsTakenWhenTypeZeroNamesNoFile) {
  database().addRow(1, 4);
  library().setDataPath(1, 4, 0, "/mail/1.eml");
  library().setDataPath(1, 4, 1, "/mail/1.partial.eml");
  fake_.files.writeFile("/mail/1.partial.eml", "");
  EXPECT_THAT(pathsOf({itemWithID(1)}), ElementsAre("/mail/1.partial.eml"));
  EXPECT_EQ(lookup_.emlxPathForMessageWithLibraryID(1), "/mail/1.partial.eml");
}

TEST_F(LibraryLookup, DataPathsWithoutFilesFallBackToTheMessageObject) {
  database().addRow(1, 4);
  library().setDataPath(1, 4, 0, "/mail/1.eml");
  library().setDataPath(1, 4, 1, "/mail/1.partial.eml");
  library().setMessage(1, "/moved/1.eml");
  EXPECT_THAT(pathsOf({itemWithID(1)}), ElementsAre("/moved/1.eml"));
  EXPECT_EQ(lookup_.emlxPathForMessageWithLibraryID(1), "/moved/1.eml");
}

class LibraryThatAnswersForMany : public LibraryLookup {
 protected:
  void SetUp() override {
    library().dataPathsForMessages = [this](std::span<const MailMessagePlace> messages, int type) {
      std::string line = "type " + std::to_string(type);
      std::vector<std::string> paths;
      for (const MailMessagePlace& message : messages) {
        line += " " + std::to_string(message.libraryID);
        paths.push_back(library().dataPathForMessage(message.libraryID, message.mailboxID, type));
      }
      calls_.push_back(line);
      paths.resize(std::min(paths.size(), mostPaths_));
      return paths;
    };
  }

  std::vector<std::string> calls_;
  std::size_t mostPaths_ = SIZE_MAX;
};

TEST_F(LibraryThatAnswersForMany, IsAskedOnceATypeForWhatIsNotFoundYet) {
  addMessage(1, 1, "/mail/1.eml");
  addMessage(2, 1, "/mail/2.eml");
  database().addRow(3, 1);
  library().setDataPath(3, 1, 0, "/gone/3.eml");
  library().setDataPath(3, 1, 1, "/mail/3.partial.emlx");
  fake_.files.writeFile("/mail/3.partial.emlx", "mail");
  database().addRow(4, 1);
  library().setMessage(4, "/elsewhere/4.eml");
  EXPECT_THAT(
      pathsOf({itemWithID(4), itemWithID(3), itemWithID(9), itemWithID(2), itemWithID(1)}),
      ElementsAre("/elsewhere/4.eml", "/mail/3.partial.emlx", "/mail/2.eml", "/mail/1.eml"));
  EXPECT_THAT(calls_, ElementsAre("type 0 4 3 2 1", "type 1 4 3"));
}

TEST_F(LibraryThatAnswersForMany, IsNotAskedForNothing) {
  addMessage(1, 1, "/mail/1.eml");
  EXPECT_THAT(pathsOf({itemWithID(1)}), ElementsAre("/mail/1.eml"));
  EXPECT_THAT(pathsOf({itemWithID(9)}), IsEmpty());
  EXPECT_THAT(calls_, ElementsAre("type 0 1"));
}

TEST_F(LibraryThatAnswersForMany, AnswerThatIsTooShortLeavesTheMessageObject) {
  addMessage(1, 1, "/mail/1.eml");
  addMessage(2, 1, "/mail/2.eml");
  library().setMessage(2, "/elsewhere/2.eml");
  mostPaths_ = 1;
  EXPECT_THAT(pathsOf({itemWithID(1), itemWithID(2)}),
              ElementsAre("/mail/1.eml", "/elsewhere/2.eml"));
}

TEST_F(LibraryThatAnswersForMany, IsNotAskedWithoutTheOperationForOne) {
  addMessage(1, 1, "/mail/1.eml");
  library().dataPathForMessage = nullptr;
  EXPECT_THAT(pathsOf({itemWithID(1)}), IsEmpty());
  EXPECT_THAT(calls_, IsEmpty());
}

TEST_F(LibraryLookup, MailboxZeroIsUsedInABatchAndIgnoredForASingleMessage) {
  addMessage(1, 0, "/mail/1.eml");
  library().setMessage(1, "/object/1.eml");
  EXPECT_THAT(pathsOf({itemWithID(1)}), ElementsAre("/mail/1.eml"));
  EXPECT_THAT(library().dataPathCalls(), ElementsAre(DataPathCall{1, 0, 0}));
  EXPECT_EQ(lookup_.emlxPathForMessageWithLibraryID(1), "/object/1.eml");
  EXPECT_THAT(library().dataPathCalls(), ElementsAre(DataPathCall{1, 0, 0}));
}

TEST_F(LibraryLookup, SingleMessageRunsItsOwnStatement) {
  addMessage(42, 3, "/mail/42.eml");
  EXPECT_EQ(lookup_.emlxPathForMessageWithLibraryID(42), "/mail/42.eml");
  EXPECT_THAT(database().statements(),
              ElementsAre("SELECT rowid, mailbox FROM messages where rowid = 42"));
  EXPECT_THAT(library().messageCalls(), IsEmpty());
}

TEST_F(LibraryLookup, SingleMessageZeroRunsNoSqlAndAsksTheMessageObject) {
  library().setMessage(0, "/object/0.eml");
  EXPECT_EQ(lookup_.emlxPathForMessageWithLibraryID(0), "/object/0.eml");
  EXPECT_EQ(database().readBlocks(), 0);
  EXPECT_THAT(library().messageCalls(), ElementsAre(0));
}

TEST_F(LibraryLookup, DisplayNameComesFromTheFileOnlyWhenThereIsNone) {
  addMessage(1, 1, "/mail/1.eml");
  addMessage(2, 1, "/mail/2.eml");
  FoundItem named = itemWithID(1);
  named.attributes.set("kMDItemDisplayName", "Given");
  const auto kept = lookup_.loadFilePaths({named, itemWithID(2)}, index_);
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(kept[0].attributes["kMDItemDisplayName"], Value("Given"));
  EXPECT_EQ(kept[1].attributes["kMDItemDisplayName"], Value("2.eml"));
}

TEST_F(LibraryLookup, DisplayNameDoesNotReachTheAttributesOfOthers) {
  addMessage(1, 1, "/mail/1.eml");
  FoundItem item = itemWithID(1);
  item.attributes.set("kMDItemSubject", "Hello");
  const Dictionary engines = item.attributes;
  const auto kept = lookup_.loadFilePaths({item}, index_);
  EXPECT_TRUE(kept.front().attributes.contains("kMDItemDisplayName"));
  EXPECT_FALSE(engines.contains("kMDItemDisplayName"));
}

TEST_F(LibraryLookup, TableThatCannotBeReadLeavesTheMessageObject) {
  database().execute("DROP TABLE messages");
  library().setMessage(1, "/object/1.eml");
  EXPECT_THAT(pathsOf({itemWithID(1)}), ElementsAre("/object/1.eml"));
  EXPECT_EQ(lookup_.emlxPathForMessageWithLibraryID(1), "/object/1.eml");
  EXPECT_EQ(database().openStatements(), 0);
}

TEST_F(LibraryLookup, LockedTableLeavesTheMessageObjectAndIsReadLater) {
  addMessage(1, 4, "/mail/1.eml");
  library().setMessage(1, "/object/1.eml");
  sqlite3* shared = nullptr;
  sqlite3* writer = nullptr;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_URI;
  const char* const name = "file:locked?mode=memory&cache=shared";
  ASSERT_EQ(sqlite3_open_v2(name, &shared, flags, nullptr), SQLITE_OK);
  ASSERT_EQ(sqlite3_open_v2(name, &writer, flags, nullptr), SQLITE_OK);
  const auto run = [writer](const char* sql) {
    ASSERT_EQ(sqlite3_exec(writer, sql, nullptr, nullptr, nullptr), SQLITE_OK);
  };
  run("CREATE TABLE messages (rowid INTEGER PRIMARY KEY, mailbox INTEGER);"
      "INSERT INTO messages VALUES (1, 4)");
  database().performReadBlock = [shared](const auto& block) {
    class Lent : public LibraryConnection {
     public:
      explicit Lent(sqlite3* handle) : handle_(handle) {}
      sqlite3* sqlDB() override { return handle_; }

     private:
      sqlite3* const handle_;
    };
    Lent connection(shared);
    block(connection);
  };
  run("BEGIN EXCLUSIVE; UPDATE messages SET mailbox = 5");
  EXPECT_THAT(pathsOf({itemWithID(1)}), ElementsAre("/object/1.eml"));
  EXPECT_EQ(lookup_.emlxPathForMessageWithLibraryID(1), "/object/1.eml");
  run("ROLLBACK");
  EXPECT_THAT(pathsOf({itemWithID(1)}), ElementsAre("/mail/1.eml"));
  EXPECT_EQ(sqlite3_close(shared), SQLITE_OK);
  EXPECT_EQ(sqlite3_close(writer), SQLITE_OK);
}

TEST_F(LibraryLookup, RowsReadBeforeAnErrorAreUsedAndTheStatementIsFinalized) {
  // The view's second row fails while it is stepped.
  database().execute(
      "DROP TABLE messages; CREATE TABLE stored (rowid INTEGER PRIMARY KEY, mailbox);"
      "INSERT INTO stored VALUES (1, 4), (2, -9223372036854775808);"
      "CREATE VIEW messages AS SELECT rowid AS rowid, abs(mailbox) AS mailbox FROM stored");
  library().setDataPath(1, 4, 0, "/mail/1.eml");
  fake_.files.writeFile("/mail/1.eml", "");
  library().setMessage(2, "/object/2.eml");
  EXPECT_THAT(pathsOf({itemWithID(1), itemWithID(2)}), ElementsAre("/mail/1.eml", "/object/2.eml"));
  EXPECT_THAT(library().dataPathCalls(), ElementsAre(DataPathCall{1, 4, 0}));
  EXPECT_EQ(database().openStatements(), 0);
}

TEST_F(LibraryLookup, StatementIsFinalizedInsideTheReadBlock) {
  addMessage(1, 1, "/mail/1.eml");
  int open = -1;
  const auto runBlock = database().performReadBlock;
  database().performReadBlock = [&](const std::function<bool(LibraryConnection&)>& block) {
    runBlock(block);
    open = database().openStatements();
  };
  pathsOf({itemWithID(1)});
  EXPECT_EQ(open, 0);
  open = -1;
  lookup_.emlxPathForMessageWithLibraryID(1);
  EXPECT_EQ(open, 0);
}

TEST_F(LibraryLookup, BatchOfTwoThousandIsOneReadBlock) {
  std::vector<FoundItem> items;
  for (std::int64_t id = 1; id <= 2000; ++id) {
    addMessage(id, 1, "/mail/" + std::to_string(id) + ".eml");
    items.push_back(itemWithID(id));
  }
  EXPECT_EQ(lookup_.loadFilePaths(std::move(items), index_).size(), 2000u);
  EXPECT_EQ(database().readBlocks(), 1);
  EXPECT_EQ(fake_.files.count(FileOperation::kExists), 2000u);
}

/// What may be missing, a bit each.
struct Probes {
  explicit Probes(unsigned bits)
      : libraryClass((bits & 1) != 0),
        library((bits & 2) != 0),
        database((bits & 4) != 0),
        readBlock((bits & 8) != 0),
        handle((bits & 16) != 0),
        dataPath((bits & 32) != 0) {}

  bool hasLibrary() const { return libraryClass && library; }
  bool hasReadPath() const { return hasLibrary() && database && readBlock; }
  bool resolvesByRow() const { return hasReadPath() && handle && dataPath; }

  bool libraryClass, library, database, readBlock, handle, dataPath;
};

class AnyCombination : public LibraryLookup, public ::testing::WithParamInterface<unsigned> {};

TEST_P(AnyCombination, OfMissingFacilitiesLeavesTheNextStrategy) {
  const Probes probes(GetParam());
  addMessage(1, 3, "/mail/1.eml");
  library().setMessage(1, "/object/1.eml");
  fake_.mail.setHasLibraryClass(probes.libraryClass);
  fake_.mail.setHasLibrary(probes.library);
  if (!probes.database) library().libraryDatabase = nullptr;
  if (!probes.readBlock) database().performReadBlock = nullptr;
  database().lendNullHandle(!probes.handle);
  if (!probes.dataPath) library().dataPathForMessage = nullptr;

  std::optional<std::string> expected;
  if (probes.hasLibrary()) expected = probes.resolvesByRow() ? "/mail/1.eml" : "/object/1.eml";
  const auto kept =
      lookup_.loadFilePaths({itemWithID(1), itemWithPath("/given.eml"), FoundItem()}, index_);
  ASSERT_EQ(kept.size(), expected ? 2u : 1u);
  if (expected) {
    EXPECT_EQ(kept.front().path, expected);
  }
  EXPECT_EQ(kept.back().path, "/given.eml");
  EXPECT_EQ(kept.back().index, kept.size() - 1);
  EXPECT_EQ(lookup_.emlxPathForMessageWithLibraryID(1), expected);
  EXPECT_EQ(database().readBlocks(), probes.hasReadPath() ? 2 : 0);
  EXPECT_EQ(database().openStatements(), 0);
}

INSTANTIATE_TEST_SUITE_P(Probes, AnyCombination, ::testing::Range(0u, 64u));

/// A database in memory that begins as these bytes of a file.
class DatabaseOfBytes : public LibraryConnection {
 public:
  explicit DatabaseOfBytes(std::string bytes) : bytes_(std::move(bytes)) {
    EXPECT_EQ(sqlite3_open(":memory:", &handle_), SQLITE_OK);
    const auto size = static_cast<sqlite3_int64>(bytes_.size());
    EXPECT_EQ(sqlite3_deserialize(handle_, "main", reinterpret_cast<unsigned char*>(bytes_.data()),
                                  size, size, SQLITE_DESERIALIZE_READONLY),
              SQLITE_OK);
  }
  ~DatabaseOfBytes() override { EXPECT_EQ(sqlite3_close(handle_), SQLITE_OK); }
  DatabaseOfBytes(const DatabaseOfBytes&) = delete;
  DatabaseOfBytes& operator=(const DatabaseOfBytes&) = delete;

  sqlite3* sqlDB() override { return handle_; }

 private:
  std::string bytes_;
  sqlite3* handle_ = nullptr;
};

/// A database file with the messages 1 to `count`, in pages of 512 bytes.
std::string databaseFile(std::int64_t count) {
  sqlite3* handle = nullptr;
  EXPECT_EQ(sqlite3_open(":memory:", &handle), SQLITE_OK);
  std::string sql =
      "PRAGMA page_size = 512; CREATE TABLE messages (rowid INTEGER PRIMARY KEY, mailbox INTEGER);";
  for (std::int64_t id = 1; id <= count; ++id) {
    sql += "INSERT INTO messages VALUES (" + std::to_string(id) + "," + std::to_string(id % 7 + 2) +
           ");";
  }
  EXPECT_EQ(sqlite3_exec(handle, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_int64 size = 0;
  unsigned char* const bytes = sqlite3_serialize(handle, "main", &size, 0);
  std::string file(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
  sqlite3_free(bytes);
  sqlite3_close(handle);
  return file;
}

TEST_F(LibraryLookup, DamageAnywhereInTheDatabaseLeavesTheMessageObject) {
  constexpr std::int64_t kMessages = 600;
  constexpr std::size_t kPage = 512;
  const std::string good = databaseFile(kMessages);
  for (std::int64_t id = 1; id <= kMessages; ++id) {
    fake_.files.writeFile("/stored/" + std::to_string(id), "mail");
    library().setDataPath(id, id % 7 + 2, 0, "/stored/" + std::to_string(id));
    library().setMessage(id, "/objects/" + std::to_string(id));
  }
  ASSERT_GT(good.size(), 10 * kPage);

  std::mt19937 random(5);
  int damaged = 0;
  std::size_t readAll = 0;
  for (int round = 0; round < 250; ++round) {
    std::string bad = good;
    const std::size_t page = static_cast<std::size_t>(round) % (bad.size() / kPage);
    // A page of noise, and now and then a few bytes of it only.
    const std::size_t from = round % 3 == 0 ? random() % (kPage - 8) : 0;
    const std::size_t to = round % 3 == 0 ? from + 8 : kPage;
    for (std::size_t at = from; at < to; ++at) bad[page * kPage + at] = static_cast<char>(random());
    DatabaseOfBytes connection(std::move(bad));
    database().performReadBlock =
        [&](const std::function<bool(LibraryConnection & connection)>& block) {
          block(connection);
        };
    std::vector<FoundItem> items;
    for (std::int64_t id = 1; id <= kMessages; ++id) items.push_back(itemWithID(id));
    std::uint64_t index = 0;
    const auto found = lookup_.loadFilePaths(std::move(items), index);
    ASSERT_EQ(found.size(), static_cast<std::size_t>(kMessages)) << round;
    std::size_t read = 0;
    for (std::size_t i = 0; i < found.size(); ++i) {
      const std::string name = "/" + std::to_string(i + 1);
      EXPECT_EQ(found[i].index, i);
      EXPECT_TRUE(found[i].path == "/stored" + name || found[i].path == "/objects" + name) << round;
      if (found[i].path == "/stored" + name) ++read;
    }
    EXPECT_EQ(sqlite3_next_stmt(connection.sqlDB(), nullptr), nullptr);
    if (read == found.size()) ++readAll;
    ++damaged;
  }
  EXPECT_LT(readAll, 50U);
  RecordProperty("bad_inputs", damaged);
}

TEST_F(LibraryLookup, SeveralThreadsMayLookUpAtOnce) {
  for (std::int64_t id = 1; id <= 20; ++id) {
    addMessage(id, 1, "/mail/" + std::to_string(id) + ".eml");
  }
  std::vector<std::thread> threads;
  std::vector<std::size_t> counts(4);
  threads.reserve(counts.size());
  for (std::size_t& count : counts) {
    threads.emplace_back([this, &count] {
      std::uint64_t index = 0;
      std::vector<FoundItem> items;
      for (std::int64_t id = 1; id <= 20; ++id) items.push_back(itemWithID(id));
      count = lookup_.loadFilePaths(std::move(items), index).size();
      lookup_.emlxPathForMessageWithLibraryID(7);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(counts, ElementsAre(20u, 20u, 20u, 20u));
}

TEST(FoundItemDictionary, HoldsWhatTheItemHas) {
  FoundItem item;
  EXPECT_EQ(Value(item.dictionary()),
            Value(Dictionary{{"attributes", Dictionary()}, {"index", 0}}));
  item.attributes.set("kMDItemSubject", "Hello");
  item.libraryID = -7;
  item.path = "/mail/7.eml";
  item.index = 41;
  EXPECT_TRUE(Value::identical(item.dictionary(),
                               Dictionary{{"attributes", Dictionary{{"kMDItemSubject", "Hello"}}},
                                          {"libraryID", -7},
                                          {"kMDItemPath", "/mail/7.eml"},
                                          {"index", 41}}));
}

TEST(FoundItemDictionary, SharesTheAttributes) {
  FoundItem item;
  item.attributes.set("kMDItemSubject", "Hello");
  EXPECT_EQ(item.dictionary()["attributes"].identity(), item.attributes.identity());
}

}  // namespace
}  // namespace thmp
