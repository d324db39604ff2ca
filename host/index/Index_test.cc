// SPDX-License-Identifier: Apache-2.0
#include "host/index/Index.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <random>
#include <thread>

#include "base/plist.h"
#include "host/index/RecordEntries.h"
#include "host/index/ValuePool.h"
#include "host/index/message_record.h"
#include "host/query/query_testing.h"
#include "host/store/test_support.h"

namespace thmp {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing_support::TemporaryFolder;

IndexEntry entryOf(std::int64_t id, const std::string& subject, const std::string& text = "words",
                   std::int64_t mailbox = 1) {
  IndexEntry entry;
  entry.id = id;
  entry.mailbox = mailbox;
  entry.file = {static_cast<std::uint64_t>(id) * 7, static_cast<std::uint64_t>(id) * 11, false};
  entry.attributes.set(keyText(AttributeKey::kSubject), Value(subject));
  entry.attributes.set(keyText(AttributeKey::kContentType), Value("public.email-message"));
  entry.queryOnly.set(keyText(AttributeKey::kTitle), Value(subject));
  // Its name stands before that of the subject.
  entry.queryOnly.set(keyText(AttributeKey::kAdditionalRecipientEmailAddresses),
                      Value(Array{Value("cc@example.org")}));
  entry.textContent = text;
  return entry;
}

class TheIndex : public ::testing::Test {
 protected:
  void SetUp() override { open(); }

  void open() {
    index_.reset();
    auto opened = Index::open(path_, Index::Access::kReadWrite);
    ASSERT_TRUE(opened) << opened.error().text();
    index_ = std::move(*opened);
    index_->setTextSource([this](std::int64_t id, std::int64_t) { return texts_[id]; });
  }
  // The mail keeps the texts.
  void put(std::vector<IndexEntry> entries) {
    for (const IndexEntry& entry : entries) {
      if (entry.textContent) texts_[entry.id] = *entry.textContent;
    }
    ASSERT_TRUE(index_->put(entries));
  }
  std::vector<std::int64_t> found() const {
    std::vector<std::int64_t> ids;
    EXPECT_TRUE(index_->forEachDescending([&](const IndexedMessage& message) {
      ids.push_back(message.id());
      return true;
    }));
    return ids;
  }
  std::vector<std::string> filesBeside() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_ / "idx")) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

  TemporaryFolder folder_;
  const std::string path_ = folder_ / "idx/index.sqlite";
  std::map<std::int64_t, std::string> texts_;
  std::unique_ptr<Index> index_;
};

TEST_F(TheIndex, MessagesComeInDescendingOrder) {
  put({entryOf(2, "two"), entryOf(7, "seven"), entryOf(5, "five")});
  EXPECT_THAT(found(), ElementsAre(7, 5, 2));
  EXPECT_EQ(*index_->count(), 3U);
}

TEST_F(TheIndex, MoreMessagesThanOneStepReadsComeEachOnce) {
  std::vector<IndexEntry> entries;
  for (int id = 1; id <= 1000; ++id) entries.push_back(entryOf(id, "s"));
  put(std::move(entries));
  const auto ids = found();
  ASSERT_EQ(ids.size(), 1000U);
  EXPECT_EQ(ids.front(), 1000);
  EXPECT_EQ(ids.back(), 1);
}

TEST_F(TheIndex, AVisitCanEndEarlyAndMayWriteMeanwhile) {
  put({entryOf(1, "one"), entryOf(2, "two"), entryOf(3, "three")});
  int visited = 0;
  ASSERT_TRUE(index_->forEachDescending([&](const IndexedMessage&) {
    EXPECT_TRUE(index_->put(std::vector<IndexEntry>{entryOf(9, "nine")}));
    return ++visited < 2;
  }));
  EXPECT_EQ(visited, 2);
}

TEST_F(TheIndex, AVisitGoesOnInAnIndexThatIsMadeAnewMeanwhile) {
  const auto entriesBy = [](const std::string& author) {
    std::vector<IndexEntry> entries;
    for (int id = 1; id <= 600; ++id) {
      entries.push_back(entryOf(id, "s"));
      entries.back().attributes.set(keyText(AttributeKey::kAuthors), Value(Array{author}));
    }
    return entries;
  };
  put(entriesBy("before"));
  std::map<std::string, int> authors;
  ASSERT_TRUE(index_->forEachDescending([&](const IndexedMessage& message) {
    if (authors.empty()) {
      EXPECT_TRUE(index_->makeAnew());
      put(entriesBy("after"));
    }
    const Array those = *message.value(AttributeKey::kAuthors).asArray();
    ++authors[std::string(*those[0].asText())];
    return true;
  }));
  // What is read after it has its shared values from the new one.
  EXPECT_EQ(authors, (std::map<std::string, int>{{"before", 256}, {"after", 344}}));
}

TEST_F(TheIndex, AMessageHasItsAttributesItsTextAndItsIdentifier) {
  put({entryOf(42, "Subject", "the text")});
  const auto message = index_->get(42);
  ASSERT_TRUE(message);
  EXPECT_EQ(message->value("kMDItemSubject").asText(), "Subject");
  EXPECT_EQ(message->value("kMDItemTitle").asText(), "Subject");
  EXPECT_EQ(message->value("kMDItemTextContent").asText(), "the text");
  EXPECT_EQ(message->value("_kMDItemExternalID").asText(), "42");
  EXPECT_TRUE(message->value("kMDItemAuthors").isNull());
  EXPECT_TRUE(message->value("no such").isNull());
  const Dictionary all = attributesOf(*message);
  EXPECT_EQ(all.size(), 3U);
  EXPECT_FALSE(all.contains("kMDItemTitle"));
  const std::vector<std::string> names{"kMDItemSubject", "kMDItemTitle", "kMDItemTextContent"};
  const Dictionary some =
      attributesOf(*message, std::make_shared<const RecordEntries>(selectAttributes(names)));
  EXPECT_EQ(some.size(), 1U);
  EXPECT_EQ(some["kMDItemSubject"].asText(), "Subject");
  EXPECT_FALSE(index_->get(43));
}

TEST_F(TheIndex, AnEntryWithoutTextKeepsTheTextThatStands) {
  IndexEntry entry = entryOf(1, "before", "the text");
  entry.incomplete = {"cut"};
  put({entry});
  entry = entryOf(1, "after");
  entry.textContent.reset();
  put({entry});
  EXPECT_EQ(index_->get(1)->value("kMDItemSubject").asText(), "after");
  EXPECT_EQ(index_->textContent(1, 1), "the text");
  EXPECT_EQ(index_->incomplete()->size(), 1U);
  put({entryOf(1, "whole", "other")});
  EXPECT_EQ(index_->textContent(1, 1), "other");
  EXPECT_THAT(*index_->incomplete(), IsEmpty());
}

TEST_F(TheIndex, WhatItKnowsOfFilesOutlivesIt) {
  put({entryOf(1, "one"), entryOf(2, "two", "", 8)});
  ASSERT_TRUE(index_->setFailed("/m", {{"/m/x", "no"}}));
  ASSERT_TRUE(index_->setLastUpdate(Date::fromUnixSeconds(1'500'000'000)));
  open();
  EXPECT_EQ(index_->files(1)->at(1), (IndexedFile{7, 11, false}));
  EXPECT_EQ(index_->files(8)->size(), 1U);
  EXPECT_THAT(*index_->mailboxes(), ElementsAre(1, 8));
  EXPECT_THAT(*index_->failed(), ElementsAre(UnreadablePath{"/m/x", "no"}));
  EXPECT_EQ(index_->lastUpdate()->unixSeconds(), 1'500'000'000);
  ASSERT_TRUE(index_->keepFailed({"/other"}));
  EXPECT_THAT(*index_->failed(), IsEmpty());
}

TEST_F(TheIndex, FilesArePrivateToTheUser) {
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  ASSERT_EQ(::stat((path_ + "-wal").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  ASSERT_EQ(::stat((folder_ / "idx").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700U);
}

TEST_F(TheIndex, EachCommitIsToldOnceInOrder) {
  std::vector<std::string> told;
  const auto text = [](const std::vector<std::int64_t>& ids) {
    std::string all;
    for (const std::int64_t id : ids) all += std::to_string(id) + ",";
    return all;
  };
  const auto number = index_->addListener([&](const IndexChange& change) {
    told.push_back("+" + text(change.added) + " ~" + text(change.changed) + " -" +
                   text(change.removed));
  });
  put({entryOf(2, "b"), entryOf(1, "a")});
  put({entryOf(2, "b2"), entryOf(3, "c")});
  ASSERT_TRUE(index_->remove(std::vector<std::int64_t>{2, 99}));
  ASSERT_TRUE(index_->removeMailbox(1));
  ASSERT_TRUE(index_->removeMailbox(1));
  index_->removeListener(number);
  put({entryOf(5, "e")});
  EXPECT_THAT(told, ElementsAre("+1,2, ~ -", "+3, ~2, -", "+ ~ -2,", "+ ~ -1,3,"));
}

TEST_F(TheIndex, AListenerMayReadWriteAndLeave) {
  std::uint64_t number = 0;
  int calls = 0;
  number = index_->addListener([&](const IndexChange& change) {
    ++calls;
    EXPECT_TRUE(index_->contains(change.added.at(0)));
    index_->removeListener(number);
    EXPECT_TRUE(index_->put(std::vector<IndexEntry>{entryOf(9, "nine")}));
  });
  put({entryOf(1, "one")});
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(index_->contains(9));
}

TEST_F(TheIndex, HiddenMailboxesAreNotFoundAndComeBackAsAdded) {
  put({entryOf(1, "one"), entryOf(2, "two", "", 2), entryOf(3, "three", "", 2)});
  std::vector<IndexChange> told;
  index_->addListener([&](const IndexChange& change) { told.push_back(change); });
  index_->hideMailboxes({2});
  EXPECT_THAT(found(), ElementsAre(1));
  EXPECT_FALSE(index_->get(2));
  EXPECT_EQ(*index_->count(), 3U);
  EXPECT_TRUE(told.empty()) << "hiding reports no removals";
  index_->hideMailboxes({});
  EXPECT_THAT(found(), ElementsAre(3, 2, 1));
  ASSERT_EQ(told.size(), 1U);
  EXPECT_THAT(told[0].added, ElementsAre(2, 3));
}

TEST_F(TheIndex, ADamagedFileIsSetAsideAndBegunAnew) {
  put({entryOf(1, "one")});
  index_.reset();
  testing_support::writeFile(path_, std::string(8192, 'x'));
  std::filesystem::remove(path_ + "-wal");
  open();
  EXPECT_THAT(found(), IsEmpty());
  EXPECT_EQ(index_->takeLoss(), IndexLoss::kDamaged);
  EXPECT_THAT(filesBeside(), ::testing::Contains("index.sqlite.damaged-1"));
  put({entryOf(1, "again")});
  EXPECT_THAT(found(), ElementsAre(1));
}

TEST_F(TheIndex, AnotherSchemaVersionIsBegunAnewWithoutKeepingTheOld) {
  put({entryOf(1, "one")});
  index_.reset();
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path_.c_str(), &db), SQLITE_OK);
  sqlite3_exec(db, "PRAGMA user_version = 77", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  open();
  EXPECT_THAT(found(), IsEmpty());
  EXPECT_EQ(index_->takeLoss(), IndexLoss::kOtherVersion);
  EXPECT_THAT(filesBeside(), ::testing::Not(::testing::Contains("index.sqlite.damaged-1")));
}

TEST_F(TheIndex, AFileDeletedUnderUsIsNoticedAsAnErrorAndNotACrash) {
  put({entryOf(1, "one")});
  std::filesystem::remove_all(folder_ / "idx");
  static_cast<void>(index_->put(std::vector<IndexEntry>{entryOf(2, "two")}));
  static_cast<void>(index_->get(1));
  open();
  put({entryOf(2, "two")});
  EXPECT_THAT(found(), ElementsAre(2));
}

TEST_F(TheIndex, AFileThatIsGoneCountsAsDamagedUntilItIsMadeAnew) {
  EXPECT_EQ(index_->takeLoss(), IndexLoss::kMissing) << "it was never there";
  put({entryOf(1, "one")});
  EXPECT_FALSE(index_->isDamaged());
  std::filesystem::remove(path_);
  EXPECT_TRUE(index_->isDamaged());
  ASSERT_TRUE(index_->makeAnew());
  EXPECT_FALSE(index_->isDamaged());
  EXPECT_EQ(index_->takeLoss(), IndexLoss::kMissing);
  EXPECT_EQ(index_->takeLoss(), IndexLoss::kNone);
  EXPECT_THAT(filesBeside(), ::testing::Not(::testing::Contains("index.sqlite.damaged-1")));
  put({entryOf(2, "two")});
  EXPECT_THAT(found(), ElementsAre(2));
}

TEST_F(TheIndex, WhatCannotBeMadeAnewCanBeTriedAgain) {
  put({entryOf(1, "one")});
  std::filesystem::remove_all(folder_ / "idx");
  EXPECT_FALSE(index_->makeAnew());
  EXPECT_TRUE(index_->isDamaged());
  std::filesystem::create_directory(folder_ / "idx");
  EXPECT_TRUE(index_->makeAnew());
  put({entryOf(1, "one")});
  EXPECT_THAT(found(), ElementsAre(1));
}

TEST_F(TheIndex, DamageThatTheColumnsAreMadeOfIsNoticed) {
  std::vector<IndexEntry> entries;
  for (int id = 1; id <= 500; ++id) entries.push_back(entryOf(id, std::string(400, 's')));
  put(std::move(entries));
  index_.reset();
  // The second leaf of the records.
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path_.c_str(), &db), SQLITE_OK);
  std::int64_t page = 0;
  sqlite3_exec(
      db, "SELECT pageno FROM dbstat WHERE name = 'records' AND pagetype = 'leaf' LIMIT 1 OFFSET 1",
      [](void* out, int, char** columns, char**) {
        *static_cast<std::int64_t*>(out) = std::stoll(columns[0]);
        return 0;
      },
      &page, nullptr);
  sqlite3_close(db);
  ASSERT_NE(page, 0) << "SQLite's dbstat, which Debian's has, tells where its pages are";
  std::string bytes = testing_support::readWhole(path_);
  bytes.replace(static_cast<std::size_t>(page - 1) * 4096, 4096, std::string(4096, '\x55'));
  testing_support::writeFile(path_, bytes);
  open();
  EXPECT_FALSE(index_->isDamaged());
  EXPECT_FALSE(index_->prepareColumns());
  EXPECT_TRUE(index_->isDamaged());
}

TEST_F(TheIndex, ForReadingOnlyNothingIsMadeOrChanged) {
  EXPECT_FALSE(Index::open(folder_ / "none/index.sqlite", Index::Access::kReadOnly));
  EXPECT_FALSE(std::filesystem::exists(folder_ / "none"));
  put({entryOf(1, "one")});
  auto reader = Index::open(path_, Index::Access::kReadOnly);
  ASSERT_TRUE(reader);
  EXPECT_TRUE((*reader)->contains(1));
  EXPECT_FALSE((*reader)->put(std::vector<IndexEntry>{entryOf(2, "two")}));
  put({entryOf(2, "two")});
  EXPECT_TRUE((*reader)->contains(2)) << "and it sees what is committed later";
}

TEST_F(TheIndex, DamageAnywhereNeverCrashesAndIsNoticedOrHarmless) {
  std::vector<IndexEntry> entries;
  for (int id = 1; id <= 400; ++id) {
    entries.push_back(entryOf(id, "subject " + std::to_string(id), std::string(3000, 't')));
  }
  put(std::move(entries));
  index_.reset();
  const std::string good = testing_support::readWhole(path_);
  ASSERT_GT(good.size(), 50'000U);
  std::mt19937 random(7);
  constexpr std::size_t kPage = 4096;
  constexpr int kRounds = 250;
  for (int round = 0; round < kRounds; ++round) {
    std::string bad = good;
    const std::size_t page = random() % (bad.size() / kPage);
    for (std::size_t i = 0; i < kPage; ++i) bad[page * kPage + i] = static_cast<char>(random());
    for (const auto& entry : std::filesystem::directory_iterator(folder_ / "idx")) {
      std::filesystem::remove(entry);
    }
    testing_support::writeFile(path_, bad);
    open();
    ASSERT_TRUE(index_) << page;
    static_cast<void>(index_->forEachDescending([&](const IndexedMessage& message) {
      const auto subject = message.value("kMDItemSubject");
      EXPECT_EQ(subject.asText(), "subject " + std::to_string(message.id()));
      const auto text = message.value("kMDItemTextContent");
      EXPECT_TRUE(text.isNull() || text.asText() == std::string(3000, 't'));
      return true;
    }));
    if (index_->isDamaged()) {
      ASSERT_TRUE(index_->makeAnew());
      EXPECT_FALSE(index_->isDamaged());
      EXPECT_THAT(found(), IsEmpty());
    }
  }
  RecordProperty("bad_inputs", kRounds);
}

// The columns of an index, in a file beside it.
class KeptColumnsOfTheIndex : public TheIndex {
 protected:
  void SetUp() override {
    open();
    put({entry(1, "one"), entry(2, "two"), entry(3, "three"), entry(4, "four")});
    ASSERT_TRUE(index_->settle());
  }

  // One that the columns say all of.
  static IndexEntry entry(std::int64_t id, const std::string& subject) {
    IndexEntry entry = entryOf(id, subject);
    entry.attributes.set(keyText(AttributeKey::kDisplayName), Value(subject));
    return entry;
  }
  std::vector<std::int64_t> withSubject(const std::string& subject) const {
    const auto query = query::parse("kMDItemSubject == \"" + subject + "\"", query::testOptions());
    EXPECT_TRUE(query);
    std::vector<std::int64_t> ids;
    EXPECT_TRUE(index_->forEachMatch(*query, [&](const IndexedMessage& message) {
      ids.push_back(message.id());
      return true;
    }));
    return ids;
  }
  std::vector<std::int64_t> withAnySubject() const { return withSubject("*"); }

  // From now on the records in the tables say something else than the columns.
  void changeRecordsBehindIt() const {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path_.c_str(), &db), SQLITE_OK);
    sqlite3_exec(db, "UPDATE records SET record = (SELECT record FROM records WHERE id = 1)",
                 nullptr, nullptr, nullptr);
    sqlite3_close(db);
  }

  const std::string file_ = path_ + "-columns";
};

TEST_F(KeptColumnsOfTheIndex, AreWhatTheNextStartAnswersFrom) {
  index_.reset();
  changeRecordsBehindIt();
  open();
  EXPECT_THAT(withSubject("one"), ElementsAre(1)) << "though now each record says so";
  index_.reset();
  ASSERT_TRUE(std::filesystem::remove(file_));
  open();
  EXPECT_THAT(withSubject("one"), ElementsAre(4, 3, 2, 1));
}

TEST_F(KeptColumnsOfTheIndex, AreBroughtUpToDateWithWhatChangedAfterThem) {
  put({entry(2, "other"), entry(5, "five")});
  ASSERT_TRUE(index_->remove(std::vector<std::int64_t>{3}));
  put({entry(6, "six")});
  ASSERT_TRUE(index_->remove(std::vector<std::int64_t>{6}));
  const auto before = std::filesystem::last_write_time(file_);
  ASSERT_TRUE(index_->settle());
  EXPECT_EQ(std::filesystem::last_write_time(file_), before) << "so few are not worth a new file";
  open();
  EXPECT_THAT(withAnySubject(), ElementsAre(5, 4, 2, 1));
  EXPECT_THAT(withSubject("two"), IsEmpty());
  EXPECT_THAT(withSubject("other"), ElementsAre(2));
  EXPECT_THAT(withSubject("five"), ElementsAre(5));
}

TEST_F(KeptColumnsOfTheIndex, AreKeptAnewAfterManyChanges) {
  std::vector<IndexEntry> entries;
  for (int id = 5; id <= 1500; ++id) entries.push_back(entry(id, "s" + std::to_string(id)));
  put(std::move(entries));
  const auto before = std::filesystem::file_size(file_);
  ASSERT_TRUE(index_->settle());
  EXPECT_GT(std::filesystem::file_size(file_), 10 * before);
  open();
  EXPECT_THAT(withSubject("s1234"), ElementsAre(1234));
  EXPECT_THAT(withSubject("three"), ElementsAre(3));
}

TEST_F(KeptColumnsOfTheIndex, AreThoseOfOneIndexAlone) {
  const std::string columns = testing_support::readWhole(file_);
  index_.reset();
  std::filesystem::remove_all(folder_ / "idx");
  open();
  put({entry(1, "another")});
  ASSERT_TRUE(index_->settle());
  index_.reset();
  testing_support::writeFile(file_, columns);
  open();
  EXPECT_THAT(withSubject("one"), IsEmpty());
  EXPECT_THAT(withSubject("another"), ElementsAre(1));
}

// A kill between the file and its token, or between what it was made of and the next commit.
TEST_F(KeptColumnsOfTheIndex, OfAnotherMomentAreNoColumns) {
  const std::string older = testing_support::readWhole(file_);
  std::vector<IndexEntry> entries;
  for (int id = 1; id <= 1500; ++id) entries.push_back(entry(id, "new"));
  put(std::move(entries));
  ASSERT_TRUE(index_->settle());
  index_.reset();
  testing_support::writeFile(file_, older);
  open();
  EXPECT_THAT(withSubject("one"), IsEmpty());
  EXPECT_EQ(withSubject("new").size(), 1500U);
  ASSERT_TRUE(index_->settle());
  EXPECT_NE(testing_support::readWhole(file_), older) << "and are replaced";
}

TEST_F(KeptColumnsOfTheIndex, ThatAreDamagedAnywhereAreNoColumns) {
  index_.reset();
  const std::string good = testing_support::readWhole(file_);
  changeRecordsBehindIt();
  // Whoever takes the file for good finds one message, and four otherwise.
  const auto isTaken = [&](const std::string& bytes) {
    index_.reset();
    testing_support::writeFile(file_, bytes);
    open();
    const auto found = withSubject("one");
    EXPECT_THAT(found, ::testing::AnyOf(ElementsAre(1), ElementsAre(4, 3, 2, 1)));
    return found.size() == 1;
  };
  ASSERT_TRUE(isTaken(good));
  int damaged = 1;
  for (std::size_t size = 0; size < good.size(); size += 1 + size / 16) {
    EXPECT_FALSE(isTaken(good.substr(0, size))) << size;
    ++damaged;
  }
  EXPECT_FALSE(isTaken(good + '\0'));
  for (std::size_t at = 0; at < good.size(); at += 1 + good.size() / 300) {
    std::string bad = good;
    bad[at] = static_cast<char>(bad[at] ^ (1 << (at % 8)));
    EXPECT_FALSE(isTaken(bad)) << at;
    ++damaged;
  }
  RecordProperty("bad_inputs", damaged);
}

TEST_F(KeptColumnsOfTheIndex, ServeAReaderBesideTheWriter) {
  auto reader = Index::open(path_, Index::Access::kReadOnly);
  ASSERT_TRUE(reader);
  put({entry(5, "two")});
  std::swap(index_, *reader);
  EXPECT_THAT(withSubject("two"), ElementsAre(5, 2));
}

TEST_F(KeptColumnsOfTheIndex, GoWithTheIndex) {
  ASSERT_TRUE(index_->makeAnew());
  EXPECT_FALSE(std::filesystem::exists(file_));
  put({entry(1, "again")});
  open();
  EXPECT_THAT(withAnySubject(), ElementsAre(1));
}

TEST_F(KeptColumnsOfTheIndex, ThatCannotBeWrittenAreDoneWithout) {
  ASSERT_TRUE(std::filesystem::remove(file_));
  std::filesystem::create_directory(file_);
  open();
  EXPECT_THAT(withSubject("two"), ElementsAre(2));
  ASSERT_TRUE(index_->settle());
  EXPECT_THAT(withSubject("two"), ElementsAre(2));
}

TEST_F(TheIndex, ReadersGoOnWhileAWriterWrites) {
  put({entryOf(1, "one")});
  std::atomic<bool> done{false};
  std::atomic<int> told{0};
  index_->addListener([&](const IndexChange&) { ++told; });
  std::vector<std::thread> readers;
  readers.reserve(3);
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      while (!done.load()) {
        std::int64_t last = INT64_MAX;
        EXPECT_TRUE(index_->forEachDescending([&](const IndexedMessage& message) {
          EXPECT_LT(message.id(), last);
          last = message.id();
          EXPECT_FALSE(message.value("kMDItemSubject").isNull());
          return true;
        }));
        EXPECT_TRUE(last == 1 || last == INT64_MAX) << "all, or just begun anew";
      }
    });
  }
  for (int round = 0; round < 30; ++round) {
    put({entryOf(2 + round, "s"), entryOf(1, "one")});
    if (round == 15) {
      ASSERT_TRUE(index_->makeAnew());
      put({entryOf(1, "one")});
      break;
    }
  }
  done.store(true);
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(told.load(), 17);
}

// What a record gives, as a dictionary.
class RecordSource : public DictionarySource {
 public:
  RecordSource(std::string record, const ValuePool& pool, const AttributeSelection& wanted)
      : record_(std::move(record)), pool_(pool), entries_(wanted) {}
  void give(EntrySink& sink) const override { entries_.give(record_, pool_, "42", sink); }
  Value entry(std::string_view) const override { return {}; }
  bool has(std::string_view) const override { return false; }

 private:
  const std::string record_;
  const ValuePool& pool_;
  const RecordEntries entries_;
};

Dictionary given(const std::string& record, const ValuePool& pool,
                 const AttributeSelection& wanted = AttributeSelection().set()) {
  return Dictionary(std::make_shared<const RecordSource>(record, pool, wanted));
}

// In its written form, too.
Value writtenAndRead(const Dictionary& dictionary) {
  const auto bytes = writeBinaryPropertyList(dictionary);
  return bytes ? readBinaryPropertyList(*bytes, kBatchLimits).value_or("not read") : "not written";
}

TEST(MessageRecord, GivesBackWhatWasPutIn) {
  ValuePool pool(ValuePool::Use::kWriting);
  const Value shared(Array{Value("a@b.test"), Value("c@d.test")});
  Dictionary attributes;
  attributes.set(keyText(AttributeKey::kAuthorEmailAddresses), shared);
  attributes.set(keyText(AttributeKey::kAuthorAddresses), shared);
  attributes.set(keyText(AttributeKey::kFSSize), Value(-5));
  attributes.set(keyText(AttributeKey::kFileIdentifier), Value(~std::uint64_t{0}));
  attributes.set(keyText(AttributeKey::kRead), Value(true));
  attributes.set(keyText(AttributeKey::kFlagged), Value(false));
  attributes.set(keyText(AttributeKey::kDateAdded), Value(Date{-123456789.0}));
  attributes.set(keyText(AttributeKey::kCreationDate), Value(Date{0.25}));
  attributes.set(keyText(AttributeKey::kKind), Value("Mail Message"));
  attributes.set(keyText(AttributeKey::kEmailHeadersDictionary),
                 Value(Dictionary{{"Subject", Value(Array{Value("x")})}}));
  const Dictionary queryOnly{{keyText(AttributeKey::kTitle), Value("t")}};
  const std::string record = encodeRecord(attributes, queryOnly, pool);
  EXPECT_TRUE(isIntactRecord(record));
  Dictionary back;
  Dictionary backQueryOnly;
  forEachInRecord(record, pool, [&](AttributeKey key, const Value& value) {
    (isQueryOnly(key) ? backQueryOnly : back).set(keyText(key), value);
    EXPECT_TRUE(Value::identical(value, recordValue(record, key, pool)));
    return true;
  });
  EXPECT_TRUE(Value::identical(Value(back), Value(attributes)));
  EXPECT_TRUE(Value::identical(Value(backQueryOnly), Value(queryOnly)));
  EXPECT_EQ(back["kMDItemAuthorAddresses"].identity(),
            back["kMDItemAuthorEmailAddresses"].identity());
  EXPECT_TRUE(recordValue(record, AttributeKey::kSubject, pool).isNull());
  EXPECT_FALSE(hasRecordValue(record, AttributeKey::kSubject, pool));
  EXPECT_TRUE(hasRecordValue(record, AttributeKey::kKind, pool));
  EXPECT_TRUE(hasRecordValue(record, AttributeKey::kFSSize, pool));

  Dictionary all = attributes;
  all.set(keyText(AttributeKey::kTitle), Value("t"));
  all.set(keyText(AttributeKey::kExternalID), Value("42"));
  EXPECT_TRUE(Value::identical(given(record, pool), all));
  EXPECT_TRUE(Value::identical(writtenAndRead(given(record, pool)), all));
}

TEST(MessageRecord, GivesWhatIsWantedAndNoMore) {
  ValuePool pool(ValuePool::Use::kWriting);
  const Value subject("a subject that comes again");
  const Dictionary attributes{
      {keyText(AttributeKey::kDisplayName), subject},
      {keyText(AttributeKey::kSubject), subject},
      {keyText(AttributeKey::kMessageID), Value("id@example.org")},
      {keyText(AttributeKey::kIdentifier), Value("<id@example.org>")},
      {keyText(AttributeKey::kRead), Value(true)},
      {keyText(AttributeKey::kFlagged), Value(false)},
      {keyText(AttributeKey::kEmailHeadersDictionary),
       Value(Dictionary{{"Message-Id", Value(Array{"<id@example.org>"})},
                        {"Subject", Value(Array{subject, "and another"})}})}};
  const std::string record = encodeRecord(attributes, {}, pool);
  std::vector<Dictionary::Entry> entries(attributes.begin(), attributes.end());
  entries.push_back({keyText(AttributeKey::kExternalID), Value("42")});
  for (unsigned some = 0; some < 1U << entries.size(); ++some) {
    AttributeSelection wanted;
    Dictionary expected;
    for (std::size_t i = 0; i < entries.size(); ++i) {
      if ((some >> i & 1) == 0) continue;
      wanted.set(static_cast<std::size_t>(*keyNamed(entries[i].key)));
      expected.set(entries[i].key, entries[i].value);
    }
    ASSERT_TRUE(Value::identical(given(record, pool, wanted), expected)) << some;
    ASSERT_TRUE(Value::identical(writtenAndRead(given(record, pool, wanted)), expected)) << some;
  }
}

TEST(MessageRecord, PoolTakesValuesAndDictionariesOfAttributesAlone) {
  std::mt19937 random(3);
  const Dictionary shape{{keyText(AttributeKey::kRead), Value(true)},
                         {keyText(AttributeKey::kKind), Value("Mail Message")},
                         {keyText(AttributeKey::kMailboxes), Value(Array{"a", "b"})}};
  const Value nested = Array{1,
                             -2,
                             ~std::uint64_t{0},
                             0.5,
                             Date{7},
                             Date{0.25},
                             Data{"x"},
                             "t",
                             true,
                             Array{},
                             Dictionary{{"any key", Array{"v"}}}};
  EXPECT_FALSE(isPoolValue(""));
  EXPECT_FALSE(isPoolValue(encodeValue(Dictionary{{"no attribute", 1}})));
  int taken = 0;
  for (const Value& value : {Value(shape), nested, Value("text")}) {
    const std::string good = encodeValue(value);
    EXPECT_TRUE(isPoolValue(good));
    for (std::size_t size = 0; size < good.size(); ++size) {
      EXPECT_FALSE(isPoolValue(std::string_view(good).substr(0, size))) << size;
    }
    for (int round = 0; round < 20'000; ++round) {
      std::string bad = good;
      bad[random() % bad.size()] = static_cast<char>(random());
      if (!isPoolValue(bad)) continue;
      ++taken;
      ASSERT_FALSE(decodeValue(bad).isNull()) << "what is taken can be made";
    }
  }
  EXPECT_GT(taken, 100);
}

TEST(MessageRecord, AnyBytesAreSafeToRead) {
  ValuePool pool(ValuePool::Use::kWriting);
  std::mt19937 random(11);
  Dictionary attributes{{keyText(AttributeKey::kAuthors), Value(Array{Value("x"), Value("y")})},
                        {keyText(AttributeKey::kRead), Value(true)},
                        {keyText(AttributeKey::kEmailHeadersDictionary),
                         Value(Dictionary{{"Subject", Value(Array{"subject"})}})},
                        {keyText(AttributeKey::kSubject), Value("subject")}};
  const std::string good = encodeRecord(attributes, {}, pool);
  for (int round = 0; round < 20'000; ++round) {
    std::string bad = good;
    for (int i = 0; i < 3; ++i) bad[random() % bad.size()] = static_cast<char>(random());
    bad.resize(random() % (bad.size() + 1));
    forEachInRecord(bad, pool, [](AttributeKey, const Value&) { return true; });
    static_cast<void>(recordValue(bad, AttributeKey::kSubject, pool));
    const Dictionary made = given(bad, pool);
    static_cast<void>(made.size());
    ASSERT_EQ(writtenAndRead(given(bad, pool)), writtenAndRead(made)) << round;
  }
  EXPECT_FALSE(isIntactRecord("abc"));
  std::string changed = good;
  changed.back() = static_cast<char>(changed.back() ^ 1);
  EXPECT_FALSE(isIntactRecord(changed));
}

}  // namespace
}  // namespace thmp
