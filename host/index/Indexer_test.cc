// SPDX-License-Identifier: Apache-2.0
#include "host/index/Indexer.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "host/store/test_support.h"

namespace thmp {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using testing_support::mailText;
using testing_support::makeMaildir;
using testing_support::TemporaryFolder;
using testing_support::writeFile;

class Indexing : public ::testing::Test {
 protected:
  void SetUp() override {
    makeMaildir(mail_);
    options_.tell = [this](const std::string& line) { said_.push_back(line); };
    open();
  }

  void open() {
    indexer_.reset();
    index_.reset();
    library_.reset();
    auto library = Library::open(folder_ / "data/library.sqlite", Library::Access::kReadWrite);
    ASSERT_TRUE(library) << library.error().text();
    library_ = std::move(*library);
    auto index = Index::open(folder_ / "cache/index.sqlite", Index::Access::kReadWrite);
    ASSERT_TRUE(index) << index.error().text();
    index_ = std::move(*index);
    indexer_ = std::make_unique<Indexer>(*library_, *index_, options_);
    indexer_->setRoots(roots_);
    index_->addListener([this](const IndexChange& change) { told_.push_back(change); });
  }

  Coverage update() {
    told_.clear();
    const auto done = indexer_->update();
    EXPECT_TRUE(done) << (done ? "" : done.error().text());
    return done ? *done : Coverage();
  }
  Coverage updateMailbox(const std::string& path) {
    told_.clear();
    MailChanges changes;
    changes.mailboxes.insert(path);
    const auto done = indexer_->update(changes);
    EXPECT_TRUE(done);
    return done ? *done : Coverage();
  }
  Coverage updateFiles(const std::string& path, const std::vector<std::string>& files) {
    told_.clear();
    MailChanges changes;
    for (const std::string& file : files) changes.addFile(path, file);
    const auto done = indexer_->update(changes);
    EXPECT_TRUE(done);
    return done ? *done : Coverage();
  }
  Coverage updateTree(const std::string& path) {
    told_.clear();
    MailChanges changes;
    changes.trees.insert(path);
    const auto done = indexer_->update(changes);
    EXPECT_TRUE(done);
    return done ? *done : Coverage();
  }

  void deliver(const std::string& place, const std::string& subject) {
    writeFile(mail_ + "/" + place, mailText(subject));
    age(mail_ + "/" + place);
  }
  // A file as young as the clock's last step is read once more to be sure of it.
  static void age(const std::string& path) {
    fs::last_write_time(path, fs::last_write_time(path) - std::chrono::seconds(10));
  }
  void rename(const std::string& from, const std::string& to) {
    fs::rename(mail_ + "/" + from, mail_ + "/" + to);
  }

  std::map<std::string, std::int64_t> bySubject() const {
    std::map<std::string, std::int64_t> ids;
    EXPECT_TRUE(index_->forEachDescending([&](const IndexedMessage& message) {
      const Value subject = message.value("kMDItemSubject");
      ids[std::string(subject.asText().value_or("?"))] = message.id();
      return true;
    }));
    return ids;
  }
  std::int64_t idOf(const std::string& subject) const {
    const auto ids = bySubject();
    const auto found = ids.find(subject);
    return found == ids.end() ? 0 : found->second;
  }
  std::string fileOf(std::int64_t id) const {
    const auto path = library_->pathOfMessage(id);
    return path ? path->substr(mail_.size() + 1) : "(none)";
  }
  IndexChange allTold() const {
    IndexChange all;
    for (const IndexChange& change : told_) {
      all.added.insert(all.added.end(), change.added.begin(), change.added.end());
      all.changed.insert(all.changed.end(), change.changed.begin(), change.changed.end());
      all.removed.insert(all.removed.end(), change.removed.begin(), change.removed.end());
    }
    return all;
  }

  TemporaryFolder folder_;
  const std::string mail_ = folder_ / "mail";
  std::vector<std::string> roots_{mail_};
  IndexerOptions options_;
  std::unique_ptr<Library> library_;
  std::unique_ptr<Index> index_;
  std::unique_ptr<Indexer> indexer_;
  std::vector<IndexChange> told_;
  std::vector<std::string> said_;
};

TEST_F(Indexing, AFirstIndexNumbersEachMailboxByTheDateInTheName) {
  deliver("cur/300.c:2,S", "third");
  deliver("cur/90.a:2,S", "first");
  deliver("new/200.b", "second");
  const Coverage coverage = update();
  EXPECT_EQ(coverage.seen, 3U);
  EXPECT_EQ(coverage.indexed, 3U);
  EXPECT_LT(idOf("first"), idOf("second"));
  EXPECT_LT(idOf("second"), idOf("third"));
}

TEST_F(Indexing, WhatIsUnchangedIsNotReadAgain) {
  deliver("cur/1.a:2,S", "one");
  update();
  // Nobody could read it now; nobody needs to.
  fs::permissions(mail_ + "/cur/1.a:2,S", fs::perms::none);
  const Coverage coverage = update();
  EXPECT_EQ(coverage.unchanged, 1U);
  EXPECT_EQ(coverage.indexed, 0U);
  EXPECT_EQ(coverage.failed, 0U);
  EXPECT_THAT(told_, IsEmpty());
}

// Mailboxes whose folders were changed long ago.
class IndexingSettledFolders : public Indexing {
 protected:
  void settle() const {
    for (const char* part : {"/cur", "/new"}) age(mail_ + part);
  }
  // Neither the folder nor the file's name tells of it, and mail programs do no such thing.
  void rewriteInPlace(const std::string& place, const std::string& subject) {
    std::ofstream(mail_ + "/" + place) << mailText(subject);
    age(mail_ + "/" + place);
  }
};

TEST_F(IndexingSettledFolders, ThatDidNotChangeAreNotLookedInto) {
  deliver("cur/1.a:2,S", "one");
  deliver("new/2.b", "two");
  settle();
  EXPECT_EQ(update().indexed, 2U);
  rewriteInPlace("cur/1.a:2,S", "other");
  open();
  const Coverage coverage = update();
  EXPECT_EQ(coverage.seen, 2U);
  EXPECT_EQ(coverage.unchanged, 2U);
  EXPECT_EQ(coverage.indexed, 0U);
  EXPECT_THAT(told_, IsEmpty());
  EXPECT_TRUE(bySubject().contains("one"));
  // Only a change of the folder shows it.
  rename("new/2.b", "cur/2.b:2,S");
  EXPECT_EQ(update().indexed, 1U);
  EXPECT_TRUE(bySubject().contains("other"));
}

TEST_F(IndexingSettledFolders, ShowMailThatCameChangedOrWent) {
  deliver("cur/1.a:2,S", "one");
  deliver("cur/2.b:2,S", "two");
  settle();
  update();
  deliver("new/3.c", "three");
  EXPECT_EQ(update().indexed, 1U);
  settle();
  update();
  rename("cur/1.a:2,S", "cur/1.a:2,FS");
  update();
  EXPECT_EQ(index_->get(idOf("one"))->value("com_apple_mail_flagged").asBoolean(), true);
  settle();
  update();
  fs::remove(mail_ + "/cur/2.b:2,S");
  EXPECT_EQ(update().removed, 1U);
}

// Changes that follow each other within a step of the file system's clock leave one time.
TEST_F(IndexingSettledFolders, WithATimeAsYoungAsTheirListingAreListedAgain) {
  deliver("cur/1.a:2,S", "one");
  update();
  rewriteInPlace("cur/1.a:2,S", "other");
  EXPECT_EQ(update().indexed, 1U);
}

TEST_F(IndexingSettledFolders, WhoseTimeWasSetBackAreListedAgain) {
  deliver("cur/1.a:2,S", "one");
  settle();
  update();
  const auto time = fs::last_write_time(mail_ + "/cur");
  deliver("cur/2.b:2,S", "two");
  fs::last_write_time(mail_ + "/cur", time);
  EXPECT_EQ(update().indexed, 1U);
}

TEST_F(IndexingSettledFolders, InThePlaceOfOthersAreListed) {
  deliver("cur/1.a:2,S", "one");
  settle();
  update();
  const auto time = fs::last_write_time(mail_ + "/cur");
  rename("cur", "cur-before");
  fs::create_directory(mail_ + "/cur");
  fs::last_write_time(mail_ + "/cur", time);
  EXPECT_EQ(update().removed, 1U);
}

TEST_F(IndexingSettledFolders, WithFilesThatCouldNotBeOpenedAreLookedIntoAgain) {
  deliver("cur/1.a:2,S", "one");
  fs::create_symlink(folder_ / "nowhere", mail_ + "/cur/2.b:2,S");
  settle();
  EXPECT_EQ(update().failed, 1U);
  writeFile(folder_ / "nowhere", mailText("two"));
  age(folder_ / "nowhere");
  EXPECT_EQ(update().indexed, 1U);
  // A link tells nothing of what it leads to.
  fs::remove(folder_ / "nowhere");
  EXPECT_EQ(update().failed, 1U);
}

TEST_F(IndexingSettledFolders, WithAFileThatHasToBeReadAgainAreLookedInto) {
  deliver("cur/1.a:2,S", "one");
  // Younger than the moment it is read at, as by the clock of a file server.
  fs::last_write_time(mail_ + "/cur/1.a:2,S",
                      fs::file_time_type::clock::now() + std::chrono::seconds(30));
  settle();
  update();
  rewriteInPlace("cur/1.a:2,S", "other");
  EXPECT_EQ(update().indexed, 1U);
}

TEST_F(IndexingSettledFolders, AreLookedIntoForALibraryThatDoesNotKnowThem) {
  deliver("cur/1.a:2,S", "one");
  deliver("cur/2.b:2,S", "two");
  settle();
  update();
  indexer_.reset();
  index_.reset();
  library_.reset();
  fs::remove_all(folder_ / "data");
  open();
  update();
  EXPECT_EQ(*library_->messageCount(), 2U);
  EXPECT_EQ(bySubject().size(), 2U);
}

TEST_F(IndexingSettledFolders, WithLooseFilesAreLookedInto) {
  fs::create_directory(mail_ + "/loose");
  deliver("loose/1.eml", "one");
  age(mail_ + "/loose");
  update();
  rewriteInPlace("loose/1.eml", "other");
  EXPECT_EQ(update().indexed, 1U);
}

TEST_F(Indexing, ARenameForAFlagKeepsTheIdAndChangesOneRow) {
  deliver("new/1.a", "one");
  deliver("cur/2.b:2,S", "two");
  update();
  const std::int64_t id = idOf("one");
  rename("new/1.a", "cur/1.a:2,FS");
  const Coverage coverage = update();
  EXPECT_EQ(coverage.unchanged, 2U);
  EXPECT_EQ(coverage.removed, 0U);
  EXPECT_EQ(idOf("one"), id);
  EXPECT_THAT(allTold().changed, ElementsAre(id));
  EXPECT_THAT(allTold().removed, IsEmpty());
  const auto message = index_->get(id);
  EXPECT_EQ(message->value("com_apple_mail_flagged").asBoolean(), true);
  EXPECT_EQ(message->value("com_apple_mail_read").asBoolean(), true);
  EXPECT_EQ(message->value("kMDItemFSName").asText(), "1.a:2,FS");
  EXPECT_EQ(message->value("kMDItemTextContent").asText(), "Hello.");
  EXPECT_EQ(fileOf(id), "cur/1.a:2,FS");
  EXPECT_EQ(library_->dataPath(id, message->mailbox(), 0), mail_ + "/cur/1.a:2,FS");
  EXPECT_THAT(update().unchanged, 2U);
  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(Indexing, AnIdIsNeverGivenTwiceAndAReturningFileIsNew) {
  deliver("cur/1.a:2,S", "one");
  update();
  const std::int64_t first = idOf("one");
  rename("cur/1.a:2,S", "tmp/1.a");
  EXPECT_EQ(update().removed, 1U);
  EXPECT_THAT(allTold().removed, ElementsAre(first));
  EXPECT_EQ(*library_->messageCount(), 0U);
  open();
  rename("tmp/1.a", "cur/1.a:2,S");
  update();
  EXPECT_GT(idOf("one"), first);
}

TEST_F(Indexing, ALostIndexIsRebuiltUnderTheSameIds) {
  for (int i = 1; i <= 20; ++i) {
    deliver("cur/" + std::to_string(i) + ".x:2,", "mail" + std::to_string(i));
  }
  update();
  fs::remove(mail_ + "/cur/7.x:2,");
  update();
  const auto before = bySubject();
  indexer_.reset();
  index_.reset();
  fs::remove_all(folder_ / "cache");
  open();
  EXPECT_THAT(said_, IsEmpty()) << "the first index is no news";
  EXPECT_EQ(update().indexed, 19U);
  EXPECT_EQ(bySubject(), before);
  EXPECT_THAT(said_, ElementsAre("the index is gone; it is made anew from the mail"));
}

TEST_F(Indexing, ADamagedIndexIsRebuiltByItself) {
  deliver("cur/1.a:2,S", "one");
  update();
  const std::int64_t id = idOf("one");
  indexer_.reset();
  index_.reset();
  writeFile(folder_ / "cache/index.sqlite", std::string(4096, 'x'));
  fs::remove(folder_ / "cache/index.sqlite-wal");
  open();
  update();
  EXPECT_EQ(idOf("one"), id);
  EXPECT_TRUE(fs::exists(folder_ / "cache/index.sqlite.damaged-1"));
  EXPECT_THAT(said_,
              ElementsAre("the index is damaged; it is set aside and made anew from the mail"));
}

TEST_F(Indexing, AnIndexThatGoesMeanwhileIsMadeAnewByTheNextChange) {
  deliver("cur/1.a:2,S", "one");
  update();
  const std::int64_t id = idOf("one");
  fs::remove_all(folder_ / "cache");
  fs::create_directory(folder_ / "cache");
  deliver("cur/2.b:2,S", "two");
  EXPECT_EQ(updateMailbox(mail_).indexed, 2U);
  EXPECT_EQ(idOf("one"), id);
  EXPECT_NE(idOf("two"), 0);
  EXPECT_THAT(said_, ElementsAre("the index is gone; it is made anew from the mail"));
}

TEST_F(Indexing, AnInterruptionBetweenLibraryAndIndexHeals) {
  deliver("cur/1.a:2,S", "one");
  update();
  // As after an end between the two commits: the library knows the new message, has lost the old
  // one, and the index knows nothing of either.
  deliver("cur/2.b:2,S", "two");
  const std::int64_t mailbox = library_->mailboxes()->at(0).id;
  LibraryChanges changes;
  changes.added.push_back({"2.b", "cur", "2.b:2,S"});
  changes.removed.push_back(idOf("one"));
  const auto ids = library_->apply(mailbox, changes);
  ASSERT_TRUE(ids);
  fs::remove(mail_ + "/cur/1.a:2,S");
  const std::int64_t lost = idOf("one");
  update();
  EXPECT_EQ(idOf("two"), ids->at(0));
  EXPECT_EQ(idOf("one"), 0);
  EXPECT_THAT(allTold().removed, ElementsAre(lost));
}

TEST_F(Indexing, AMailboxThatTheLibraryLostLeavesTheIndex) {
  deliver("cur/1.a:2,S", "one");
  update();
  ASSERT_TRUE(library_->removeMailbox(library_->mailboxes()->at(0).id));
  update();
  EXPECT_THAT(bySubject(), SizeIs(1));
  EXPECT_EQ(*index_->count(), 1U);
}

TEST_F(Indexing, AChangedFileIsReadAgainUnderItsId) {
  deliver("cur/1.a:2,S", "one");
  update();
  const std::int64_t id = idOf("one");
  deliver("cur/1.a:2,S", "changed");
  EXPECT_EQ(update().indexed, 1U);
  EXPECT_EQ(idOf("changed"), id);
  EXPECT_THAT(allTold().changed, ElementsAre(id));
}

TEST_F(Indexing, AFileWrittenJustNowIsReadOnceMore) {
  // A little ahead of the clock: as a change that comes within the same step of it would look.
  deliver("cur/1.a:2,S", "one");
  const std::string path = mail_ + "/cur/1.a:2,S";
  fs::last_write_time(path, fs::last_write_time(path) + std::chrono::seconds(40));
  update();
  const auto young = fs::last_write_time(path);
  writeFile(path, mailText("two"));
  fs::last_write_time(path, young);
  EXPECT_EQ(update().indexed, 1U);
  EXPECT_NE(idOf("two"), 0);
}

TEST_F(Indexing, AMissingMailFolderKeepsItsRowsAndIsNotFoundUntilItIsBack) {
  deliver("cur/1.a:2,S", "one");
  update();
  const std::int64_t id = idOf("one");
  fs::rename(mail_, folder_ / "away");
  EXPECT_EQ(update().removed, 0U);
  EXPECT_THAT(bySubject(), IsEmpty());
  EXPECT_THAT(told_, IsEmpty()) << "no removals are reported";
  EXPECT_EQ(*library_->messageCount(), 1U);
  fs::rename(folder_ / "away", mail_);
  update();
  EXPECT_EQ(idOf("one"), id);
  EXPECT_THAT(allTold().added, ElementsAre(id));
}

TEST_F(Indexing, AnEmptyFolderInThePlaceOfAMailFolderIsTakenForAMissingOne) {
  deliver("cur/1.a:2,S", "one");
  update();
  const std::int64_t id = idOf("one");
  fs::rename(mail_, folder_ / "away");
  fs::create_directories(mail_);
  EXPECT_EQ(updateTree(mail_).removed, 0U);
  EXPECT_THAT(bySubject(), IsEmpty());
  EXPECT_EQ(update().removed, 0U);
  fs::remove(mail_);
  fs::rename(folder_ / "away", mail_);
  update();
  EXPECT_EQ(idOf("one"), id);
}

TEST_F(Indexing, AMailFolderThatIsEmptiedLosesItsMessages) {
  deliver("cur/1.a:2,S", "one");
  update();
  for (const char* part : {"cur", "new", "tmp"}) fs::remove_all(mail_ + "/" + part);
  EXPECT_EQ(updateTree(mail_).removed, 1U);
  EXPECT_THAT(told_, SizeIs(1));
}

TEST_F(Indexing, AMissingMailFolderInsideAnotherKeepsItsRows) {
  const std::string inner = mail_ + "/disk/inner";
  makeMaildir(inner);
  deliver("disk/inner/cur/1.a:2,S", "inside");
  deliver("cur/1.a:2,S", "outside");
  indexer_->setRoots({mail_, inner});
  update();
  const std::int64_t id = idOf("inside");
  ASSERT_NE(id, 0);
  fs::rename(mail_ + "/disk", folder_ / "away");
  EXPECT_EQ(updateTree(mail_ + "/disk").removed, 0U);
  EXPECT_EQ(update().removed, 0U);
  EXPECT_EQ(idOf("inside"), 0);
  fs::rename(folder_ / "away", mail_ + "/disk");
  updateTree(mail_ + "/disk");
  EXPECT_EQ(idOf("inside"), id);
  // It is still the mail folder's own mail, and not that of the one around it.
  fs::rename(mail_ + "/disk", folder_ / "away");
  EXPECT_EQ(updateTree(mail_ + "/disk").removed, 0U);
}

TEST_F(Indexing, TheLastUpdateIsAlsoOneOfASingleMailbox) {
  deliver("cur/1.a:2,S", "one");
  updateMailbox(mail_);
  EXPECT_TRUE(index_->lastUpdate());
}

TEST_F(Indexing, AMailboxThatGoesIsGoneWithItsMessages) {
  makeMaildir(mail_ + "/.Work");
  deliver(".Work/cur/1.a:2,S", "work");
  deliver("cur/2.b:2,S", "inbox");
  update();
  const std::int64_t id = idOf("work");
  fs::remove_all(mail_ + "/.Work");
  EXPECT_EQ(updateTree(mail_ + "/.Work").removed, 1U);
  EXPECT_THAT(allTold().removed, ElementsAre(id));
  EXPECT_THAT(bySubject(), SizeIs(1));
  EXPECT_THAT(*library_->mailboxes(), SizeIs(1));
}

TEST_F(Indexing, MailOfAFolderNoLongerNamedLeaves) {
  makeMaildir(folder_ / "other");
  writeFile(folder_ / "other/cur/1.z:2,", mailText("elsewhere"));
  deliver("cur/1.a:2,S", "one");
  indexer_->setRoots({mail_, folder_ / "other/"});
  update();
  EXPECT_THAT(bySubject(), SizeIs(2));
  indexer_->setRoots({mail_});
  EXPECT_EQ(update().removed, 1U);
  EXPECT_THAT(bySubject(), SizeIs(1));
  EXPECT_THAT(*library_->roots(), ElementsAre(mail_));
}

TEST_F(Indexing, AFolderNamedBesideOneAboveItIsIndexedOnce) {
  makeMaildir(mail_ + "/.Work");
  deliver(".Work/cur/1.a:2,S", "work");
  indexer_->setRoots({mail_, mail_ + "/.Work"});
  EXPECT_EQ(update().seen, 1U);
  EXPECT_EQ(*library_->messageCount(), 1U);
  const std::int64_t id = idOf("work");
  indexer_->setRoots({mail_});
  update();
  EXPECT_EQ(idOf("work"), id) << "still below a named folder";
}

TEST_F(Indexing, OneMailboxIsUpdatedAlone) {
  makeMaildir(mail_ + "/.Work");
  update();
  deliver("new/1.a", "one");
  deliver(".Work/new/2.b", "two");
  EXPECT_EQ(updateMailbox(mail_).indexed, 1U);
  EXPECT_THAT(bySubject(), SizeIs(1));
  EXPECT_EQ(updateMailbox(mail_ + "/.Work").indexed, 1U);
  EXPECT_THAT(bySubject(), SizeIs(2));
}

TEST_F(Indexing, ANewMailboxIsFoundThroughItsTree) {
  update();
  makeMaildir(mail_ + "/.New.Deep");
  deliver(".New.Deep/cur/1.a:2,", "one");
  EXPECT_EQ(updateTree(mail_ + "/.New.Deep").indexed, 1U);
  makeMaildir(mail_ + "/.Later");
  deliver(".Later/cur/1.a:2,", "two");
  EXPECT_EQ(updateMailbox(mail_ + "/.Later").indexed, 1U) << "an unknown mailbox is looked for";
}

TEST_F(Indexing, ABurstIsIndexedWhole) {
  options_.batchSize = 64;
  open();
  for (int i = 0; i < 1000; ++i) {
    deliver("new/" + std::to_string(1000 + i) + ".x", "mail" + std::to_string(i));
  }
  EXPECT_EQ(updateMailbox(mail_).indexed, 1000U);
  EXPECT_EQ(*index_->count(), 1000U);
  EXPECT_EQ(*library_->messageCount(), 1000U);
}

TEST_F(Indexing, PathsThatAreNotUtf8AreFailedAndNotFound) {
  deliver("cur/1.a:2,S", "one");
  writeFile(mail_ + "/cur/2.\xFF:2,S", mailText("odd"));
  fs::create_directories(mail_ + "/.\xFE/cur");
  const Coverage coverage = update();
  EXPECT_EQ(coverage.seen, 3U);
  EXPECT_EQ(coverage.failed, 2U);
  EXPECT_THAT(bySubject(), SizeIs(1));
  EXPECT_THAT(*index_->failed(),
              ElementsAre(UnreadablePath{mail_ + "/.%FE", "its path is not UTF-8"},
                          UnreadablePath{mail_ + "/cur/2.%FF:2,S", "its path is not UTF-8"}));
  fs::remove(mail_ + "/cur/2.\xFF:2,S");
  fs::remove_all(mail_ + "/.\xFE");
  EXPECT_EQ(update().failed, 0U);
  EXPECT_THAT(*index_->failed(), IsEmpty());
}

TEST_F(Indexing, WhatCannotBeOpenedIsFailedUntilItCan) {
  ASSERT_EQ(::mkfifo((mail_ + "/cur/1.fifo").c_str(), 0600), 0);
  ASSERT_EQ(::symlink("/nowhere/at/all", (mail_ + "/cur/2.link:2,").c_str()), 0);
  ASSERT_EQ(::symlink(folder_.path().c_str(), (mail_ + "/cur/3.folder:2,").c_str()), 0);
  const Coverage coverage = update();
  EXPECT_EQ(coverage.failed, 2U) << "a FIFO is no mail at all";
  EXPECT_EQ(*library_->messageCount(), 0U);
  fs::remove(mail_ + "/cur/2.link:2,");
  deliver("cur/2.link:2,", "now");
  EXPECT_EQ(update().failed, 1U);
  EXPECT_NE(idOf("now"), 0);
}

TEST_F(Indexing, AMessageNotReadWholeIsFoundAndListed) {
  options_.limits.textBytes = 100;
  open();
  writeFile(mail_ + "/cur/1.a:2,", mailText("long", std::string(1000, 'x')));
  EXPECT_EQ(update().incomplete, 1U);
  EXPECT_EQ(update().incomplete, 1U) << "also when it is not read again";
  ASSERT_THAT(*index_->incomplete(), SizeIs(1));
  EXPECT_EQ(index_->incomplete()->at(0).id, idOf("long"));
  EXPECT_THAT(index_->incomplete()->at(0).reason, HasSubstr("bytes of text"));
}

TEST_F(Indexing, TwoFilesOfOneNameAreOneMessage) {
  deliver("new/1.a", "one");
  deliver("cur/1.a:2,S", "one");
  EXPECT_EQ(update().indexed, 1U);
  EXPECT_EQ(fileOf(idOf("one")), "cur/1.a:2,S");
  EXPECT_EQ(update().unchanged, 1U);
  EXPECT_THAT(told_, IsEmpty());
  fs::remove(mail_ + "/cur/1.a:2,S");
  EXPECT_EQ(update().removed, 0U);
  EXPECT_EQ(fileOf(idOf("one")), "new/1.a");
}

TEST_F(Indexing, LinksToMailAreReadAndLinksToFoldersAreNotFollowed) {
  writeFile(folder_ / "outside.txt", mailText("linked"));
  ASSERT_EQ(::symlink((folder_ / "outside.txt").c_str(), (mail_ + "/cur/1.l:2,S").c_str()), 0);
  ASSERT_EQ(::symlink(mail_.c_str(), (mail_ + "/.Loop").c_str()), 0);
  EXPECT_EQ(update().indexed, 1U);
  EXPECT_THAT(*library_->mailboxes(), SizeIs(1));
}

TEST_F(Indexing, DotFilesAndStraysInTmpAreNoMail) {
  deliver("tmp/1.a", "tmp");
  deliver("cur/.hidden", "hidden");
  fs::create_directories(mail_ + "/cur/folder");
  EXPECT_EQ(update().seen, 0U);
}

TEST_F(Indexing, LooseAndEmlxMailIsIndexed) {
  writeFile(mail_ + "/loose/b.eml", mailText("loose"));
  const std::string mail = mailText("boxed");
  writeFile(mail_ + "/INBOX.mbox/x/Data/Messages/12.emlx",
            std::to_string(mail.size()) + "\n" + mail + "<plist/>");
  writeFile(mail_ + "/INBOX.mbox/x/Data/Messages/13.partial.emlx",
            std::to_string(mail.size()) + "\n" + mailText("parted") + "<plist/>");
  writeFile(mail_ + "/INBOX.mbox/x/Data/Attachments/13/2/a.pdf", "x");
  EXPECT_EQ(update().indexed, 3U);
  const auto parted = index_->get(idOf("parted"));
  ASSERT_TRUE(parted);
  EXPECT_EQ((*parted->value("kMDItemAttachmentPaths").asArray())[0].asText(),
            mail_ + "/INBOX.mbox/x/Data/Attachments/13/2/a.pdf");
  EXPECT_EQ((*parted->value("kMDItemMailboxes").asArray())[0].asText(), "mailbox.inbox");
  EXPECT_EQ(library_->dataPath(parted->id(), parted->mailbox(), 0), "");
  EXPECT_EQ(library_->dataPath(parted->id(), parted->mailbox(), 1),
            mail_ + "/INBOX.mbox/x/Data/Messages/13.partial.emlx");
  const std::int64_t id = parted->id();
  fs::rename(mail_ + "/INBOX.mbox/x/Data/Messages/13.partial.emlx",
             mail_ + "/INBOX.mbox/x/Data/Messages/13.emlx");
  EXPECT_EQ(updateMailbox(mail_ + "/INBOX.mbox").removed, 0U);
  EXPECT_EQ(idOf("parted"), id);
  fs::remove_all(mail_ + "/INBOX.mbox/x");
  EXPECT_EQ(updateTree(mail_ + "/INBOX.mbox/x").removed, 2U);
}

TEST_F(Indexing, AFileThatCameIsReadWithoutALookAtTheOthers) {
  deliver("cur/1.a:2,S", "one");
  deliver("cur/2.b:2,S", "two");
  update();
  deliver("new/3.c", "three");
  const Coverage done = updateFiles(mail_, {"new/3.c"});
  EXPECT_EQ(done.seen, 1U);
  EXPECT_EQ(done.indexed, 1U);
  ASSERT_EQ(told_.size(), 1U);
  EXPECT_THAT(told_[0].added, ElementsAre(3));
  EXPECT_EQ(update().unchanged, 3U);
}

TEST_F(Indexing, ARenameIsFollowedByItsNamesAlone) {
  deliver("new/1.a", "one");
  deliver("cur/2.b:2,", "two");
  update();
  fs::rename(mail_ + "/new/1.a", mail_ + "/cur/1.a:2,S");
  EXPECT_EQ(updateFiles(mail_, {"new/1.a", "cur/1.a:2,S"}).seen, 1U);
  EXPECT_EQ(index_->get(1)->value("com_apple_mail_read").asBoolean(), true);
  fs::rename(mail_ + "/cur/1.a:2,S", mail_ + "/cur/1.a:2,FS");
  updateFiles(mail_, {"cur/1.a:2,FS"});
  EXPECT_EQ(index_->get(1)->value("com_apple_mail_flagged").asBoolean(), true);
  EXPECT_EQ(update().unchanged, 2U);
}

TEST_F(Indexing, AMessageIsGoneOnlyWhenAListingMissesIt) {
  deliver("cur/1.a:2,", "one");
  deliver("cur/2.b:2,", "two");
  update();
  // Its new name has not been told yet.
  fs::rename(mail_ + "/cur/1.a:2,", mail_ + "/cur/1.a:2,S");
  EXPECT_EQ(updateFiles(mail_, {"cur/1.a:2,"}).removed, 0U);
  EXPECT_EQ(index_->get(1)->value("com_apple_mail_read").asBoolean(), true);
  fs::remove(mail_ + "/cur/1.a:2,S");
  EXPECT_EQ(updateFiles(mail_, {"cur/1.a:2,S"}).removed, 1U);
  EXPECT_FALSE(index_->get(1));
  EXPECT_EQ(updateFiles(mail_, {"cur/gone", "cur/.hidden", "new/2.b"}).removed, 0U);
}

TEST_F(Indexing, WhenMostOfTheWordsAreOfMailThatIsGoneTheIndexIsMadeAnew) {
  options_.mostStale = 1;
  open();
  for (int i = 1; i <= 4; ++i) deliver("cur/" + std::to_string(i) + ".x:2,", "m");
  update();
  for (int i = 1; i <= 2; ++i) fs::remove(mail_ + "/cur/" + std::to_string(i) + ".x:2,");
  update();
  EXPECT_EQ(*index_->staleCount(), 2U);
  EXPECT_EQ(update().unchanged, 2U);
  fs::remove(mail_ + "/cur/3.x:2,");
  update();
  EXPECT_EQ(update().indexed, 1U);
  EXPECT_EQ(*index_->staleCount(), 0U);
  EXPECT_TRUE(index_->contains(4)) << "under its ID";
}

TEST_F(Indexing, APoliteOneReadsMuchMailBehindEverybodyElse) {
  options_.batchSize = 10;
  options_.isPolite = true;
  open();
  for (int i = 0; i < 400; ++i) deliver("cur/" + std::to_string(i) + ".x:2,", "m");
  std::optional<int> nice;
  ASSERT_TRUE(indexer_->update([&](const IndexProgress&) {
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
      if (testing_support::readWhole(task.path() / "comm") != "mail-reader\n") continue;
      nice = ::getpriority(PRIO_PROCESS,
                           static_cast<id_t>(std::stoi(task.path().filename().string())));
    }
  }));
  EXPECT_EQ(nice, 10);
}

TEST_F(Indexing, CountingChangesNothing) {
  deliver("cur/1.a:2,S", "one");
  deliver("cur/2.b:2,S", "two");
  EXPECT_EQ(indexer_->count()->indexed, 2U);
  EXPECT_EQ(*index_->count(), 0U);
  EXPECT_EQ(*library_->messageCount(), 0U);
  update();
  fs::remove(mail_ + "/cur/1.a:2,S");
  const auto counted = indexer_->count();
  EXPECT_EQ(counted->unchanged, 1U);
  EXPECT_EQ(counted->removed, 1U);
  EXPECT_EQ(*library_->messageCount(), 2U);
}

TEST_F(Indexing, AStoppedUpdateGoesOnNextTime) {
  options_.batchSize = 10;
  open();
  for (int i = 0; i < 100; ++i)
    deliver("cur/" + std::to_string(i) + ".x:2,", "m" + std::to_string(i));
  const auto stopped = indexer_->update([this](const IndexProgress& progress) {
    if (progress.seen > 0) indexer_->stop();
  });
  ASSERT_TRUE(stopped);
  EXPECT_TRUE(stopped->stopped);
  EXPECT_EQ(stopped->indexed, 10U);
  open();
  const Coverage rest = update();
  EXPECT_EQ(rest.indexed, 90U);
  EXPECT_EQ(rest.unchanged, 10U);
}

TEST_F(Indexing, ProgressGrowsToTheTotal) {
  options_.batchSize = 10;
  open();
  for (int i = 0; i < 35; ++i)
    deliver("cur/" + std::to_string(i) + ".x:2,", "m" + std::to_string(i));
  std::vector<std::uint64_t> seen;
  ASSERT_TRUE(indexer_->update([&](const IndexProgress& progress) {
    EXPECT_EQ(progress.total, 35U);
    seen.push_back(progress.seen);
  }));
  EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
  EXPECT_EQ(seen.back(), 35U);
}

TEST_F(Indexing, TheLibraryKnowsWhereAMessageIsEvenBeforeARenameIsIndexed) {
  deliver("new/1.a", "one");
  update();
  const std::int64_t id = idOf("one");
  rename("new/1.a", "cur/1.a:2,S");
  EXPECT_EQ(fileOf(id), "cur/1.a:2,S");
  fs::remove(mail_ + "/cur/1.a:2,S");
  EXPECT_FALSE(library_->pathOfMessage(id));
  EXPECT_FALSE(library_->pathOfMessage(999));
}

// Mail programs rename files at any time, and a folder's listing may miss a file that is renamed
// while it is read.
TEST_F(Indexing, ARenameStormRemovesNothingAndLosesNothing) {
  constexpr int kMessages = 600;
  for (int i = 0; i < kMessages; ++i) {
    deliver("cur/" + std::to_string(1000 + i) + ".x:2,", "m" + std::to_string(i));
  }
  ASSERT_EQ(update().indexed, static_cast<std::uint64_t>(kMessages));
  const auto before = bySubject();
  std::vector<std::int64_t> removed;
  std::vector<std::int64_t> added;
  index_->addListener([&](const IndexChange& change) {
    removed.insert(removed.end(), change.removed.begin(), change.removed.end());
    added.insert(added.end(), change.added.begin(), change.added.end());
  });
  std::atomic<bool> done{false};
  std::vector<std::thread> storm;
  storm.reserve(2);
  for (int half = 0; half < 2; ++half) {
    storm.emplace_back([&, half] {
      const char* flags[] = {"", "S", "FS", "RS"};
      for (int round = 0; !done.load(); ++round) {
        for (int i = half; i < kMessages && !done.load(); i += 2) {
          const std::string base = mail_ + "/cur/" + std::to_string(1000 + i) + ".x:2,";
          ::rename((base + flags[round % 4]).c_str(), (base + flags[(round + 1) % 4]).c_str());
        }
      }
    });
  }
  for (int i = 0; i < 50; ++i) {
    if (i % 2 == 0) {
      update();
    } else {
      updateMailbox(mail_);
    }
  }
  done.store(true);
  for (std::thread& thread : storm) thread.join();
  EXPECT_THAT(removed, IsEmpty());
  EXPECT_THAT(added, IsEmpty());
  update();
  EXPECT_EQ(bySubject(), before);
  for (const auto& [subject, id] : before) {
    const auto message = index_->get(id);
    EXPECT_EQ("cur/" + std::string(message->value("kMDItemFSName").asText().value()), fileOf(id));
  }
}

}  // namespace
}  // namespace thmp
