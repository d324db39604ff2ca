// SPDX-License-Identifier: Apache-2.0
#include "host/adapter/HostMail.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "host/store/test_support.h"

namespace thmp {
namespace {

using testing_support::TemporaryFolder;

class TheHostsMail : public ::testing::Test {
 protected:
  void SetUp() override {
    auto opened = Library::open(folder_ / "library.sqlite", Library::Access::kReadWrite);
    ASSERT_TRUE(opened) << opened.error().text();
    library_ = std::move(*opened);
    mail_ = std::make_unique<HostMail>(*library_);
  }

  TemporaryFolder folder_;
  std::unique_ptr<Library> library_;
  std::unique_ptr<HostMail> mail_;
};

TEST_F(TheHostsMail, KnowsTwoClassesByName) {
  EXPECT_NE(mail_->bundleClass("MVMailBundle"), nullptr);
  EXPECT_EQ(mail_->bundleClass("MVMailBundl"), nullptr);
  EXPECT_NE(mail_->libraryClass("MFLibrary"), nullptr);
  EXPECT_EQ(mail_->libraryClass("MVMailBundle"), nullptr);
}

TEST_F(TheHostsMail, NotesThatABundleHasRegistered) {
  EXPECT_FALSE(mail_->isBundleRegistered());
  mail_->bundleClass("MVMailBundle")->registerBundle();
  EXPECT_TRUE(mail_->isBundleRegistered());
}

TEST_F(TheHostsMail, ReadBlockRunsOnceBeforeTheCallReturnsWithAReadOnlyHandle) {
  const auto library = mail_->libraryClass("MFLibrary")->defaultLibrary();
  int calls = 0;
  library->libraryDatabase()->performReadBlock([&](LibraryConnection& connection) {
    ++calls;
    EXPECT_EQ(sqlite3_exec(connection.sqlDB(), "SELECT rowid, mailbox FROM messages", nullptr,
                           nullptr, nullptr),
              SQLITE_OK);
    EXPECT_NE(sqlite3_exec(connection.sqlDB(), "DELETE FROM messages", nullptr, nullptr, nullptr),
              SQLITE_OK);
    return true;
  });
  EXPECT_EQ(calls, 1);
}

TEST_F(TheHostsMail, UnknownMessageHasNoPath) {
  const auto library = mail_->libraryClass("MFLibrary")->defaultLibrary();
  EXPECT_EQ(library->dataPathForMessage(1, 1, 0), "");
  EXPECT_EQ(library->messageWithLibraryID(1)->path(), std::nullopt);
}

TEST_F(TheHostsMail, GivesThePathsOfManyMessagesAtOnce) {
  const std::int64_t mailbox =
      *library_->addMailbox({"/m/A", "/m", MessageFormat::kMaildir, "mailbox.a"});
  LibraryChanges changes;
  changes.added = {{"a", "cur", "a:2,S"}, {"b", "new", "b"}};
  ASSERT_TRUE(library_->apply(mailbox, changes));
  const auto library = mail_->libraryClass("MFLibrary")->defaultLibrary();
  const std::vector<MailMessagePlace> asked = {{2, mailbox}, {7, mailbox}, {1, mailbox}};
  EXPECT_EQ(library->dataPathsForMessages(asked, 0),
            (std::vector<std::string>{"/m/A/new/b", "", "/m/A/cur/a:2,S"}));
}

}  // namespace
}  // namespace thmp
