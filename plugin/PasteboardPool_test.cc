// SPDX-License-Identifier: Apache-2.0
#include "plugin/PasteboardPool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/fake/ForwardingPasteboards.h"
#include "platform/fake/RecordingPasteboards.h"

namespace thmp {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class PasteboardLending : public ::testing::Test {
 protected:
  PasteboardPool::List lend(int count) {
    PasteboardPool::List lent;
    for (int i = 0; i < count; ++i) lent.push_back(pool.pasteboardFromPool());
    return lent;
  }
  static std::vector<std::string> names(const PasteboardPool::List& list) {
    std::vector<std::string> names;
    for (const auto& pasteboard : list) names.push_back(pasteboard->name());
    return names;
  }
  int releases(const std::string& name) { return system.find(name)->releaseCount(); }

  RecordingPasteboards system;
  PasteboardPool pool{system};
};

TEST_F(PasteboardLending, EmptyPoolMakesANewPasteboard) {
  EXPECT_THAT(names(lend(2)), ElementsAre("pb-1", "pb-2"));
  EXPECT_THAT(names(pool.pasteboards()), ElementsAre("pb-1", "pb-2"));
  EXPECT_THAT(pool.pasteboardPool(), IsEmpty());
}

TEST_F(PasteboardLending, GivesBackThePasteboardReturnedEarliest) {
  const auto lent = lend(3);
  pool.pasteboardToPool(lent[1]);
  pool.pasteboardToPool(lent[0]);
  EXPECT_EQ(pool.pasteboardFromPool(), lent[1]);
  EXPECT_EQ(pool.pasteboardFromPool(), lent[0]);
  EXPECT_EQ(system.made().size(), 3U);
}

TEST_F(PasteboardLending, LendingDoesNotClear) {
  pool.pasteboardToPool(lend(1)[0]);
  const int cleared = system.find("pb-1")->clearCount();
  lend(1);
  EXPECT_EQ(system.find("pb-1")->clearCount(), cleared);
}

TEST_F(PasteboardLending, SystemWithoutPasteboardsGivesNull) {
  system.failCreation(true);
  EXPECT_EQ(pool.pasteboardFromPool(), nullptr);
  EXPECT_THAT(pool.pasteboards(), IsEmpty());
}

TEST_F(PasteboardLending, ReturningClearsContentsAndTags) {
  const auto pasteboard = lend(1)[0];
  pasteboard->setOwnerTags("q", "client");
  pool.pasteboardToPool(pasteboard);
  EXPECT_EQ(system.find("pb-1")->clearCount(), 1);
  EXPECT_TRUE(pasteboard->ownerTags().uniqueName.isNull());
  EXPECT_TRUE(pasteboard->ownerTags().clientName.isNull());
}

TEST_F(PasteboardLending, SixReturnsLeaveFiveAndTheFirstOneIsReleasedButListed) {
  for (const auto& pasteboard : lend(6)) pool.pasteboardToPool(pasteboard);
  EXPECT_THAT(names(pool.pasteboardPool()), ElementsAre("pb-2", "pb-3", "pb-4", "pb-5", "pb-6"));
  EXPECT_THAT(names(pool.pasteboards()),
              ElementsAre("pb-1", "pb-2", "pb-3", "pb-4", "pb-5", "pb-6"));
  EXPECT_EQ(releases("pb-1"), 1);
  EXPECT_EQ(releases("pb-2"), 0);
}

TEST_F(PasteboardLending, ReturningNullStillTrims) {
  const auto lent = lend(7);
  pool.setPasteboardPool(lent);
  pool.pasteboardToPool(nullptr);
  EXPECT_THAT(names(pool.pasteboardPool()), ElementsAre("pb-3", "pb-4", "pb-5", "pb-6", "pb-7"));
  EXPECT_EQ(releases("pb-1"), 1);
  EXPECT_EQ(releases("pb-2"), 1);
}

TEST_F(PasteboardLending, ReturningNullToASmallPoolChangesNothing) {
  pool.pasteboardToPool(lend(1)[0]);
  pool.pasteboardToPool(nullptr);
  EXPECT_THAT(names(pool.pasteboardPool()), ElementsAre("pb-1"));
  EXPECT_EQ(system.made().size(), 1U);
}

TEST_F(PasteboardLending, SecondReturnOfOnePasteboardDoesNotPoolItTwice) {
  const auto pasteboard = lend(1)[0];
  pool.pasteboardToPool(pasteboard);
  pool.pasteboardToPool(pasteboard);
  EXPECT_THAT(names(pool.pasteboardPool()), ElementsAre("pb-1"));
  EXPECT_NE(pool.pasteboardFromPool(), pool.pasteboardFromPool());
}

TEST_F(PasteboardLending, ReleasedPasteboardIsNeverPooledAgain) {
  const auto lent = lend(6);
  for (const auto& pasteboard : lent) pool.pasteboardToPool(pasteboard);
  pool.pasteboardToPool(lent[0]);
  EXPECT_THAT(names(pool.pasteboardPool()), ElementsAre("pb-2", "pb-3", "pb-4", "pb-5", "pb-6"));
}

TEST_F(PasteboardLending, NameFindsTheVeryObjectThatIsOut) {
  const auto lent = lend(2);
  EXPECT_EQ(pool.lentPasteboardWithName("pb-2"), lent[1]);
  pool.pasteboardToPool(lent[1]);
  EXPECT_EQ(pool.lentPasteboardWithName("pb-2"), nullptr);
}

TEST_F(PasteboardLending, NameThatIsNotOursNeverReachesTheSystem) {
  lend(1);
  for (const std::string_view name : {std::string_view(), std::string_view("../../pb-1"),
                                      std::string_view("pb-9"), std::string_view("pb-1\0x", 6)}) {
    EXPECT_EQ(pool.lentPasteboardWithName(name), nullptr) << name;
  }
  EXPECT_EQ(system.made().size(), 1U);
}

TEST_F(PasteboardLending, QuitReleasesEveryPasteboardEverMade) {
  const auto lent = lend(7);
  for (int i = 0; i < 6; ++i) pool.pasteboardToPool(lent[static_cast<std::size_t>(i)]);
  pool.quit();
  EXPECT_EQ(releases("pb-1"), 2);  // dropped by the pool before
  for (const char* name : {"pb-2", "pb-3", "pb-4", "pb-5", "pb-6", "pb-7"}) {
    EXPECT_EQ(releases(name), 1) << name;
  }
  EXPECT_THAT(pool.pasteboards(), IsEmpty());
  EXPECT_THAT(pool.pasteboardPool(), IsEmpty());
}

TEST_F(PasteboardLending, NothingIsLentAfterQuit) {
  pool.pasteboardToPool(lend(1)[0]);
  pool.quit();
  EXPECT_EQ(pool.pasteboardFromPool(), nullptr);
  EXPECT_EQ(system.made().size(), 1U);
}

TEST_F(PasteboardLending, LateReturnAfterQuitReleasesInsteadOfPooling) {
  const auto pasteboard = lend(1)[0];
  pasteboard->setOwnerTags("q", "client");
  pool.quit();
  pool.pasteboardToPool(pasteboard);
  EXPECT_THAT(pool.pasteboardPool(), IsEmpty());
  EXPECT_EQ(releases("pb-1"), 2);
  EXPECT_EQ(system.find("pb-1")->clearCount(), 1);
  EXPECT_TRUE(pasteboard->ownerTags().clientName.isNull());
}

TEST_F(PasteboardLending, EndOfTheInstanceTakesTagsOffAndReleases) {
  const auto lent = lend(2);
  lent[0]->setOwnerTags("q", "client");
  pool.pasteboardToPool(lent[1]);
  pool.releaseAll();
  EXPECT_TRUE(lent[0]->ownerTags().uniqueName.isNull());
  EXPECT_EQ(releases("pb-1"), 1);
  EXPECT_EQ(releases("pb-2"), 1);
}

TEST_F(PasteboardLending, ListsAreSnapshots) {
  auto list = pool.pasteboards();
  list.push_back(nullptr);
  EXPECT_THAT(pool.pasteboards(), IsEmpty());
}

// A pasteboard whose release calls the pool again, as a system's might.
class CallingPasteboard : public ForwardingPasteboard {
 public:
  CallingPasteboard(std::shared_ptr<Pasteboard> target, PasteboardPool*& pool)
      : ForwardingPasteboard(std::move(target)), pool_(pool) {}
  void releaseGlobally() override {
    pool_->pasteboardToPool(nullptr);
    ForwardingPasteboard::releaseGlobally();
  }

 private:
  PasteboardPool*& pool_;
};

class CallingPasteboards : public ForwardingPasteboards {
 public:
  using ForwardingPasteboards::ForwardingPasteboards;
  std::shared_ptr<Pasteboard> makeUnique(Error* error = nullptr) override {
    return std::make_shared<CallingPasteboard>(target().makeUnique(error), pool);
  }
  PasteboardPool* pool = nullptr;
};

TEST(PasteboardPoolLock, ReleaseThatCallsThePoolAgainDoesNotDeadlock) {
  RecordingPasteboards system;
  CallingPasteboards calling(system);
  PasteboardPool pool(calling);
  calling.pool = &pool;
  PasteboardPool::List lent;
  for (int i = 0; i < 7; ++i) lent.push_back(pool.pasteboardFromPool());
  for (const auto& pasteboard : lent) pool.pasteboardToPool(pasteboard);
  EXPECT_EQ(pool.pasteboardPool().size(), PasteboardPool::kMaxIdle);
  pool.quit();
  EXPECT_EQ(system.find("pb-7")->releaseCount(), 1);
}

TEST_F(PasteboardLending, ThreadsNeverHoldOnePasteboardTogether) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 500;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kRounds; ++i) {
        const auto pasteboard = pool.pasteboardFromPool();
        EXPECT_TRUE(pasteboard->ownerTags().clientName.isNull());
        pasteboard->setOwnerTags(i, t);
        EXPECT_EQ(pasteboard->ownerTags().clientName, Value(t));
        pool.pasteboardToPool(pasteboard);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const auto idle = names(pool.pasteboardPool());
  EXPECT_EQ(std::set<std::string>(idle.begin(), idle.end()).size(), idle.size());
  EXPECT_LE(idle.size(), PasteboardPool::kMaxIdle);
}

}  // namespace
}  // namespace thmp
