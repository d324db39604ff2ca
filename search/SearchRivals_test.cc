// SPDX-License-Identifier: Apache-2.0
//
// What else may happen to a query while one of its callbacks runs: at every step by turns, and with
// real threads.
#include <atomic>
#include <latch>
#include <thread>

#include "search/search_fixture.h"

namespace thmp {
namespace {

using ::testing::Each;
using ::testing::Eq;
using ::testing::IsEmpty;

enum class Rival {
  kCancel,
  kTerminate,
  kEveryClientEnds,
  kSameName,
  kSameLineage,
  kClear,
  kEngineError,
  kSecondCompletion,
  kEngineCancelled,
  kHostQuits,
};

std::string nameOf(const ::testing::TestParamInfo<Rival>& info) {
  constexpr const char* kNames[] = {
      "Cancel", "Terminate",   "EveryClientEnds",  "SameName",        "SameLineage",
      "Clear",  "EngineError", "SecondCompletion", "EngineCancelled", "HostQuits"};
  return kNames[static_cast<std::size_t>(info.param)];
}

/// A query's whole life: two deliveries in three batches, removals, the end of gathering, the
/// completion.
class Life : public SearchWorld {
 public:
  Life() {
    query_ = search(request("q"));
    completion_ = query_->completionHandler();
  }

  static Dictionary request(const std::string& name) {
    return {{"uniqueName", name}, {"clientName", "c"}, {"lineageName", "l"}};
  }

  /// Lets `rival` happen at the step with this number. False when there are fewer steps.
  bool play(Rival rival, int at) {
    const auto tick = [this, rival, at](const auto&) {
      if (step_++ == at) happen(rival);
    };
    mediator_->setHook(tick);
    fake_.pasteboards.beforeSet(tick);
    fake_.files.before(FileOperation::kDisplayName, tick);
    query_->deliver(firstDelivery());
    query_->removed(Array{"x", "y"});
    query_->gatherEnded();
    query_->deliver(items(2000, 1));
    query_->complete();
    mediator_->setHook(nullptr);
    fake_.pasteboards.beforeSet(nullptr);
    fake_.files.before(FileOperation::kDisplayName, nullptr);
    return happened_;
  }

  void checkAfter(Rival rival) {
    EXPECT_EQ(mediator_->doubleReturns(), 0);
    checkNumbers(updates());
    checkNumbers(removals());
    // Nothing but the start of another query once this one was ended.
    const auto posts = mediator_->posts();
    if (ends(rival)) {
      for (std::size_t i = postsAtRival_; i < posts.size(); ++i) {
        EXPECT_EQ(posts[i].name, " com.quorvane.tallyhive.mailplugin.QueryDidStart");
      }
    }
    checkPasteboards(rival);
    checkRegistry(rival);
  }

 private:
  /// Items with a display name, so that the hook on it runs for some only.
  static const std::vector<SpotlightItem>& firstDelivery() {
    static const std::vector<SpotlightItem>& delivery = *new std::vector<SpotlightItem>([] {
      std::vector<SpotlightItem> made = items(1, 760);
      for (std::size_t i = 0; i < made.size(); ++i) {
        if (i % 380 != 2) made[i].attributes.set("kMDItemDisplayName", "named");
      }
      return made;
    }());
    return delivery;
  }

  static bool ends(Rival rival) { return rival != Rival::kClear && rival != Rival::kHostQuits; }
  static bool replaces(Rival rival) { return rival == Rival::kSameName; }

  void happen(Rival rival) {
    mediator_->setHook(nullptr);
    happened_ = true;
    switch (rival) {
      case Rival::kCancel:
        cancel("q");
        break;
      case Rival::kTerminate:
        giveBack(registry_.endClient("c", {"q"}));
        break;
      case Rival::kEveryClientEnds:
        for (const auto& client : registry_.endEveryClient()) giveBack(client);
        break;
      case Rival::kSameName:
        next_ = search(request("q"));
        break;
      case Rival::kSameLineage:
        next_ = search(request("q2"));
        break;
      case Rival::kClear:
        if (!mediator_->lent().empty()) clear("q", mediator_->lent().back()->name());
        break;
      case Rival::kEngineError:
        (*completion_)(Error{"CSSearchQueryErrorDomain", -2001, "unreachable", nullptr});
        break;
      case Rival::kSecondCompletion:
        (*completion_)(Error());
        (*completion_)(Error());
        break;
      case Rival::kEngineCancelled:
        if (const auto made = record("q")) made->searchQuery()->cancel();
        break;
      case Rival::kHostQuits:
        fake_.pasteboards.failCreation(true);
        break;
    }
    postsAtRival_ = mediator_->posts().size();
  }

  void giveBack(const QueryRegistry::EndedClient& client) {
    for (const auto& query : client.queries) {
      for (const auto& batch : query.pendingBatches) mediator_->pasteboardToPool(batch.pasteboard);
    }
  }

  static void checkNumbers(const std::vector<Value>& messages) {
    for (std::size_t i = 0; i < messages.size(); ++i) {
      EXPECT_EQ(messages[i]["batchNumber"], Value(i + 1));
    }
  }

  /// Every pasteboard is idle or pending, but for those of removals and of a replaced record.
  void checkPasteboards(Rival rival) {
    for (const auto& pasteboard : mediator_->lent()) {
      const auto made = fake_.pasteboards.find(pasteboard->name());
      if (made->type() == kRemovalType || replaces(rival)) continue;
      bool pending = false;
      for (const auto& [name, registered] : registry_.queriesByName()) {
        for (const PendingBatch& batch : registry_.pendingBatches(*registered)) {
          pending = pending || batch.pasteboard == pasteboard;
        }
      }
      EXPECT_TRUE(pending) << pasteboard->name() << " is nobody's";
    }
    for (const auto& pasteboard : mediator_->idle()) {
      EXPECT_TRUE(pasteboard->ownerTags().uniqueName.isNull());
    }
  }

  void checkRegistry(Rival rival) {
    if (next_) {
      // Whatever the old query did, the new one lives and is known.
      EXPECT_TRUE(registry_.isAlive(rival == Rival::kSameName ? "q" : "q2"));
      EXPECT_FALSE(registry_.namesOfClient("c").empty());
    } else if (rival != Rival::kEngineCancelled) {
      EXPECT_THAT(registry_.queriesByName(), IsEmpty());
      EXPECT_THAT(registry_.clientNames(), IsEmpty());
    }
  }

  Query query_;
  Query next_;
  std::shared_ptr<const SpotlightQuery::CompletionHandler> completion_;
  int step_ = 0;
  std::size_t postsAtRival_ = 0;
  bool happened_ = false;
};

class AtEveryStep : public ::testing::TestWithParam<Rival> {};

TEST_P(AtEveryStep, RivalLeavesNoMessageNoGapAndNoOrphan) {
  int steps = 0;
  for (;; ++steps) {
    SCOPED_TRACE("step " + std::to_string(steps));
    Life life;
    const bool happened = life.play(GetParam(), steps);
    if (!happened) break;
    life.checkAfter(GetParam());
  }
  EXPECT_GT(steps, 30);
}

INSTANTIATE_TEST_SUITE_P(Rivals, AtEveryStep,
                         ::testing::Values(Rival::kCancel, Rival::kTerminate,
                                           Rival::kEveryClientEnds, Rival::kSameName,
                                           Rival::kSameLineage, Rival::kClear, Rival::kEngineError,
                                           Rival::kSecondCompletion, Rival::kEngineCancelled,
                                           Rival::kHostQuits),
                         nameOf);

class InFlight : public SearchScene {};

TEST_F(InFlight, OldQueryOfANameFallsSilentInTheMiddleOfItsBatch) {
  const Query old = search("q");
  fake_.pasteboards.beforeSet([&](RecordingPasteboard&) {
    fake_.pasteboards.beforeSet(nullptr);
    search("q");
  });
  old->deliver(items(1, 800));
  EXPECT_THAT(updates(), IsEmpty());
  EXPECT_THAT(mediator_->lent(), IsEmpty());
  EXPECT_TRUE(old->handleDropped());
  EXPECT_TRUE(registry_.isAlive("q"));
}

TEST_F(InFlight, CancelDiscardsWhatWasGatheredButNotPosted) {
  const Query query = search("q");
  fake_.files.before(FileOperation::kDisplayName, [&](const std::string& path) {
    if (path == "/mail/900.eml") cancel("q");
  });
  query->deliver(items(1, 1000));
  EXPECT_EQ(updates().size(), 1u);
  EXPECT_THAT(mediator_->lent(), IsEmpty());
  // The rest of the delivery was not even looked at.
  EXPECT_EQ(fake_.files.count(FileOperation::kDisplayName), 900u);
}

TEST_F(InFlight, CancelStopsItemsWithoutIDToo) {
  const Query query = search("q");
  std::vector<SpotlightItem> delivery = items(1, 10);
  for (SpotlightItem& item : delivery) item.attributes.erase("_kMDItemExternalID");
  fake_.files.before(FileOperation::kDisplayName, [&](const std::string& path) {
    if (path == "/mail/4.eml") cancel("q");
  });
  query->deliver(delivery);
  EXPECT_EQ(fake_.files.count(FileOperation::kDisplayName), 4u);
}

TEST_F(InFlight, RemovalBatchNobodyHearsOfGivesItsPasteboardBack) {
  const Query query = search("q");
  fake_.pasteboards.beforeSet([&](RecordingPasteboard&) { cancel("q"); });
  query->removed(Array{"x"});
  EXPECT_THAT(removals(), IsEmpty());
  EXPECT_THAT(mediator_->lent(), IsEmpty());
  EXPECT_EQ(mediator_->idle().size(), 1u);
}

TEST_F(InFlight, CancelAfterTheLastFullBatchOfRemovalsLeavesNothingToPost) {
  const Query query = search("q");
  mediator_->setHook([&](const std::string& step) {
    if (step == "posted QueryHasRemovals") cancel("q");
  });
  query->removed(Array(std::vector<Value>(1000, "x")));
  mediator_->setHook(nullptr);
  EXPECT_EQ(removals().size(), 1u);
}

TEST_F(InFlight, RecordAndEngineQueryEndWhileTheirCallbackRuns) {
  const Query query = search("q");
  const std::weak_ptr<THMPMailPluginQuery> held = record("q");
  bool dropped = false;
  fake_.files.before(FileOperation::kDisplayName, [&](const std::string& path) {
    if (path != "/mail/3.eml") return;
    cancel("q");
    dropped = held.expired() && query->handleDropped();
  });
  query->deliver(items(1, 10));
  EXPECT_TRUE(dropped);
}

class WithThreads : public SearchScene {
 protected:
  static void live(const Query& query) {
    query->deliver(items(1, 800));
    query->removed(Array{"a", "b"});
    query->gatherEnded();
    query->deliver(items(700, 200));
    query->complete();
  }

  /// Runs both at the same time.
  template <typename One, typename Other>
  static void together(One one, Other other) {
    std::latch ready(2);
    std::thread thread([&] {
      ready.arrive_and_wait();
      one();
    });
    ready.arrive_and_wait();
    other();
    thread.join();
  }

  /// The types of the pasteboards that are out.
  std::vector<std::string> typesOut() const {
    std::vector<std::string> types;
    for (const auto& pasteboard : mediator_->lent()) {
      types.push_back(fake_.pasteboards.find(pasteboard->name())->type());
    }
    return types;
  }
};

TEST_F(WithThreads, NothingLeavesOnceACancelHasReturned) {
  for (int round = 0; round < 30; ++round) {
    const Query query = search("q");
    std::size_t posted = 0;
    const std::size_t target = mediator_->steps().size() + static_cast<std::size_t>(round);
    std::atomic<bool> over = false;
    const auto run = [&] {
      live(query);
      over = true;
    };
    // Each round a step later.
    const auto end = [&] {
      while (!over && mediator_->steps().size() < target) std::this_thread::yield();
      cancel("q");
      posted = mediator_->posts().size();
    };
    together(run, end);
    EXPECT_EQ(mediator_->posts().size(), posted);
    EXPECT_THAT(registry_.queriesByName(), IsEmpty());
    EXPECT_THAT(registry_.clientNames(), IsEmpty());
  }
  EXPECT_THAT(typesOut(), Each(Eq(kRemovalType)));
  EXPECT_EQ(mediator_->doubleReturns(), 0);
}

TEST_F(WithThreads, SearchOfTheSameNameSilencesTheOldQueryAndIsNotEndedByIt) {
  for (int round = 0; round < 30; ++round) {
    const Query old = search("q");
    together([&] { live(old); }, [&] { search("q"); });
    EXPECT_TRUE(registry_.isAlive("q"));
    EXPECT_THAT(registry_.namesOfClient("c"), ::testing::Contains("q"));
    cancel("q");
    EXPECT_THAT(registry_.clientNames(), IsEmpty());
  }
  EXPECT_EQ(mediator_->doubleReturns(), 0);
}

TEST_F(WithThreads, ClearAndCancelNeverBothReturnAPasteboard) {
  for (int round = 0; round < 30; ++round) {
    const Query query = search("q");
    query->deliver(items(1, 800));
    const std::vector<Value> posted = updates();
    together([&] { cancel("q"); },
             [&] {
               for (const Value& update : posted) {
                 clear("q", std::string(*update["batchName"].asText()));
               }
             });
    EXPECT_THAT(mediator_->lent(), IsEmpty());
  }
  EXPECT_EQ(mediator_->doubleReturns(), 0);
}

TEST_F(WithThreads, ManyQueriesLiveAtOnceWhileClientsEnd) {
  constexpr int kQueries = 4;
  std::vector<Query> queries;
  queries.reserve(kQueries);
  for (int i = 0; i < kQueries; ++i) {
    queries.push_back(search(
        {{"uniqueName", "q" + std::to_string(i)}, {"clientName", "c" + std::to_string(i % 2)}}));
  }
  std::vector<std::thread> threads;
  threads.reserve(kQueries + 1);
  for (const Query& query : queries) threads.emplace_back([query] { live(query); });
  threads.emplace_back([this] {
    for (const auto& client : registry_.endEveryClient()) {
      for (const auto& query : client.queries) {
        for (const auto& batch : query.pendingBatches) {
          mediator_->pasteboardToPool(batch.pasteboard);
        }
      }
    }
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(registry_.queriesByName(), IsEmpty());
  EXPECT_THAT(typesOut(), Each(Eq(kRemovalType)));
  EXPECT_EQ(mediator_->doubleReturns(), 0);
}

}  // namespace
}  // namespace thmp
