// SPDX-License-Identifier: Apache-2.0
#include "search/QueryRegistry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/fake/RecordingPasteboards.h"
#include "platform/fake/ScriptedSpotlight.h"

namespace thmp {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using Record = std::shared_ptr<THMPMailPluginQuery>;

class Registry : public ::testing::Test {
 protected:
  Record makeRecord(const std::string& name, const Value& lineage = Value()) {
    auto record = std::make_shared<THMPMailPluginQuery>(name);
    record->setLineageName(lineage);
    record->setSearchQuery(spotlight_.makeQuery("", nullptr));
    return record;
  }
  Record add(const std::string& name, const Value& client = "c", const Value& lineage = Value()) {
    Record record = makeRecord(name, lineage);
    registry_.add(record, client);
    return record;
  }
  std::shared_ptr<LentPasteboard> makePasteboard() {
    return std::make_shared<LentPasteboard>(pasteboards_.makeUnique());
  }
  bool append(const Record& record, const std::shared_ptr<LentPasteboard>& pasteboard,
              std::uint64_t number = 1) {
    return registry_.appendPendingIfAlive(*record, {pasteboard->name(), number, pasteboard});
  }

  ScriptedSpotlight spotlight_;
  RecordingPasteboards pasteboards_;
  QueryRegistry registry_;
};

TEST_F(Registry, AddRegistersUnderNameAndClient) {
  const Record record = add("q");
  EXPECT_EQ(registry_.queriesByName().at("q"), record);
  EXPECT_THAT(registry_.namesOfClient("c"), ElementsAre("q"));
  EXPECT_THAT(registry_.clientNames(), ElementsAre("c"));
}

TEST_F(Registry, QueryWithoutClientStandsUnderItsNameOnly) {
  add("q", Value());
  EXPECT_EQ(registry_.queriesByName().size(), 1u);
  EXPECT_THAT(registry_.clientNames(), IsEmpty());
}

TEST_F(Registry, NewRecordReplacesTheOldOneWithoutCancellingIt) {
  const Record old = add("q");
  const Record next = makeRecord("q");
  EXPECT_EQ(registry_.add(next, "c"), old);
  EXPECT_FALSE(old->searchQuery()->isCancelled());
  EXPECT_FALSE(registry_.isAlive(*old));
  EXPECT_EQ(registry_.queriesByName().at("q"), next);
  EXPECT_TRUE(registry_.isAlive(*next));
  // The same name stands twice.
  EXPECT_THAT(registry_.namesOfClient("c"), ElementsAre("q", "q"));
}

TEST_F(Registry, EndDetachesBeforeItCancels) {
  const Record record = add("q");
  const QueryRegistry::Ended ended = registry_.end("q", "c");
  EXPECT_EQ(ended.record, record);
  EXPECT_EQ(ended.uniqueName, "q");
  EXPECT_EQ(record->searchQuery(), nullptr);
  EXPECT_THAT(spotlight_.query()->calls(),
              ElementsAre("setFoundItemsHandler: null", "setCompletionHandler: null",
                          "setRemovedItemsHandler: null", "setGatherEndedHandler: null", "cancel"));
  EXPECT_THAT(registry_.queriesByName(), IsEmpty());
  EXPECT_THAT(registry_.clientNames(), IsEmpty());
}

TEST_F(Registry, EndLeavesMissingHandlersAlone) {
  spotlight_.setCapabilities({.removedItemsHandler = false, .gatherEndedHandler = false});
  add("q");
  const QueryRegistry::Ended ended = registry_.end("q", "c");
  EXPECT_THAT(spotlight_.query()->calls(),
              ElementsAre("setFoundItemsHandler: null", "setCompletionHandler: null", "cancel"));
}

TEST_F(Registry, EngineMayCallBackWhileAQueryIsCancelled) {
  bool alive = true;
  spotlight_.onCancel([&](ScriptedSpotlightQuery&) { alive = registry_.isAlive("q"); });
  add("q");
  registry_.end("q", "c");
  EXPECT_FALSE(alive);
}

TEST_F(Registry, EndOfARecordWithoutAQueryOfTheEngineIsHarmless) {
  const Record record = add("q");
  record->setSearchQuery(nullptr);
  EXPECT_FALSE(registry_.isAlive(*record));
  EXPECT_EQ(registry_.end("q", "c").record, record);
}

TEST_F(Registry, EndCountsWhatIsLeft) {
  const Record first = add("q1");
  const Record second = add("q2");
  const Record third = add("q3");
  ASSERT_TRUE(append(first, makePasteboard()));
  ASSERT_TRUE(append(second, makePasteboard()));
  ASSERT_TRUE(append(second, makePasteboard()));
  const QueryRegistry::Ended ended = registry_.end("q1", "c");
  EXPECT_EQ(ended.pendingBatches.size(), 1u);
  EXPECT_EQ(ended.queriesLeft, 2u);
  EXPECT_EQ(ended.pendingBatchesLeft, 2u);
  EXPECT_EQ(registry_.end("q3", "c").pendingBatchesLeft, 2u);
  const QueryRegistry::Ended last = registry_.end("q2", "c");
  EXPECT_EQ(last.queriesLeft, 0u);
  EXPECT_EQ(last.pendingBatchesLeft, 0u);
}

TEST_F(Registry, PendingBatchesOfAReplacedRecordAreNotCounted) {
  const Record old = add("q");
  ASSERT_TRUE(append(old, makePasteboard()));
  add("q");
  const Record other = add("other");
  ASSERT_TRUE(append(other, makePasteboard()));
  EXPECT_EQ(registry_.end("q", "c").pendingBatchesLeft, 1u);
  EXPECT_EQ(old->pendingBatches().size(), 1u);
}

TEST_F(Registry, UnknownNameStillLeavesTheClientsArray) {
  add("q");
  registry_.setQueriesByName({});
  const QueryRegistry::Ended ended = registry_.end("q", "c");
  EXPECT_EQ(ended.record, nullptr);
  EXPECT_THAT(registry_.clientNames(), IsEmpty());
  EXPECT_EQ(registry_.end("never", "nobody").record, nullptr);
}

TEST_F(Registry, EndUnderAnotherClientLeavesTheNameWithItsOwn) {
  add("q", "owner");
  add("p", "other");
  EXPECT_NE(registry_.end("q", "other").record, nullptr);
  EXPECT_THAT(registry_.namesOfClient("owner"), ElementsAre("q"));
  EXPECT_THAT(registry_.namesOfClient("other"), ElementsAre("p"));
}

TEST_F(Registry, EndWithoutClientTouchesNoArray) {
  add("q");
  registry_.end("q", Value());
  EXPECT_THAT(registry_.namesOfClient("c"), ElementsAre("q"));
}

TEST_F(Registry, EndRemovesEveryEqualNameAndKeepsTheOrderOfTheRest) {
  for (const char* name : {"a", "b", "a", "c", "a"}) add(name);
  registry_.end("a", "c");
  EXPECT_THAT(registry_.namesOfClient("c"), ElementsAre("b", "c"));
  add("a");
  EXPECT_THAT(registry_.namesOfClient("c"), ElementsAre("b", "c", "a"));
}

TEST_F(Registry, EndOfOneRecordSparesTheOneThatTookItsName) {
  const Record old = add("q");
  const Record next = add("q");
  EXPECT_EQ(registry_.end("q", "c", old.get()).record, nullptr);
  EXPECT_TRUE(registry_.isAlive(*next));
  EXPECT_THAT(registry_.namesOfClient("c"), ElementsAre("q", "q"));
  EXPECT_EQ(registry_.end("q", "c", next.get()).record, next);
}

TEST_F(Registry, EndClientEndsItsOwnAndTheGivenQueriesEachOnce) {
  add("a", "c");
  add("b", "c");
  add("a", "c");
  add("x", "other");
  const QueryRegistry::EndedClient ended = registry_.endClient("c", {"x", "b", "unknown", "b"});
  std::vector<std::string> names;
  std::vector<std::size_t> left;
  for (const QueryRegistry::Ended& query : ended.queries) {
    names.push_back(query.uniqueName);
    if (query.record) left.push_back(query.queriesLeft);
  }
  EXPECT_EQ(ended.clientName, "c");
  EXPECT_THAT(names, UnorderedElementsAre("a", "b", "x", "unknown"));
  EXPECT_THAT(left, ElementsAre(2u, 1u, 0u));
  EXPECT_THAT(registry_.queriesByName(), IsEmpty());
  EXPECT_THAT(registry_.clientNames(), ElementsAre("other"));
  for (const auto& query : spotlight_.queries()) {
    EXPECT_TRUE(query->isCancelled() || query->handleDropped());
  }
}

TEST_F(Registry, EndEveryClientEndsAllButQueriesWithoutAClient) {
  add("a", "c1");
  add("b", "c2");
  const Record free = add("free", Value());
  const std::vector<QueryRegistry::EndedClient> ended = registry_.endEveryClient();
  ASSERT_EQ(ended.size(), 2u);
  EXPECT_EQ(ended[0].clientName, "c1");
  EXPECT_EQ(ended[1].queries.front().uniqueName, "b");
  EXPECT_TRUE(registry_.isAlive(*free));
  EXPECT_THAT(registry_.clientNames(), IsEmpty());
}

TEST_F(Registry, LineageIsThatOfTheSameClientAndEqual) {
  add("a", "c", "line");
  add("b", "c", "other");
  add("c", "c");
  add("d", "else", "line");
  add("e", "c", "line");
  add("a", "c", "line");
  EXPECT_THAT(registry_.namesOfLineage("c", "line"), ElementsAre("a", "e"));
  EXPECT_THAT(registry_.namesOfLineage("nobody", "line"), IsEmpty());
  EXPECT_THAT(registry_.namesOfLineage(Value(), "line"), IsEmpty());
  EXPECT_THAT(registry_.namesOfLineage("c", Value()), IsEmpty());
  EXPECT_THAT(registry_.namesOfLineage("c", 5), IsEmpty());
}

TEST_F(Registry, LineageLeavesOutNamesWhoseQueryEndedUnderAnotherClient) {
  add("a", "c", "line");
  registry_.end("a", "else");
  EXPECT_THAT(registry_.namesOfClient("c"), ElementsAre("a"));
  EXPECT_THAT(registry_.namesOfLineage("c", "line"), IsEmpty());
  EXPECT_THAT(registry_.namesOfClient("else"), IsEmpty());
}

TEST_F(Registry, EmptyLineageNameIsANameToo) {
  add("a", "c", "");
  add("b", "c");
  EXPECT_THAT(registry_.namesOfLineage("c", ""), ElementsAre("a"));
}

TEST_F(Registry, AliveNeedsThisRecordWithAQueryThatIsNotCancelled) {
  const Record record = add("q");
  EXPECT_TRUE(registry_.isAlive(*record));
  EXPECT_TRUE(registry_.isAlive("q"));
  record->searchQuery()->cancel();
  EXPECT_FALSE(registry_.isAlive(*record));
  EXPECT_FALSE(registry_.isAlive("q"));
  EXPECT_EQ(registry_.queriesByName().size(), 1u);
  EXPECT_FALSE(registry_.isAlive("unknown"));
  EXPECT_FALSE(registry_.isAlive(*makeRecord("stray")));
}

TEST_F(Registry, PublishRunsOnlyForALiveQuery) {
  const Record old = add("q");
  const Record next = add("q");
  int published = 0;
  const auto publish = [&] { return ++published > 0; };
  EXPECT_FALSE(registry_.publishIfAlive(*old, publish));
  EXPECT_TRUE(registry_.publishIfAlive(*next, publish));
  EXPECT_TRUE(registry_.publishIfAlive("q", publish));
  registry_.end("q", "c");
  EXPECT_FALSE(registry_.publishIfAlive(*next, publish));
  EXPECT_FALSE(registry_.publishIfAlive("q", publish));
  EXPECT_EQ(published, 2);
}

TEST_F(Registry, PublishPassesOnAFailure) {
  const Record record = add("q");
  EXPECT_FALSE(registry_.publishIfAlive("q", [] { return false; }));
  EXPECT_FALSE(registry_.publishIfAlive(*record, [] { return false; }));
}

TEST_F(Registry, EachIDIsDeliveredOnce) {
  using enum QueryRegistry::Delivery;
  const Record record = add("q");
  EXPECT_EQ(registry_.deliver(*record, -5), kNew);
  EXPECT_EQ(registry_.deliver(*record, -5), kRepeated);
  EXPECT_EQ(registry_.deliver(*record, 6), kNew);
  registry_.end("q", "c");
  EXPECT_EQ(registry_.deliver(*record, 7), kDead);
  EXPECT_EQ(record->messageIDs().size(), 2u);
}

TEST_F(Registry, PendingBatchIsRefusedOnceTheQueryHasEnded) {
  const Record record = add("q");
  EXPECT_TRUE(append(record, makePasteboard(), 1));
  EXPECT_TRUE(append(record, makePasteboard(), 2));
  ASSERT_EQ(registry_.pendingBatches(*record).size(), 2u);
  EXPECT_EQ(registry_.pendingBatches(*record)[0].batchNumber, 1u);
  const QueryRegistry::Ended ended = registry_.end("q", "c");
  EXPECT_EQ(ended.pendingBatches.size(), 2u);
  EXPECT_FALSE(append(record, makePasteboard(), 3));
  EXPECT_THAT(record->pendingBatches(), IsEmpty());
}

TEST_F(Registry, RemovalOfPendingEntriesIsByIdentityAndCounts) {
  const Record record = add("q");
  const auto first = makePasteboard();
  const auto second = makePasteboard();
  ASSERT_TRUE(append(record, first, 1));
  ASSERT_TRUE(append(record, second, 2));
  ASSERT_TRUE(append(record, first, 3));
  EXPECT_EQ(registry_.removePending("q", *first), 2u);
  EXPECT_EQ(registry_.removePending("q", *first), 0u);
  EXPECT_EQ(registry_.removePending("unknown", *second), std::nullopt);
  ASSERT_EQ(registry_.pendingBatches(*record).size(), 1u);
  EXPECT_EQ(registry_.pendingBatches(*record)[0].batchName, second->name());
  EXPECT_EQ(registry_.end("q", "c").pendingBatches.size(), 1u);
}

TEST_F(Registry, SnapshotsChangeNothing) {
  add("q");
  registry_.queriesByName().clear();
  registry_.queryNamesByClient().clear();
  registry_.namesOfClient("c").clear();
  EXPECT_EQ(registry_.queriesByName().size(), 1u);
  EXPECT_EQ(registry_.queryNamesByClient().at("c").size(), 1u);
}

TEST_F(Registry, WholeRegistriesCanBeReplaced) {
  add("old");
  const Record next = makeRecord("next");
  next->pendingBatches().push_back({"pb", 1, makePasteboard()});
  registry_.setQueriesByName({{"next", next}});
  registry_.setQueryNamesByClient({{"d", {"y", "x", "y"}}});
  EXPECT_TRUE(registry_.isAlive(*next));
  EXPECT_THAT(registry_.namesOfClient("d"), ElementsAre("y", "x", "y"));
  EXPECT_THAT(registry_.clientNames(), ElementsAre("d"));
  EXPECT_EQ(registry_.end("next", "d").pendingBatchesLeft, 0u);
}

TEST_F(Registry, NamesThatDifferInAByteAreDifferent) {
  const std::string withNul("q\0", 2);
  const Record record = add(withNul);
  EXPECT_FALSE(registry_.isAlive("q"));
  EXPECT_TRUE(registry_.isAlive(withNul));
  EXPECT_TRUE(registry_.isAlive(*record));
}

TEST_F(Registry, ClientEndsWithAHundredThousandQueriesInLinearTime) {
  constexpr int kQueries = 100'000;
  std::vector<std::string> names;
  for (int i = 0; i < kQueries; ++i) {
    names.push_back("query-" + std::to_string(i));
    registry_.add(std::make_shared<THMPMailPluginQuery>(names.back()), "c");
  }
  // One by one, as Cancel does; a walk of the client's array for each would take minutes.
  for (int i = 0; i < kQueries / 2; ++i) registry_.end(names[static_cast<std::size_t>(i)], "c");
  EXPECT_EQ(registry_.namesOfClient("c").size(), names.size() / 2);
  EXPECT_EQ(registry_.endClient("c", names).queries.size(), names.size());
  EXPECT_THAT(registry_.queriesByName(), IsEmpty());
}

}  // namespace
}  // namespace thmp
