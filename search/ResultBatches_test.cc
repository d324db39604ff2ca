// SPDX-License-Identifier: Apache-2.0
//
// What stands on a batch's pasteboard and in its message.
#include "search/ResultBatches.h"

#include <limits>

#include "search/search_fixture.h"

namespace thmp {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class Batches : public SearchScene {
 protected:
  Value named(const std::string& name) const {
    for (const Value& update : updates()) {
      if (update["batchName"] == Value(name)) return update;
    }
    return {};
  }

  const Dictionary request_ = {{"uniqueName", "q"},
                               {"clientName", "c"},
                               {"queryString", "a == 1"},
                               {"of its own", Array{1, "x"}}};
  Query query_ = search(request_);
};

TEST_F(Batches, MessageIsTheRequestWithTheBatchsKeys) {
  query_->deliver(items(1, 1));
  Dictionary expected = request_;
  expected.set("batchName", "pb-1");
  expected.set("foundItemCount", 1);
  expected.set("batchNumber", 1);
  expected.set("pendingBatches", Array{});
  EXPECT_TRUE(Value::identical(updates()[0], expected));
  EXPECT_EQ(mediator_->posts().back().name, " com.quorvane.tallyhive.mailplugin.QueryHasUpdates");
}

TEST_F(Batches, PasteboardHoldsTheBatch) {
  query_->deliver({SpotlightItem{
      "x", {{"_kMDItemExternalID", "5"}, {"kMDItemDisplayName", "n"}}, "/mail/5.eml"}});
  const Dictionary item = {
      {"attributes", Dictionary{{"_kMDItemExternalID", "5"}, {"kMDItemDisplayName", "n"}}},
      {"libraryID", 5},
      {"kMDItemPath", "/mail/5.eml"},
      {"index", 0}};
  EXPECT_TRUE(Value::identical(batchOf(updates()[0]), Dictionary{{"messages", Array{item}},
                                                                 {"foundItemCount", 1},
                                                                 {"batchNumber", 1},
                                                                 {"queryString", "a == 1"},
                                                                 {"uniqueName", "q"},
                                                                 {"clientName", "c"}}));
}

TEST_F(Batches, QueryTextAndClientAreAbsentWhenTheRequestHadNone) {
  const Query bare = search({{"uniqueName", "bare"}});
  bare->deliver(items(1, 1));
  bare->removed(Array{"1"});
  const Dictionary results = *batchOf(updates()[0]).asDictionary();
  EXPECT_FALSE(results.contains("queryString"));
  EXPECT_FALSE(results.contains("clientName"));
  const Dictionary removal = *batchOf(removals()[0], kRemovalType).asDictionary();
  EXPECT_FALSE(removal.contains("queryString"));
  EXPECT_FALSE(removal.contains("clientName"));
  EXPECT_TRUE(mediator_->lent()[0]->ownerTags().clientName.isNull());
}

TEST_F(Batches, PasteboardIsClearedDeclaredAndWrittenInThatOrder) {
  query_->deliver(items(1, 1));
  EXPECT_THAT(fake_.pasteboards.made()[0]->record(),
              ElementsAre("clear", std::string("declare ") + kResultsType,
                          std::string("set ") + kResultsType));
}

TEST_F(Batches, PasteboardIsTaggedForItsQueryAndClientOnceItIsWritten) {
  bool tagged = true;
  fake_.pasteboards.beforeSet([&](RecordingPasteboard&) {
    tagged = !mediator_->lent()[0]->ownerTags().uniqueName.isNull();
  });
  query_->deliver(items(1, 1));
  EXPECT_FALSE(tagged);
  const LentPasteboard::OwnerTags tags = mediator_->lent()[0]->ownerTags();
  EXPECT_EQ(tags.uniqueName, Value("q"));
  EXPECT_EQ(tags.clientName, Value("c"));
}

TEST_F(Batches, PendingEntryIsThePasteboardItself) {
  query_->deliver(items(1, 1));
  const auto pending = registry_.pendingBatches(*record("q"));
  ASSERT_EQ(pending.size(), 1u);
  EXPECT_EQ(pending[0].batchName, "pb-1");
  EXPECT_EQ(pending[0].batchNumber, 1u);
  EXPECT_EQ(pending[0].pasteboard, mediator_->lent()[0]);
}

TEST_F(Batches, EntryIsPendingBeforeTheMessageIsPosted) {
  std::size_t pending = 0;
  mediator_->setHook([&](const std::string& step) {
    if (step == "post QueryHasUpdates") pending = registry_.pendingBatches(*record("q")).size();
  });
  query_->deliver(items(1, 1));
  EXPECT_EQ(pending, 1u);
}

TEST_F(Batches, MessageListsTheBatchesStillPending) {
  for (std::int64_t id = 1; id <= 3; ++id) query_->deliver(items(id, 1));
  const auto entry = [](int number) {
    return Dictionary{{"batchNumber", number}, {"batchName", "pb-" + std::to_string(number)}};
  };
  EXPECT_EQ(updates()[2]["pendingBatches"], Value(Array{entry(1), entry(2)}));
  ASSERT_TRUE(clear("q", "pb-1"));
  query_->deliver(items(4, 1));
  EXPECT_EQ(updates()[3]["pendingBatches"], Value(Array{entry(2), entry(3)}));
  // The pasteboard that was cleared is used again.
  EXPECT_EQ(updates()[3]["batchName"], Value("pb-1"));
  EXPECT_EQ(updates()[3]["batchNumber"], Value(4));
}

TEST_F(Batches, PostIsLoggedBeforeItIsMade) {
  query_->deliver(items(1, 2));
  const auto steps = mediator_->steps();
  const std::string line =
      "log THMPMailPlugin post  com.quorvane.tallyhive.mailplugin.QueryHasUpdates / pb-1 - 1 - 2";
  const auto place = std::find(steps.begin(), steps.end(), line);
  ASSERT_NE(place, steps.end());
  EXPECT_EQ(*(place + 1), "post QueryHasUpdates");
}

TEST_F(Batches, HigherLogLevelWritesThreeSystemLines) {
  query_->deliver(items(1, 1));
  EXPECT_THAT(fake_.log.lines(), IsEmpty());
  mediator_->setLogLevel(2);
  query_->deliver(items(2, 2));
  query_->removed(Array{"1"});
  EXPECT_THAT(fake_.log.lines(), ElementsAre("pb-2: batchNumber 2", "pb-2: messages count 2",
                                             "pb-2: foundItemCount 3"));
}

TEST_F(Batches, WithoutAPasteboardTheBatchIsLostWithoutAWordOrANumber) {
  fake_.pasteboards.failCreation(true);
  const auto lines = mediator_->log().size();
  query_->deliver(items(1, 1));
  query_->removed(Array{"1"});
  EXPECT_THAT(updates(), IsEmpty());
  EXPECT_THAT(removals(), IsEmpty());
  EXPECT_EQ(mediator_->log().size(), lines + 2);  // that items were found and removed
  EXPECT_THAT(mediator_->ownLines(), IsEmpty());
  fake_.pasteboards.failCreation(false);
  query_->deliver(items(2, 1));
  query_->removed(Array{"2"});
  EXPECT_THAT(numbers(updates(), "batchNumber"), ElementsAre(1));
  EXPECT_THAT(numbers(removals(), "batchNumber"), ElementsAre(1));
}

TEST_F(Batches, BatchThatCannotBeWrittenIsNotSeenByTheClient) {
  fake_.pasteboards.failSetAt(1);
  query_->deliver(items(1, 1));
  EXPECT_THAT(updates(), IsEmpty());
  EXPECT_THAT(registry_.pendingBatches(*record("q")), IsEmpty());
  EXPECT_EQ(mediator_->idle().size(), 1u);
  EXPECT_THAT(mediator_->ownLines(), ElementsAre(HasSubstr("tallyhive: a batch could not be")));
  EXPECT_TRUE(fake_.pasteboards.content("pb-1", kResultsType).isNull());
  EXPECT_TRUE(mediator_->idle()[0]->ownerTags().uniqueName.isNull());
}

TEST_F(Batches, NumbersShowNoGapWhicheverWriteFails) {
  for (int failing = 1; failing <= 4; ++failing) {
    const std::string name = "query-" + std::to_string(failing);
    const Query query = search({{"uniqueName", name}, {"clientName", "c"}});
    const std::size_t before = updates().size();
    fake_.pasteboards.failSetAt(failing);
    query->deliver(items(1, 3750));  // 750, 1500, 1500
    query->removed(Array{"1"});
    query->deliver(items(4000, 1));
    std::vector<Value> posted = updates();
    posted.erase(posted.begin(), posted.begin() + static_cast<std::ptrdiff_t>(before));
    const std::vector<std::int64_t> batchNumbers = numbers(posted, "batchNumber");
    EXPECT_EQ(batchNumbers.size(), failing == 4 ? 4u : 3u);
    for (std::size_t i = 0; i < batchNumbers.size(); ++i) {
      EXPECT_EQ(batchNumbers[i], static_cast<std::int64_t>(i) + 1);
    }
    query->removed(Array{"2"});
    EXPECT_EQ(removals().back()["batchNumber"], Value(failing == 4 ? 1 : 2));
    mediator_->cancelQuery(name, "c", nullptr);
  }
  EXPECT_EQ(mediator_->doubleReturns(), 0);
}

TEST_F(Batches, RemovalMessageIsTheRequestWithTheBatchsKeys) {
  query_->removed(Array{"x", "y"});
  Dictionary expected = request_;
  expected.set("batchName", "pb-1");
  expected.set("batchNumber", 1);
  EXPECT_TRUE(Value::identical(removals()[0], expected));
  EXPECT_EQ(mediator_->posts().back().name, " com.quorvane.tallyhive.mailplugin.QueryHasRemovals");
  EXPECT_TRUE(Value::identical(batchOf(removals()[0], kRemovalType),
                               Dictionary{{"messageIDs", Array{"x", "y"}},
                                          {"batchNumber", 1},
                                          {"queryString", "a == 1"},
                                          {"uniqueName", "q"},
                                          {"clientName", "c"}}));
  EXPECT_EQ(mediator_->lent()[0]->ownerTags().uniqueName, Value("q"));
}

TEST_F(Batches, RemovalIsLoggedWithTheNumberOfTheLastResultsBatch) {
  query_->deliver(items(1, 1500));  // batches 1 and 2
  query_->removed(Array{"x", "y", "z"});
  EXPECT_THAT(mediator_->logTexts(),
              Contains("THMPMailPlugin post  com.quorvane.tallyhive.mailplugin.QueryHasRemovals / "
                       "pb-3 - 2 - 3"));
}

TEST_F(Batches, RemovalIsNeverPendingSoThatNothingReturnsIt) {
  query_->removed(Array{"x"});
  EXPECT_THAT(registry_.pendingBatches(*record("q")), IsEmpty());
  EXPECT_EQ(registry_.removePending("q", *mediator_->lent()[0]), 0u);
  cancel("q");
  EXPECT_EQ(mediator_->lent().size(), 1u);
  EXPECT_THAT(mediator_->idle(), IsEmpty());
}

TEST_F(Batches, CancelReturnsEveryPendingPasteboardOldestFirst) {
  for (std::int64_t id = 1; id <= 3; ++id) query_->deliver(items(id, 1));
  cancel("q");
  std::vector<std::string> names;
  for (const auto& pasteboard : mediator_->idle()) names.push_back(pasteboard->name());
  EXPECT_THAT(names, ElementsAre("pb-1", "pb-2", "pb-3"));
}

TEST_F(Batches, ValueThatHasNoFormIsLeftOutAndCostsNoItem) {
  // An engine's array with a hole in it, and a date that is none.
  const Date never{std::numeric_limits<double>::quiet_NaN()};
  std::vector<SpotlightItem> delivered = items(1, 2);
  delivered[0].attributes.set("hole", Array{"a", Value()});
  delivered[0].attributes.set("never", Value(never));
  query_->deliver(delivered);
  ASSERT_EQ(updates().size(), 1U);
  const Array messages = *batchOf(updates()[0])["messages"].asArray();
  ASSERT_EQ(messages.size(), 2U);
  for (const Value& message : messages) {
    EXPECT_FALSE(message["attributes"].asDictionary()->contains("hole"));
    EXPECT_FALSE(message["attributes"].asDictionary()->contains("never"));
    EXPECT_TRUE(message["attributes"].asDictionary()->contains("kMDItemPath"));
  }
  query_->removed(Array{"1", Value(), Value(never)});
  EXPECT_EQ(batchOf(removals()[0], kRemovalType)["messageIDs"], Value(Array{"1"}));
}

}  // namespace
}  // namespace thmp
