// SPDX-License-Identifier: Apache-2.0
#include "host/store/Library.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "host/store/test_support.h"

namespace thmp {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using testing_support::TemporaryFolder;

class TheLibrary : public ::testing::Test {
 protected:
  void SetUp() override {
    open();
    mailbox_ = *library_->addMailbox({"/m/A", "/m", MessageFormat::kMaildir, "mailbox.a"});
  }

  void open() {
    library_.reset();
    auto opened = Library::open(path_, Library::Access::kReadWrite);
    ASSERT_TRUE(opened) << opened.error().text();
    library_ = std::move(*opened);
  }
  std::vector<std::int64_t> add(std::vector<MessageEntry> entries) {
    LibraryChanges changes;
    changes.added = std::move(entries);
    const auto ids = library_->apply(mailbox_, changes);
    EXPECT_TRUE(ids);
    return ids ? *ids : std::vector<std::int64_t>();
  }

  TemporaryFolder folder_;
  const std::string path_ = folder_ / "data/library.sqlite";
  std::unique_ptr<Library> library_;
  std::int64_t mailbox_ = 0;
};

TEST_F(TheLibrary, IdsCountUpAndAreNeverGivenAgain) {
  EXPECT_THAT(add({{"a", "cur", "a:2,"}, {"b", "new", "b"}}), ElementsAre(1, 2));
  LibraryChanges changes;
  changes.removed = {1, 2};
  ASSERT_TRUE(library_->apply(mailbox_, changes));
  open();
  EXPECT_THAT(add({{"b", "new", "b"}}), ElementsAre(3));
}

TEST_F(TheLibrary, AChangeIsAllOrNothing) {
  add({{"a", "cur", "a:2,"}});
  LibraryChanges changes;
  changes.removed = {1};
  changes.added = {{"c", "cur", "c"}, {"c", "cur", "c"}};
  EXPECT_FALSE(library_->apply(mailbox_, changes));
  EXPECT_EQ(*library_->messageCount(), 1U);
  EXPECT_THAT(add({{"d", "cur", "d"}}), SizeIs(1)) << "and the library goes on";
}

TEST_F(TheLibrary, AMailboxKeepsItsIdWhileItsRootMayChange) {
  EXPECT_EQ(*library_->addMailbox({"/m/A", "/m/A", MessageFormat::kMaildir, "mailbox.inbox"}),
            mailbox_);
  EXPECT_EQ(library_->mailboxes()->at(0).folder.root, "/m/A");
  EXPECT_THAT(*library_->roots(), ElementsAre("/m/A"));
}

TEST_F(TheLibrary, DataPathsOfManyAreThoseOfEach) {
  add({{"a", "cur", "a:2,S"}, {"5.emlx", "Messages", "5.partial.emlx"}, {"b", "new", "b"}});
  const std::int64_t other =
      *library_->addMailbox({"/m/B", "/m", MessageFormat::kMaildir, "mailbox.b"});
  LibraryChanges changes;
  changes.added = {{"c", "cur", "c"}};
  ASSERT_TRUE(library_->apply(other, changes));
  const std::vector<MailMessagePlace> asked = {{4, other},    {3, mailbox_}, {99, mailbox_},
                                               {1, mailbox_}, {2, mailbox_}, {1, other},
                                               {3, mailbox_}, {0, 0}};
  for (const int type : {0, 1, 2}) {
    std::vector<std::string> each;
    for (const MailMessagePlace& message : asked) {
      each.push_back(library_->dataPath(message.libraryID, message.mailboxID, type));
    }
    EXPECT_EQ(library_->dataPaths(asked, type), each) << type;
  }
  EXPECT_THAT(
      library_->dataPaths(asked, 0),
      ElementsAre("/m/B/cur/c", "/m/A/new/b", "", "/m/A/cur/a:2,S", "", "", "/m/A/new/b", ""));
  // Close together they are read in another way.
  const std::vector<MailMessagePlace> close = {{4, other},    {1, mailbox_}, {3, other},
                                               {3, mailbox_}, {1, mailbox_}, {2, mailbox_},
                                               {5, mailbox_}};
  EXPECT_THAT(library_->dataPaths(close, 0), ElementsAre("/m/B/cur/c", "/m/A/cur/a:2,S", "",
                                                         "/m/A/new/b", "/m/A/cur/a:2,S", "", ""));
  const std::vector<MailMessagePlace> extremes = {
      {INT64_MAX, mailbox_}, {1, mailbox_}, {INT64_MIN, mailbox_}};
  EXPECT_THAT(library_->dataPaths(extremes, 0), ElementsAre("", "/m/A/cur/a:2,S", ""));
  EXPECT_THAT(library_->dataPaths({}, 0), IsEmpty());
}

TEST_F(TheLibrary, DataPathsAreOfTheMessagesOwnMailboxAndType) {
  add({{"a", "cur", "a:2,S"}, {"5.emlx", "Messages", "5.partial.emlx"}});
  EXPECT_EQ(library_->dataPath(1, mailbox_, 0), "/m/A/cur/a:2,S");
  EXPECT_EQ(library_->dataPath(1, mailbox_, 1), "");
  EXPECT_EQ(library_->dataPath(2, mailbox_, 0), "");
  EXPECT_EQ(library_->dataPath(2, mailbox_, 1), "/m/A/Messages/5.partial.emlx");
  EXPECT_EQ(library_->dataPath(1, mailbox_ + 1, 0), "");
  EXPECT_EQ(library_->dataPath(99, mailbox_, 0), "");
  LibraryChanges changes;
  changes.moved = {{1, {"a", "cur", "a:2,FS"}}};
  ASSERT_TRUE(library_->apply(mailbox_, changes));
  EXPECT_EQ(library_->dataPath(1, mailbox_, 0), "/m/A/cur/a:2,FS");
}

TEST_F(TheLibrary, ALentConnectionReadsRowIdAndMailboxAndCannotWrite) {
  add({{"a", "cur", "a:2,S"}});
  EXPECT_TRUE(library_->performRead([&](sqlite3* db) {
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db, "SELECT rowid, mailbox FROM messages where rowid in (1, 7)",
                                 -1, &statement, nullptr),
              SQLITE_OK);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    EXPECT_EQ(sqlite3_column_int64(statement, 0), 1);
    EXPECT_EQ(sqlite3_column_int64(statement, 1), mailbox_);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE);
    sqlite3_finalize(statement);
    EXPECT_NE(sqlite3_exec(db, "DELETE FROM messages", nullptr, nullptr, nullptr), SQLITE_OK);
    return true;
  }));
  EXPECT_EQ(*library_->messageCount(), 1U);
  EXPECT_FALSE(library_->performRead([](sqlite3*) { return false; }));
}

TEST_F(TheLibrary, AReadInsideAReadGetsAConnectionOfItsOwn) {
  EXPECT_TRUE(library_->performRead([&](sqlite3* outer) {
    return library_->performRead([&](sqlite3* inner) { return inner != outer; });
  }));
}

TEST_F(TheLibrary, ManyThreadsReadWhileOneWrites) {
  std::atomic<bool> done{false};
  std::vector<std::thread> readers;
  readers.reserve(3);
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      while (!done.load()) {
        EXPECT_EQ(library_->dataPath(999, mailbox_, 0), "");
        EXPECT_TRUE(library_->messages(mailbox_));
      }
    });
  }
  for (int i = 0; i < 20; ++i) add({{"m" + std::to_string(i), "cur", "x"}});
  done.store(true);
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(*library_->messageCount(), 20U);
}

TEST_F(TheLibrary, RemovingAMailboxTakesItsMessages) {
  add({{"a", "cur", "a"}, {"b", "cur", "b"}});
  EXPECT_THAT(*library_->removeMailbox(mailbox_), ElementsAre(1, 2));
  EXPECT_THAT(*library_->mailboxes(), IsEmpty());
  EXPECT_NE(*library_->addMailbox({"/m/A", "/m", MessageFormat::kMaildir, "mailbox.a"}), mailbox_);
}

TEST_F(TheLibrary, MailboxesBelowAMissingFolderAreUnreachable) {
  std::filesystem::create_directories(folder_ / "there");
  ASSERT_TRUE(library_->addMailbox(
      {folder_ / "there/x", folder_ / "there", MessageFormat::kEml, "mailbox.x"}));
  EXPECT_THAT(library_->unreachableMailboxes(), ElementsAre(mailbox_));
}

TEST_F(TheLibrary, AnEmptyFolderInThePlaceOfOneWithMailIsNotThatFolder) {
  const std::string root = folder_ / "mail";
  std::filesystem::create_directories(root);
  EXPECT_EQ(library_->whyUnreachable(root), "") << "nothing is known of it";
  ASSERT_TRUE(library_->keepRoot(root, lookAt(root).identity));
  EXPECT_EQ(library_->whyUnreachable(root), "") << "it is empty and the same folder";
  std::filesystem::rename(root, folder_ / "away");
  std::filesystem::create_directories(root);
  open();
  EXPECT_THAT(library_->whyUnreachable(root), HasSubstr("mounted"));
  std::filesystem::create_directories(root + "/cur");
  EXPECT_EQ(library_->whyUnreachable(root), "");
  ASSERT_TRUE(library_->keepRoot(root, lookAt(root).identity));
  std::filesystem::remove(root + "/cur");
  EXPECT_EQ(library_->whyUnreachable(root), "");
}

TEST_F(TheLibrary, ALibraryThatKnowsNoFoldersIdentityYetIsReadAndLearns) {
  const std::string root = folder_ / "mail";
  std::filesystem::create_directories(root);
  library_.reset();
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path_.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "DROP TABLE roots", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  const auto reader = Library::open(path_, Library::Access::kReadOnly);
  ASSERT_TRUE(reader);
  EXPECT_EQ((*reader)->whyUnreachable(root), "");
  open();
  EXPECT_TRUE(library_->keepRoot(root, {1, 2}));
  EXPECT_NE(library_->whyUnreachable(root), "");
}

TEST_F(TheLibrary, ItsFilesArePrivateAndNotInherited) {
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  ASSERT_EQ(::stat((folder_ / "data").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700U);
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    const auto target = std::filesystem::read_symlink(entry.path(), error).string();
    if (!target.starts_with(folder_.path())) continue;
    const int fd = std::stoi(entry.path().filename().string());
    EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << target;
  }
}

TEST_F(TheLibrary, ForReadingOnlyItMustBeThere) {
  EXPECT_FALSE(Library::open(folder_ / "none/library.sqlite", Library::Access::kReadOnly));
  EXPECT_FALSE(std::filesystem::exists(folder_ / "none"));
  add({{"a", "cur", "a"}});
  auto reader = Library::open(path_, Library::Access::kReadOnly);
  ASSERT_TRUE(reader);
  EXPECT_EQ((*reader)->dataPath(1, mailbox_, 0), "/m/A/cur/a");
  EXPECT_FALSE((*reader)->removeMailbox(mailbox_));
}

TEST_F(TheLibrary, ALibraryOfANewerVersionIsLeftAlone) {
  library_.reset();
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path_.c_str(), &db), SQLITE_OK);
  sqlite3_exec(db, "PRAGMA user_version = 77", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  EXPECT_FALSE(Library::open(path_, Library::Access::kReadWrite));
}

}  // namespace
}  // namespace thmp
