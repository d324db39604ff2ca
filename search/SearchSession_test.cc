// SPDX-License-Identifier: Apache-2.0
//
// What the callbacks of a query do.
#include "search/SearchSession.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <future>
#include <limits>
#include <new>
#include <thread>

#include "base/DictionarySource.h"
#include "search/delivery_order.h"
#include "search/search_fixture.h"

namespace thmp {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kID[] = "_kMDItemExternalID";
constexpr char kPath[] = "kMDItemPath";
constexpr char kName[] = "kMDItemDisplayName";

class FoundItems : public SearchScene {
 protected:
  /// The item dictionaries of the latest batch.
  Array latestMessages() const {
    return batchOf(updates().back())["messages"].asArray().value_or(Array());
  }
  /// The one item of the latest batch.
  Value deliverOne(SpotlightItem item) {
    const std::size_t before = updates().size();
    query_->deliver({std::move(item)});
    if (updates().size() == before || latestMessages().size() != 1) return {};
    return latestMessages()[0];
  }

  Query query_ = search("q");
};

TEST_F(FoundItems, FirstBatchIsSmallerThanTheRest) {
  query_->deliver(items(1, 2000));
  EXPECT_THAT(batchSizes(), ElementsAre(750u, 1250u));
  EXPECT_THAT(numbers(updates(), "foundItemCount"), ElementsAre(750, 2000));
  EXPECT_THAT(numbers(updates(), "batchNumber"), ElementsAre(1, 2));
}

TEST_F(FoundItems, UnresolvedItemsAreLeftOutAndDeductedFromTheLastCount) {
  std::vector<SpotlightItem> delivery = unresolvedItems(1, 10);
  const std::vector<SpotlightItem> resolved = items(11, 1980);
  delivery.insert(delivery.end(), resolved.begin(), resolved.end());
  const std::vector<SpotlightItem> rest = unresolvedItems(1991, 10);
  delivery.insert(delivery.end(), rest.begin(), rest.end());
  query_->deliver(delivery);
  // Limits count items before they are resolved.
  EXPECT_THAT(batchSizes(), ElementsAre(740u, 1240u));
  EXPECT_THAT(numbers(updates(), "foundItemCount"), ElementsAre(740, 1980));
}

TEST_F(FoundItems, LargeCountMakesLargerLaterBatches) {
  query_->setFoundItemCount(9000);
  query_->deliver(items(1, 3000));  // raised to 12000
  EXPECT_THAT(batchSizes(), ElementsAre(750u, 2000u, 250u));
  EXPECT_THAT(numbers(updates(), "foundItemCount"), ElementsAre(750, 2750, 12000));
}

TEST_F(FoundItems, LaterBatchesGrowAtTenThousandAndOne) {
  query_->setFoundItemCount(10000 - 2300);
  query_->deliver(items(1, 2300));
  EXPECT_THAT(batchSizes(), ElementsAre(750u, 1500u, 50u));
  query_->deliver(items(2301, 2800));
  EXPECT_THAT(batchSizes(), ElementsAre(750u, 1500u, 50u, 750u, 2000u, 50u));
}

TEST_F(FoundItems, LargeDeliveryIsCutWhole) {
  query_->deliver(items(1, 20'000));
  std::vector<std::size_t> expected(11, 2000);
  expected.front() = 750;
  expected.back() = 1250;
  EXPECT_EQ(batchSizes(), expected);
  EXPECT_EQ(deliveredIDs().size(), 20'000u);
}

TEST_F(FoundItems, ThreadThatDeliversMayBeAnotherEachTime) {
  for (std::int64_t first = 1; first < 3000; first += 1000) {
    std::thread([&] { query_->deliver(items(first, 1000)); }).join();
  }
  EXPECT_THAT(batchSizes(), ElementsAre(750u, 250u, 750u, 250u, 750u, 250u));
  EXPECT_THAT(numbers(updates(), "batchNumber"), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST_F(FoundItems, ExactBatchLeavesNoRemainder) {
  query_->deliver(items(1, 750));
  EXPECT_THAT(batchSizes(), ElementsAre(750u));
  query_->deliver(items(751, 2250));
  EXPECT_THAT(batchSizes(), ElementsAre(750u, 750u, 1500u));
  // Each a full one: what the query has delivered so far.
  EXPECT_THAT(numbers(updates(), "foundItemCount"), ElementsAre(750, 1500, 3000));
}

TEST_F(FoundItems, EachDeliveryBeginsWithASmallBatchAndNumbersRunOn) {
  query_->deliver(items(1, 800));
  query_->deliver(items(801, 800));
  EXPECT_THAT(batchSizes(), ElementsAre(750u, 50u, 750u, 50u));
  EXPECT_THAT(numbers(updates(), "batchNumber"), ElementsAre(1, 2, 3, 4));
  EXPECT_THAT(numbers(updates(), "foundItemCount"), ElementsAre(750, 800, 1550, 1600));
}

TEST_F(FoundItems, IndicesRunOverAllDeliveries) {
  query_->deliver(unresolvedItems(100, 1));
  query_->deliver(items(1, 2));
  query_->deliver(items(3, 1));
  EXPECT_EQ(latestMessages()[0]["index"], Value(2));
}

TEST_F(FoundItems, CountBelowTheUnresolvedItemsIsZero) {
  std::vector<SpotlightItem> delivery = unresolvedItems(1, 10);
  delivery.push_back(items(11, 1).front());
  query_->setFoundItemCount(static_cast<std::uint64_t>(-6));  // the delivery's 11 make it 5
  query_->deliver(delivery);
  EXPECT_THAT(numbers(updates(), "foundItemCount"), ElementsAre(0));
  EXPECT_EQ(batchOf(updates()[0])["foundItemCount"], Value(0));
}

TEST_F(FoundItems, BatchOfUnresolvedItemsIsPostedEmpty) {
  query_->deliver(unresolvedItems(1, 3));
  EXPECT_THAT(batchSizes(), ElementsAre(0u));
  EXPECT_THAT(numbers(updates(), "foundItemCount"), ElementsAre(0));
}

TEST_F(FoundItems, EmptyDeliveryPostsNothing) {
  query_->deliver({});
  EXPECT_THAT(updates(), IsEmpty());
  EXPECT_EQ(mediator_->logTexts().back(), "THMPMailPlugin found items 0");
}

TEST_F(FoundItems, ItemDeliveredBeforeIsSkippedAndDoesNotCount) {
  query_->deliver(items(1, 10));
  std::vector<SpotlightItem> again = items(1, 10);
  const std::vector<SpotlightItem> fresh = items(11, 750);
  again.insert(again.end(), fresh.begin(), fresh.end());
  again.push_back(fresh.front());
  query_->deliver(again);
  EXPECT_THAT(batchSizes(), ElementsAre(10u, 750u));
  EXPECT_THAT(numbers(updates(), "foundItemCount"), ElementsAre(10, 760));
}

TEST_F(FoundItems, SkippedItemsAreNotDeductedFromTheCount) {
  query_->deliver(items(1, 10));
  std::vector<SpotlightItem> again = items(1, 10);
  again.push_back(items(11, 1).front());
  query_->deliver(again);
  EXPECT_THAT(numbers(updates(), "foundItemCount"), ElementsAre(10, 21));
  query_->deliver(items(1, 5));
  EXPECT_EQ(updates().size(), 2u);
}

TEST_F(FoundItems, RemovedItemIsNotDeliveredAgain) {
  query_->deliver(items(1, 1));
  query_->removed(Array{"item-1"});
  query_->deliver(items(1, 1));
  EXPECT_EQ(updates().size(), 1u);
}

TEST_F(FoundItems, EachQueryHasItsOwnDeliveredItems) {
  query_->deliver(items(1, 1));
  search("other")->deliver(items(1, 1));
  EXPECT_THAT(deliveredIDs(), ElementsAre(1, 1));
}

TEST_F(FoundItems, ItemWithoutIDIsNeverSkipped) {
  const SpotlightItem item{"x", {{kPath, "/mail/x.eml"}}, std::nullopt};
  query_->deliver({item, item});
  ASSERT_EQ(latestMessages().size(), 2u);
  EXPECT_TRUE(latestMessages()[0]["libraryID"].isNull());
}

TEST_F(FoundItems, IDIsReadFromTextsAndNumbers) {
  const std::vector<std::pair<Value, std::int64_t>> readings = {
      {"17", 17},
      {"-4", -4},
      {"  18 of 20", 18},
      {19.9, 19},
      {-2.5, -2},
      {true, 1},
      {"letters", 0},
      {std::numeric_limits<std::uint64_t>::max(), std::numeric_limits<std::int64_t>::max()},
      {std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::min()}};
  for (const auto& [given, expected] : readings) {
    const Value item = deliverOne({"x", {{kID, given}, {kPath, "/mail/x.eml"}}, std::nullopt});
    EXPECT_TRUE(Value::identical(item["libraryID"], expected)) << describe(given);
    EXPECT_TRUE(Value::identical(item["attributes"][kID], given));
  }
}

TEST_F(FoundItems, IDAsTextAndAsNumberIsOneItem) {
  query_->deliver({SpotlightItem{"x", {{kID, "5"}, {kPath, "/mail/5.eml"}}, std::nullopt},
                   SpotlightItem{"x", {{kID, 5}, {kPath, "/mail/5.eml"}}, std::nullopt},
                   SpotlightItem{"x", {{kID, 5.2}, {kPath, "/mail/5.eml"}}, std::nullopt}});
  EXPECT_EQ(latestMessages().size(), 1u);
}

TEST_F(FoundItems, IDOfAnotherKindIsNone) {
  for (const Value& odd : {Value(Array{5}), Value(Data{"5"}), Value(Date{5})}) {
    const Value item = deliverOne({"x", {{kID, odd}, {kPath, "/mail/x.eml"}}, std::nullopt});
    EXPECT_FALSE(item.isNull());
    EXPECT_TRUE(item["libraryID"].isNull());
  }
}

TEST_F(FoundItems, PathOfTheItemComesBeforeItsAttribute) {
  SpotlightItem item{"x", {{kPath, "/attribute.eml"}}, "/engine.eml"};
  EXPECT_EQ(deliverOne(item)[kPath], Value("/engine.eml"));
  item.filePath.reset();
  EXPECT_EQ(deliverOne(item)[kPath], Value("/attribute.eml"));
}

TEST_F(FoundItems, ItemWithoutPathIsResolvedThroughTheLibrary) {
  fake_.mail.addMessage(7, 1, "/mail/7.eml");
  fake_.files.writeFile("/mail/7.eml", "");
  EXPECT_EQ(deliverOne(mailItem(7))[kPath], Value("/mail/7.eml"));
  EXPECT_EQ(fake_.mail.database().readBlocks(), 1);
}

TEST_F(FoundItems, ItemWithNeitherPathNorIDIsLeftOut) {
  query_->deliver({SpotlightItem{"x", {}, std::nullopt}});
  EXPECT_THAT(batchSizes(), ElementsAre(0u));
}

TEST_F(FoundItems, DisplayNameIsKept) {
  EXPECT_EQ(
      deliverOne(
          {"x", {{kName, "Given"}, {"kMDItemSubject", "Subject"}}, "/f.eml"})["attributes"][kName],
      Value("Given"));
}

TEST_F(FoundItems, SubjectIsTheDisplayNameWhenThereIsNone) {
  const Value item = deliverOne({"x", {{"kMDItemSubject", "Subject"}}, "/f.eml"});
  EXPECT_EQ(item["attributes"][kName], Value("Subject"));
  EXPECT_EQ(fake_.files.count(FileOperation::kDisplayName), 0u);
}

TEST_F(FoundItems, FileIsTheDisplayNameWhenThereIsNoSubject) {
  EXPECT_EQ(deliverOne({"x", {}, "/mail/f.eml"})["attributes"][kName], Value("f.eml"));
}

TEST_F(FoundItems, EnginesAttributesAreNotChanged) {
  const std::vector<SpotlightItem> delivered = {{"x", {{"kMDItemSubject", "s"}}, "/f.eml"}};
  query_->deliver(delivered);
  EXPECT_EQ(delivered[0].attributes.size(), 1u);
}

TEST_F(FoundItems, AttributesReachTheClientShared) {
  SpotlightItem item{"x", {{kName, "n"}, {"kMDItemRecipients", Array{"a", "b"}}}, "/f.eml"};
  const void* identity = item.attributes.identity();
  EXPECT_EQ(deliverOne(item)["attributes"].identity(), identity);
}

/// Attributes that are made when they are asked for, and say what was asked.
class ObservedAttributes : public DictionarySource {
 public:
  struct Asked {
    std::atomic<std::size_t> all = 0;  // a batch may be written by two threads
    std::vector<std::string> single = {};
  };
  ObservedAttributes(Dictionary attributes, Asked& asked)
      : attributes_(std::move(attributes)), asked_(asked) {
    for (const auto& [key, value] : attributes_) {
      layout_.keys.push_back(key);
      layout_.values.push_back(value);
    }
  }

  void give(EntrySink& sink) const override {
    ++asked_.all;
    sink.begin(layout_);
  }
  Value entry(std::string_view name) const override {
    asked_.single.emplace_back(name);
    return attributes_[name];
  }
  bool has(std::string_view name) const override { return attributes_.contains(name); }

 private:
  const Dictionary attributes_;
  EntryLayout layout_;
  Asked& asked_;
};

Dictionary observed(Dictionary attributes, ObservedAttributes::Asked& asked) {
  return Dictionary(std::make_shared<ObservedAttributes>(std::move(attributes), asked));
}

TEST_F(FoundItems, AttributesAreAskedForBatchByBatch) {
  ObservedAttributes::Asked asked;
  std::vector<SpotlightItem> delivery;
  for (SpotlightItem& item : items(1, 2000)) {
    item.attributes.set(kName, "n");
    delivery.push_back({item.identifier, observed(item.attributes, asked), std::nullopt});
  }
  std::vector<std::size_t> askedAtBatch;
  mediator_->setHook([&](const std::string& step) {
    if (step == "lend") askedAtBatch.push_back(asked.all);
  });
  query_->deliver(delivery);
  mediator_->setHook({});
  EXPECT_THAT(batchSizes(), ElementsAre(750u, 1250u));
  EXPECT_THAT(askedAtBatch, ElementsAre(0u, 750u)) << "each when its batch is written";
  EXPECT_THAT(asked.single, Each(::testing::AnyOf("_kMDItemExternalID", "kMDItemPath")))
      << "nothing is sorted";
}

TEST_F(FoundItems, SortingAsksForTheSortingAttributesAlone) {
  ObservedAttributes::Asked asked;
  const auto item = [&](std::int64_t id, const char* key) {
    return SpotlightItem{"item", observed({{"_kMDItemExternalID", id}, {"key", key}}, asked),
                         "/mail/" + std::to_string(id)};
  };
  const std::vector<SpotlightItem> delivery = {item(1, "b"), item(2, "c"), item(3, "a")};
  std::vector<std::string> order;
  for (const SpotlightItem* sorted : sortedItems(delivery, {"key"}, /*ascending=*/true)) {
    order.push_back(*sorted->filePath);
  }
  EXPECT_THAT(order, ElementsAre("/mail/3", "/mail/1", "/mail/2"));
  EXPECT_THAT(asked.single, ElementsAre("key", "key", "key"));
  EXPECT_EQ(asked.all, 0u);
}

TEST_F(FoundItems, AttributesThatAreMadeWhenAskedForReachTheClientAsOthersDo) {
  ObservedAttributes::Asked asked;
  const SpotlightItem item = {
      "x",
      observed(
          {{"_kMDItemExternalID", "7"}, {"kMDItemPath", "/mail/7.eml"}, {"kMDItemSubject", "s"}},
          asked),
      std::nullopt};
  const Value found = deliverOne(item);
  EXPECT_EQ(found["libraryID"], Value(7));
  EXPECT_EQ(found["kMDItemPath"], Value("/mail/7.eml"));
  EXPECT_EQ(found["attributes"], Value(Dictionary{{"_kMDItemExternalID", "7"},
                                                  {"kMDItemDisplayName", "s"},
                                                  {"kMDItemPath", "/mail/7.eml"},
                                                  {"kMDItemSubject", "s"}}));
}

TEST_F(FoundItems, SystemWithoutAttributesGetsNoResults) {
  fake_.spotlight.setCapabilities({.itemAttributes = false});
  query_->deliver(items(1, 3));
  EXPECT_EQ(mediator_->logTexts().back(), "THMPMailPlugin found items 3");
  EXPECT_THAT(updates(), IsEmpty());
  EXPECT_THAT(mediator_->lent(), IsEmpty());
}

TEST_F(FoundItems, WithoutSortingAttributeTheOrderIsTheDeliverys) {
  query_->deliver({items(3, 1)[0], items(1, 1)[0], items(2, 1)[0]});
  EXPECT_THAT(deliveredIDs(), ElementsAre(3, 1, 2));
}

TEST_F(FoundItems, DateReceivedDescendingIsNewestFirstThenByCreation) {
  const Query sorted = search({{"uniqueName", "s"},
                               {"sortingAttribute", "com_apple_mail_dateReceived"},
                               {"sortAscending", false}});
  const auto item = [](std::int64_t id, double received, double created) {
    SpotlightItem made = items(id, 1).front();
    made.attributes.set("com_apple_mail_dateReceived", Date{received});
    made.attributes.set("kMDItemContentCreationDate", Date{created});
    return made;
  };
  sorted->deliver({item(1, 10, 1), item(2, 30, 1), item(3, 10, 2), items(4, 1)[0], item(5, 20, 9),
                   item(6, 10, 2)});
  EXPECT_THAT(deliveredIDs(), ElementsAre(2, 5, 3, 6, 1, 4));
}

TEST_F(FoundItems, SortIsPerDeliveryAndCrossesItsBatches) {
  const Query sorted =
      search({{"uniqueName", "s"}, {"sortingAttribute", "number"}, {"sortAscending", "YES"}});
  std::vector<SpotlightItem> delivery = items(1, 800);
  for (std::size_t i = 0; i < delivery.size(); ++i) {
    delivery[i].attributes.set("number", 800 - static_cast<int>(i));
  }
  sorted->deliver(delivery);
  sorted->deliver(items(900, 1));  // would come first
  const auto ids = deliveredIDs();
  ASSERT_EQ(ids.size(), 801u);
  EXPECT_EQ(ids.front(), 800);
  EXPECT_EQ(ids[799], 1);
  EXPECT_EQ(ids.back(), 900);
}

TEST_F(FoundItems, MixedSortKeysDoNotStopADelivery) {
  const Query sorted = search({{"uniqueName", "s"}, {"sortingAttribute", "k.@x"}});
  std::vector<SpotlightItem> delivery = items(1, 760);
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (std::size_t i = 0; i < delivery.size(); i += 2) {
    const std::vector<Value> keys = {nan, "t", 1, Date{-1}, Array{nan}, Dictionary(), true};
    delivery[i].attributes.set("k.@x", keys[i % keys.size()]);
  }
  sorted->deliver(delivery);
  EXPECT_THAT(mediator_->ownLines(), IsEmpty());
  EXPECT_EQ(deliveredIDs().size(), 760u);
}

TEST_F(FoundItems, DeliveryIsLogged) {
  query_->deliver(items(1, 3));
  EXPECT_THAT(mediator_->logTexts(), Contains("THMPMailPlugin found items 3"));
  for (const auto& line : mediator_->log()) EXPECT_EQ(line.queryName, Value("q"));
}

TEST_F(FoundItems, BatchIsResolvedInOneCall) {
  query_->deliver(items(1, 2000));
  const auto steps = mediator_->steps();
  EXPECT_EQ(std::count(steps.begin(), steps.end(), "load"), 2);
}

TEST_F(FoundItems, DeliveryAfterCancelDoesNothing) {
  const auto handler = query_->foundItemsHandler();
  cancel("q");
  const auto before = mediator_->steps().size();
  EXPECT_FALSE(query_->deliver(items(1, 5)));
  (*handler)(items(1, 5));  // by an engine that had begun the call
  EXPECT_EQ(mediator_->steps().size(), before);
}

TEST_F(FoundItems, DeliveryOfACancelledEngineQueryDoesNothing) {
  const auto handler = query_->foundItemsHandler();
  record("q")->searchQuery()->cancel();
  const auto before = mediator_->steps().size();
  (*handler)(items(1, 5));
  EXPECT_EQ(mediator_->steps().size(), before);
}

TEST_F(FoundItems, WhatCannotBeBuiltIsDroppedAndTheQueryGoesOn) {
  int loads = 0;
  mediator_->setHook([&](const std::string& step) {
    if (step == "load" && ++loads == 1) throw std::bad_alloc();
  });
  query_->deliver(items(1, 800));
  EXPECT_THAT(batchSizes(), ElementsAre(50u));
  EXPECT_THAT(numbers(updates(), "batchNumber"), ElementsAre(1));
  EXPECT_EQ(latestMessages()[0]["index"], Value(0));
  EXPECT_EQ(fake_.log.count("tallyhive: "), 1u);
  EXPECT_TRUE(registry_.isAlive("q"));
}

TEST_F(FoundItems, NextBatchIsGatheredWhileALaterOneIsPosted) {
  std::atomic<int> loads = 0;
  std::atomic<int> posts = 0;
  std::promise<void> gathered;
  std::atomic<bool> beside = false;
  mediator_->setHook([&](const std::string& step) {
    if (step == "load" && ++loads == 3) gathered.set_value();
    if (step == "post QueryHasUpdates" && ++posts == 2) {
      beside =
          gathered.get_future().wait_for(std::chrono::seconds(60)) == std::future_status::ready;
    }
  });
  query_->deliver(items(1, 3000));
  EXPECT_TRUE(beside);
  EXPECT_THAT(batchSizes(), ElementsAre(750u, 1500u, 750u));
  EXPECT_THAT(numbers(updates(), "batchNumber"), ElementsAre(1, 2, 3));
  EXPECT_THAT(numbers(updates(), "foundItemCount"), ElementsAre(750, 2250, 3000));
}

TEST_F(FoundItems, FirstBatchIsPostedBeforeMoreIsGathered) {
  query_->deliver(items(1, 3000));
  const auto steps = mediator_->steps();
  const auto posted = std::find(steps.begin(), steps.end(), "posted QueryHasUpdates");
  EXPECT_EQ(std::count(steps.begin(), posted, "load"), 1);
}

TEST_F(FoundItems, DeliveryEndsWhenAllOfItIsPosted) {
  query_->deliver(items(1, 2250));
  EXPECT_EQ(mediator_->steps().back(), "posted QueryHasUpdates");
  EXPECT_THAT(batchSizes(), ElementsAre(750u, 1500u));
}

TEST_F(FoundItems, CancelWhileALaterBatchIsPostedLeavesNothingLent) {
  std::atomic<int> lends = 0;
  mediator_->setHook([&](const std::string& step) {
    if (step == "lend" && ++lends == 2) cancel("q");
  });
  query_->deliver(items(1, 4000));
  EXPECT_EQ(updates().size(), 1u);
  EXPECT_THAT(mediator_->lent(), IsEmpty());
  EXPECT_EQ(mediator_->doubleReturns(), 0);
}

TEST_F(FoundItems, PasteboardComesBackWhenABatchCannotBeBuilt) {
  fake_.pasteboards.beforeSet([](RecordingPasteboard&) { throw std::bad_alloc(); });
  query_->deliver(items(1, 1));
  EXPECT_EQ(mediator_->idle().size(), 1u);
  fake_.pasteboards.beforeSet(nullptr);
  query_->deliver(items(2, 1));
  EXPECT_THAT(numbers(updates(), "batchNumber"), ElementsAre(1));
}

class Removals : public SearchScene {
 protected:
  static Array identifiers(int count) {
    Array made;
    for (int i = 0; i < count; ++i) made.push_back("id-" + std::to_string(i));
    return made;
  }
  std::vector<std::size_t> sizes() const {
    std::vector<std::size_t> found;
    for (const Value& removal : removals()) {
      found.push_back(batchOf(removal, kRemovalType)["messageIDs"].asArray()->size());
    }
    return found;
  }

  Query query_ = search("q");
};

TEST_F(Removals, ComeByTheThousandNumberedOnTheirOwn) {
  query_->deliver(items(1, 2000));
  query_->removed(identifiers(2500));
  EXPECT_THAT(sizes(), ElementsAre(1000u, 1000u, 500u));
  EXPECT_THAT(numbers(removals(), "batchNumber"), ElementsAre(1, 2, 3));
  query_->removed(identifiers(1000));
  EXPECT_THAT(numbers(removals(), "batchNumber"), ElementsAre(1, 2, 3, 4));
  query_->deliver(items(2001, 1));
  EXPECT_THAT(numbers(updates(), "batchNumber"), ElementsAre(1, 2, 3));
}

TEST_F(Removals, KeepTheirOrder) {
  query_->removed(Array{"b", "a", "b"});
  EXPECT_EQ(batchOf(removals()[0], kRemovalType)["messageIDs"], Value(Array{"b", "a", "b"}));
}

TEST_F(Removals, SkipWhatIsNoText) {
  query_->removed(Array{"a", 5, Data{"x"}, Array{"c"}, "b", Value()});
  EXPECT_EQ(batchOf(removals()[0], kRemovalType)["messageIDs"], Value(Array{"a", "b"}));
  query_->removed(Array{1, 2, 3});
  EXPECT_EQ(removals().size(), 1u);
  EXPECT_THAT(mediator_->logTexts(), Contains("THMPMailPlugin removed items 6"));
}

TEST_F(Removals, OfNothingPostNothing) {
  query_->removed(Array{});
  EXPECT_THAT(removals(), IsEmpty());
  EXPECT_EQ(mediator_->logTexts().back(), "THMPMailPlugin removed items 0");
}

TEST_F(Removals, OfAnotherKindAreLoggedAndRefused) {
  for (const Value& odd : {Value(), Value("text"), Value(5), Value(Dictionary{{"a", 1}})}) {
    query_->removed(odd);
    EXPECT_EQ(mediator_->logTexts().back(),
              "THMPMailPlugin REMOVAL ERROR. Unexpected argument: " + describe(odd));
  }
  EXPECT_THAT(removals(), IsEmpty());
  EXPECT_TRUE(registry_.isAlive("q"));
}

TEST_F(Removals, AfterCancelDoNothing) {
  const auto handler = query_->removedItemsHandler();
  cancel("q");
  const auto before = mediator_->steps().size();
  (*handler)("", identifiers(3));
  (*handler)("", 5);
  EXPECT_EQ(mediator_->steps().size(), before);
}

class Completion : public SearchScene {
 protected:
  Query query_ = search(
      {{"uniqueName", "q"}, {"clientName", "c"}, {"version", "2"}, {"of its own", Array{1}}});
};

TEST_F(Completion, GatherEndedPostsAndKeepsTheQueryLive) {
  query_->deliver(items(1, 3));
  EXPECT_TRUE(query_->gatherEnded());
  ASSERT_EQ(completions().size(), 1u);
  EXPECT_EQ(completions()[0], Value(Dictionary{{"uniqueName", "q"},
                                               {"clientName", "c"},
                                               {"version", "2"},
                                               {"of its own", Array{1}},
                                               {"notification", "completed"}}));
  EXPECT_TRUE(registry_.isAlive("q"));
  query_->deliver(items(4, 1));
  query_->removed(Array{"1"});
  EXPECT_EQ(updates().size(), 2u);
  EXPECT_EQ(removals().size(), 1u);
}

TEST_F(Completion, GatherEndedIsLogged) {
  query_->setFoundItemCount(12);
  query_->gatherEnded();
  const auto texts = mediator_->logTexts();
  EXPECT_THAT(std::vector(texts.end() - 2, texts.end()),
              ElementsAre("THMPMailPlugin gather ended",
                          "THMPMailPlugin post  com.quorvane.tallyhive.mailplugin.QueryDidComplete "
                          "- 12"));
}

TEST_F(Completion, PostsThenCancels) {
  query_->deliver(items(1, 3));
  query_->complete();
  ASSERT_EQ(completions().size(), 1u);
  EXPECT_EQ(completions()[0]["notification"], Value("completed"));
  EXPECT_TRUE(completions()[0]["errorCode"].isNull());
  const auto steps = mediator_->steps();
  EXPECT_THAT(
      std::vector(steps.end() - 6, steps.end()),
      ElementsAre("log THMPMailPlugin completed. Error: (null)",
                  "log THMPMailPlugin post  "
                  "com.quorvane.tallyhive.mailplugin.QueryDidComplete - 3",
                  "post QueryDidComplete", "posted QueryDidComplete", "cancel q", "return"));
  EXPECT_TRUE(query_->isCancelled());
  EXPECT_EQ(record("q"), nullptr);
  EXPECT_THAT(registry_.clientNames(), IsEmpty());
}

TEST_F(Completion, WithAnErrorCarriesItsKeysAndEndsTheQuery) {
  query_->deliver(items(1, 1));
  const Value update = updates()[0];
  const Error error{"CSSearchQueryErrorDomain", -2002, "The query is invalid.", nullptr};
  query_->complete(error);
  ASSERT_EQ(completions().size(), 1u);
  EXPECT_TRUE(Value::identical(completions()[0]["errorCode"], -2002));
  EXPECT_EQ(completions()[0]["errorDomain"], Value("CSSearchQueryErrorDomain"));
  EXPECT_EQ(completions()[0]["errorMessage"], Value("The query is invalid."));
  EXPECT_THAT(mediator_->logTexts(),
              AllOf(Contains("THMPMailPlugin completed. Error: " + error.text()),
                    Contains("THMPMailPlugin QUERY ERROR: " + error.text())));
  // The pasteboard is idle and has no tags: a Clear is none of its client's any more.
  ASSERT_EQ(mediator_->idle().size(), 1u);
  EXPECT_TRUE(mediator_->idle()[0]->ownerTags().clientName.isNull());
  EXPECT_FALSE(clear("q", std::string(*update["batchName"].asText())));
}

TEST_F(Completion, WithoutErrorLogsNoQueryError) {
  query_->complete();
  EXPECT_THAT(mediator_->logTexts(), Not(Contains(HasSubstr("QUERY ERROR"))));
}

TEST_F(Completion, AfterGatherEndedPostsAgain) {
  query_->gatherEnded();
  query_->complete();
  EXPECT_EQ(completions().size(), 2u);
}

TEST_F(Completion, SecondOneIsNotHeard) {
  const auto handler = query_->completionHandler();
  query_->complete();
  const auto before = mediator_->steps().size();
  (*handler)(Error());
  (*handler)(Error{"Domain", 1, "text", nullptr});
  EXPECT_EQ(mediator_->steps().size(), before);
}

TEST_F(Completion, OfACancelledQueryIsNotHeard) {
  const auto completed = query_->completionHandler();
  const auto gathered = query_->gatherEndedHandler();
  cancel("q");
  const auto before = mediator_->steps().size();
  (*completed)(Error{"CSSearchQueryErrorDomain", -2003, "cancelled", nullptr});
  (*gathered)();
  EXPECT_EQ(mediator_->steps().size(), before);
}

TEST_F(Completion, EndsTheQueryEvenWhenItCannotBePosted) {
  mediator_->setHook([](const std::string& step) {
    if (step == "post QueryDidComplete") throw std::bad_alloc();
  });
  query_->complete();
  EXPECT_THAT(completions(), IsEmpty());
  EXPECT_EQ(record("q"), nullptr);
}

TEST_F(Completion, EndsItsOwnQueryOnly) {
  mediator_->setHook([&](const std::string& step) {
    if (step == "posted QueryDidComplete") {
      mediator_->setHook(nullptr);
      search("q");
    }
  });
  query_->complete();
  EXPECT_EQ(completions().size(), 1u);
  EXPECT_TRUE(registry_.isAlive("q"));
  EXPECT_THAT(registry_.namesOfClient("c"), ElementsAre("q", "q"));
}

TEST_F(Completion, OfAnEngineThatCancelledItselfStillLeavesTheRecordToTheClient) {
  record("q")->searchQuery()->cancel();
  EXPECT_TRUE(query_->complete(Error{"CSSearchQueryErrorDomain", -2003, "cancelled", nullptr}));
  EXPECT_THAT(completions(), IsEmpty());
  EXPECT_NE(record("q"), nullptr);
  cancel("q");
  EXPECT_EQ(record("q"), nullptr);
}

}  // namespace
}  // namespace thmp
