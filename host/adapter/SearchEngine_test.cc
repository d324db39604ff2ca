// SPDX-License-Identifier: Apache-2.0
#include "host/adapter/SearchEngine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <functional>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "host/store/test_support.h"

namespace thmp {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing_support::TemporaryFolder;

constexpr std::chrono::seconds kPatience{60};

IndexEntry entryOf(std::int64_t id, const std::string& subject) {
  IndexEntry entry;
  entry.id = id;
  entry.mailbox = 1;
  entry.file = {1, 1, false};
  entry.attributes.set("kMDItemSubject", Value(subject));
  entry.attributes.set("kMDItemDisplayName", Value(subject));
  entry.queryOnly.set("kMDItemTitle", Value(subject));
  entry.attributes.set("kMDItemContentType", Value("public.email-message"));
  entry.textContent = "words";
  return entry;
}

// What a query has said, in words, in order.
class Account {
 public:
  void add(std::string what) {
    {
      const Lock lock(mutex_);
      lines_.push_back(std::move(what));
    }
    changed_.notify_all();
  }
  std::vector<std::string> lines() const {
    const Lock lock(mutex_);
    return lines_;
  }
  /// The lines, once there are `count`, or after a long time what there is.
  std::vector<std::string> waitFor(std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    const Lock lock(mutex_);
    while (lines_.size() < count &&
           changed_.wait_until(mutex_, deadline) != std::cv_status::timeout) {
    }
    return lines_;
  }

 private:
  mutable Mutex mutex_;
  ConditionVariable changed_;
  std::vector<std::string> lines_ THMP_GUARDED_BY(mutex_);
};

class TheEngine : public ::testing::Test {
 protected:
  void SetUp() override {
    auto opened = Index::open(folder_ / "index.sqlite", Index::Access::kReadWrite);
    ASSERT_TRUE(opened) << opened.error().text();
    index_ = std::move(*opened);
    start({});
  }

  // A query's strand may still look at the index when the test has seen enough, so it stays, as a
  // host's does.
  void TearDown() override {
    static std::vector<std::unique_ptr<Index>> kept;
    kept.push_back(std::move(index_));
  }

  void start(SearchEngineOptions options) {
    options.queryOptions = [] { return query::QueryOptions(); };
    engine_.reset();
    engine_ = std::make_unique<SearchEngine>(*index_, pool(), std::move(options));
  }

  // One for all tests: pools live as long as the process.
  static ThreadPool& pool() {
    static ThreadPool& threads = ThreadPool::create(2);
    return threads;
  }

  void put(std::vector<IndexEntry> entries) { ASSERT_TRUE(index_->put(entries)); }
  void remove(std::vector<std::int64_t> ids) { ASSERT_TRUE(index_->remove(ids)); }

  std::shared_ptr<SpotlightQuery> makeQuery(const std::string& text, bool live) {
    auto query = engine_->makeQuery(text, nullptr);
    query->setFoundItemsHandler(std::make_shared<const SpotlightQuery::FoundItemsHandler>(
        [account = account_, raw = query.get()](std::span<const SpotlightItem> items) {
          std::string line = "found";
          for (const SpotlightItem& item : items) line += " " + item.identifier;
          account->add(line + " of " + std::to_string(raw->foundItemCount()));
        }));
    query->setCompletionHandler(std::make_shared<const SpotlightQuery::CompletionHandler>(
        [account = account_](const Error& error) {
          account->add(error.isSet() ? "failed " + std::to_string(error.code) : "completed");
        }));
    query->setRemovedItemsHandler(std::make_shared<const SpotlightQuery::RemovedItemsHandler>(
        [account = account_](const std::string& ignored, const Value& identifiers) {
          std::string line = "removed from " + ignored;
          const Array ids = identifiers.asArray().value_or(Array());
          for (const Value& id : ids) line += " " + std::string(*id.asText());
          account->add(line);
        }));
    query->setGatherEndedHandler(std::make_shared<const SpotlightQuery::GatherEndedHandler>(
        [account = account_] { account->add("gathered"); }));
    if (live) query->queryContext()->setLive(true);
    return query;
  }

  TemporaryFolder folder_;
  std::unique_ptr<Index> index_;
  std::unique_ptr<SearchEngine> engine_;
  const std::shared_ptr<Account> account_ = std::make_shared<Account>();
};

TEST_F(TheEngine, FindsNewestFirstAndCompletesOnce) {
  put({entryOf(1, "a"), entryOf(2, "b"), entryOf(3, "a")});
  const auto query = makeQuery("kMDItemSubject == a", /*live=*/false);
  query->start();
  query->start();
  EXPECT_THAT(account_->waitFor(2), ElementsAre("found 3 1 of 2", "completed"));
  EXPECT_FALSE(query->isCancelled());
}

TEST_F(TheEngine, CutsDeliveriesAndRaisesTheCountBeforeEach) {
  SearchEngineOptions options;
  options.deliveryLimit = 2;
  start(options);
  put({entryOf(1, "a"), entryOf(2, "a"), entryOf(3, "a"), entryOf(4, "a"), entryOf(5, "a")});
  const auto query = makeQuery("true", /*live=*/false);
  query->start();
  EXPECT_THAT(account_->waitFor(4),
              ElementsAre("found 5 4 of 2", "found 3 2 of 4", "found 1 of 5", "completed"));
}

TEST_F(TheEngine, LiveQueryWithNothingToFindStillGathers) {
  const auto query = makeQuery("true", /*live=*/true);
  query->start();
  EXPECT_THAT(account_->waitFor(1), ElementsAre("gathered"));
  EXPECT_EQ(engine_->liveQueryCount(), 1U);
}

TEST_F(TheEngine, LiveQueryFollowsWhatComesChangesAndGoes) {
  put({entryOf(1, "a")});
  const auto query = makeQuery("kMDItemSubject == a", /*live=*/true);
  query->start();
  account_->waitFor(2);
  put({entryOf(2, "a"), entryOf(3, "b")});
  account_->waitFor(3);
  put({entryOf(1, "b")});
  account_->waitFor(4);
  put({entryOf(3, "a")});
  account_->waitFor(5);
  remove({2});
  account_->waitFor(6);
  put({entryOf(1, "a")});
  EXPECT_THAT(account_->waitFor(7), ElementsAre("found 1 of 1", "gathered", "found 2 of 2",
                                                "removed from com.apple.mail 1", "found 3 of 3",
                                                "removed from com.apple.mail 2", "found 1 of 4"));
}

TEST_F(TheEngine, MessageThatChangesAndStillMatchesIsNotSentAgain) {
  put({entryOf(1, "a1")});
  const auto query = makeQuery("kMDItemSubject == \"a*\"", /*live=*/true);
  query->start();
  account_->waitFor(2);
  put({entryOf(1, "a2")});
  put({entryOf(2, "a")});
  EXPECT_THAT(account_->waitFor(3), ElementsAre("found 1 of 1", "gathered", "found 2 of 2"));
}

TEST_F(TheEngine, ChangesDuringGatheringWaitForItsEnd) {
  put({entryOf(1, "a")});
  const auto query = makeQuery("true", /*live=*/true);
  std::latch delivering(1);
  std::latch changed(1);
  query->setFoundItemsHandler(std::make_shared<const SpotlightQuery::FoundItemsHandler>(
      [&](std::span<const SpotlightItem> items) {
        if (items[0].identifier == "1") {
          delivering.count_down();
          changed.wait();
        }
        account_->add("found " + items[0].identifier);
      }));
  query->start();
  delivering.wait();
  put({entryOf(2, "a")});
  changed.count_down();
  EXPECT_THAT(account_->waitFor(3), ElementsAre("found 1", "gathered", "found 2"));
}

TEST_F(TheEngine, TextThatDoesNotParseCompletesWithItsError) {
  const auto query = makeQuery("a ==", /*live=*/true);
  query->start();
  EXPECT_THAT(account_->waitFor(1), ElementsAre("failed -2002"));
}

TEST_F(TheEngine, CancelCompletesOnceWithItsErrorAndNothingFollows) {
  put({entryOf(1, "a")});
  const auto query = makeQuery("true", /*live=*/true);
  query->start();
  account_->waitFor(2);
  query->cancel();
  query->cancel();
  EXPECT_TRUE(query->isCancelled());
  put({entryOf(2, "a")});
  EXPECT_EQ(engine_->liveQueryCount(), 0U);
  EXPECT_THAT(account_->waitFor(3), ElementsAre("found 1 of 1", "gathered", "failed -2003"));
}

TEST_F(TheEngine, CancelledBeforeTheStartOnlyCompletes) {
  put({entryOf(1, "a")});
  const auto query = makeQuery("true", /*live=*/false);
  query->cancel();
  EXPECT_THAT(account_->lines(), IsEmpty());
  query->start();
  EXPECT_THAT(account_->waitFor(1), ElementsAre("failed -2003"));
}

TEST_F(TheEngine, DetachedHandlersAreNotCalled) {
  put({entryOf(1, "a")});
  const auto query = makeQuery("true", /*live=*/false);
  query->setFoundItemsHandler(nullptr);
  query->start();
  EXPECT_THAT(account_->waitFor(1), ElementsAre("completed"));
  EXPECT_EQ(query->foundItemCount(), 1U);
}

TEST_F(TheEngine, QueryMayBeDroppedInsideItsOwnCallback) {
  put({entryOf(1, "a")});
  auto query = std::make_shared<std::shared_ptr<SpotlightQuery>>(makeQuery("true", /*live=*/true));
  (*query)->setFoundItemsHandler(std::make_shared<const SpotlightQuery::FoundItemsHandler>(
      [this, query](std::span<const SpotlightItem>) {
        query->reset();
        account_->add("dropped");
      }));
  SpotlightQuery* const started = query->get();
  started->start();
  query = nullptr;
  EXPECT_THAT(account_->waitFor(2), ElementsAre("dropped", "failed -2003"));
}

TEST_F(TheEngine, ItemsCarryTheListedAttributesTheyHave) {
  put({entryOf(7, "a")});
  const auto names = std::make_shared<const std::vector<std::string>>(std::vector<std::string>{
      "_kMDItemExternalID", "kMDItemSubject", "kMDItemTitle", "kMDItemKeywords"});
  const auto query = engine_->makeQuery("true", names);
  std::vector<std::string> keys;
  query->setFoundItemsHandler(std::make_shared<const SpotlightQuery::FoundItemsHandler>(
      [&](std::span<const SpotlightItem> items) {
        const Dictionary& attributes = items[0].attributes;
        EXPECT_EQ(attributes.get("_kMDItemExternalID"), Value(items[0].identifier));
        EXPECT_EQ(attributes.get("kMDItemSubject"), Value("a"));
        for (const char* none : {"kMDItemDisplayName", "kMDItemTitle"}) {
          EXPECT_TRUE(attributes.get(none).isNull()) << none << " is not listed, or there is none";
          EXPECT_FALSE(attributes.contains(none)) << none;
        }
        EXPECT_TRUE(attributes.contains("kMDItemSubject"));
        EXPECT_FALSE(items[0].filePath);
        for (const auto& entry : attributes) keys.push_back(entry.key.str());
        account_->add("found");
      }));
  query->start();
  account_->waitFor(1);
  EXPECT_THAT(keys, ElementsAre("_kMDItemExternalID", "kMDItemSubject"));
}

TEST_F(TheEngine, WithoutAListItemsCarryTheDefaultAttributes) {
  put({entryOf(7, "a")});
  const auto query = engine_->makeQuery("true", nullptr);
  std::vector<std::string> keys;
  query->setFoundItemsHandler(std::make_shared<const SpotlightQuery::FoundItemsHandler>(
      [&](std::span<const SpotlightItem> items) {
        for (const auto& entry : items[0].attributes) {
          keys.push_back(entry.key.str());
        }
        account_->add("found");
      }));
  query->start();
  account_->waitFor(1);
  EXPECT_THAT(keys, ElementsAre("_kMDItemExternalID", "kMDItemContentType", "kMDItemDisplayName"));
}

TEST_F(TheEngine, AttributesAreThoseOfTheDeliveryWhateverHappensAfterIt) {
  // More than are read at once.
  constexpr std::int64_t kCount = 1000;
  std::vector<IndexEntry> entries;
  for (std::int64_t id = 1; id <= kCount; ++id) {
    entries.push_back(entryOf(id, "before " + std::to_string(id)));
  }
  put(entries);
  std::vector<SpotlightItem> kept;
  std::thread maker;
  auto query = engine_->makeQuery("true", nullptr);
  query->setFoundItemsHandler(std::make_shared<const SpotlightQuery::FoundItemsHandler>(
      [&](std::span<const SpotlightItem> items) {
        entries[4] = entryOf(5, "after");
        put(entries);
        remove({6});
        index_->hideMailboxes({1});
        maker = std::thread([this] { EXPECT_TRUE(index_->makeAnew()); });
        for (const SpotlightItem& item : items.first(items.size() / 2)) {
          account_->add(item.identifier + " " +
                        std::string(*item.attributes["kMDItemDisplayName"].asText()));
        }
        kept.assign(items.begin(), items.end());
      }));
  query->setCompletionHandler(std::make_shared<const SpotlightQuery::CompletionHandler>(
      [&](const Error&) { account_->add("completed"); }));
  query->start();
  const auto line = [](std::int64_t id) {
    return std::to_string(id) + " before " + std::to_string(id);
  };
  std::vector<std::string> expected;
  for (std::int64_t id = kCount; id > kCount / 2; --id) expected.push_back(line(id));
  expected.emplace_back("completed");
  EXPECT_EQ(account_->waitFor(expected.size()), expected);
  query.reset();
  maker.join();
  for (std::int64_t id = kCount; id > 0; --id) {
    const SpotlightItem& item = kept[static_cast<std::size_t>(kCount - id)];
    EXPECT_EQ(item.attributes.get("kMDItemDisplayName"), Value("before " + std::to_string(id)));
    EXPECT_EQ(item.attributes.size(), 3U);
  }
}

// The columns find what the records no longer have.
TEST_F(TheEngine, MessageThatCannotBeReadHasNoAttributesAndComesOnceItCan) {
  std::vector<IndexEntry> entries;
  for (std::int64_t id = 1; id <= 1000; ++id) entries.push_back(entryOf(id, "a"));
  put(entries);
  ASSERT_TRUE(index_->prepareColumns());
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((folder_ / "index.sqlite").c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db,
                         "UPDATE records SET record = zeroblob(30) WHERE id IN (2, 998);"
                         "DELETE FROM records WHERE id IN (3, 999);"
                         "DELETE FROM files WHERE id IN (3, 999)",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  const auto query = makeQuery("true", /*live=*/true);
  query->setFoundItemsHandler(std::make_shared<const SpotlightQuery::FoundItemsHandler>(
      [&](std::span<const SpotlightItem> items) {
        std::string line = "found " + std::to_string(items.size()) + ", without attributes:";
        for (const SpotlightItem& item : items) {
          const bool hasID = item.attributes.contains("_kMDItemExternalID");
          EXPECT_EQ(hasID, item.attributes.get("kMDItemDisplayName") == Value("a"));
          EXPECT_EQ(hasID, !item.attributes.empty());
          if (!hasID) line += " " + item.identifier;
        }
        account_->add(line);
      }));
  query->start();
  // Those that are among the first to be read are not found at all.
  EXPECT_THAT(account_->waitFor(2), ElementsAre("found 998, without attributes: 3 2", "gathered"));
  EXPECT_TRUE(index_->isDamaged());
  put({entries[1], entries[2], entries[997], entries[998], entries[999]});
  EXPECT_EQ(account_->waitFor(3).back(), "found 4, without attributes:");
}

TEST_F(TheEngine, GathersNoFurtherThanWhatHasBeenTaken) {
  SearchEngineOptions options;
  options.deliveryLimit = 100;
  start(options);
  std::vector<IndexEntry> entries;
  for (std::int64_t id = 1; id <= 1050; ++id) entries.push_back(entryOf(id, "a"));
  put(entries);
  // A phrase is looked for in the text of each message, when its turn comes.
  std::size_t looked = 0;
  index_->setTextSource([&looked](std::int64_t, std::int64_t) {
    ++looked;
    return std::string("some words");
  });
  auto query = engine_->makeQuery("kMDItemTextContent == \"*e word*\"", nullptr);
  std::size_t ahead = 0;
  std::size_t taken = 0;
  query->setFoundItemsHandler(std::make_shared<const SpotlightQuery::FoundItemsHandler>(
      [&, raw = query.get()](std::span<const SpotlightItem> items) {
        taken += items.size();
        ahead = std::max(ahead, looked - taken);
        account_->add(std::to_string(items.size()) + " of " +
                      std::to_string(raw->foundItemCount()));
      }));
  query->start();
  const std::vector<std::string> lines = account_->waitFor(11);
  EXPECT_EQ(lines.front(), "100 of 100");
  EXPECT_EQ(lines.back(), "50 of 1050");
  EXPECT_LT(ahead, 10U) << "messages are looked at before those found are taken";
}

TEST_F(TheEngine, CancelledQueryLooksAtNoMoreTexts) {
  std::vector<IndexEntry> entries;
  for (std::int64_t id = 1; id <= 1050; ++id) entries.push_back(entryOf(id, "a"));
  put(entries);
  std::size_t looked = 0;
  std::shared_ptr<SpotlightQuery> query;
  index_->setTextSource([&](std::int64_t, std::int64_t) {
    query->cancel();
    ++looked;
    return std::string("no such");
  });
  query = makeQuery("kMDItemTextContent == \"*e word*\"", /*live=*/false);
  query->start();
  EXPECT_THAT(account_->waitFor(1), ElementsAre("failed -2003"));
  EXPECT_THAT(looked, ::testing::AllOf(::testing::Gt(0U), ::testing::Le(256U)));
}

TEST_F(TheEngine, CallbacksOfOneQueryNeverOverlap) {
  SearchEngineOptions options;
  options.deliveryLimit = 1;
  start(options);
  const auto query = engine_->makeQuery("true", nullptr);
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  const auto visit = [&] {
    if (inside.fetch_add(1) != 0) overlapped = true;
    inside.fetch_sub(1);
    account_->add("called");
  };
  query->setFoundItemsHandler(std::make_shared<const SpotlightQuery::FoundItemsHandler>(
      [&](std::span<const SpotlightItem>) { visit(); }));
  query->setRemovedItemsHandler(std::make_shared<const SpotlightQuery::RemovedItemsHandler>(
      [&](const std::string&, const Value&) { visit(); }));
  query->queryContext()->setLive(true);
  query->start();
  for (std::int64_t id = 1; id <= 50; ++id) put({entryOf(id, "a")});
  account_->waitFor(50);
  for (std::int64_t id = 1; id <= 50; ++id) remove({id});
  EXPECT_EQ(account_->waitFor(100).size(), 100U);
  EXPECT_FALSE(overlapped);
  query->cancel();
}

TEST_F(TheEngine, ManyLiveQueriesEachFollowEachChange) {
  constexpr std::size_t kQueries = 200;
  std::vector<std::shared_ptr<SpotlightQuery>> queries;
  for (std::size_t i = 0; i < kQueries; ++i) {
    queries.push_back(makeQuery("true", /*live=*/true));
    queries.back()->start();
  }
  account_->waitFor(kQueries);
  put({entryOf(1, "a")});
  EXPECT_EQ(account_->waitFor(2 * kQueries).size(), 2 * kQueries);
}

TEST(TheErrorsOfSearches, HaveTheirTexts) {
  EXPECT_EQ(searchError(SearchErrorCode::kUnknown).description, "An unknown error occurred.");
  EXPECT_EQ(searchError(SearchErrorCode::kIndexUnreachable).description,
            "The index is unreachable.");
  EXPECT_EQ(searchError(SearchErrorCode::kInvalidQuery).description, "The query is invalid.");
  EXPECT_EQ(searchError(SearchErrorCode::kCancelled).description, "The query was cancelled.");
  EXPECT_EQ(searchError(SearchErrorCode::kCancelled).domain, "CSSearchQueryErrorDomain");
}

}  // namespace
}  // namespace thmp
