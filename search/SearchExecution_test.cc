// SPDX-License-Identifier: Apache-2.0
//
// What a Search message starts.
#include "search/SearchExecution.h"

#include "search/search_fixture.h"

namespace thmp {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kMailOnly[] = "kMDItemContentType = \"public.email-message\"";

class Starting : public SearchScene {};

TEST_F(Starting, WithoutQueryTextAllMailIsAskedFor) {
  EXPECT_EQ(search({{"uniqueName", "q"}})->text(), kMailOnly);
  EXPECT_EQ(search({{"uniqueName", "q"}, {"queryString", ""}})->text(), kMailOnly);
  EXPECT_EQ(search({{"uniqueName", "q"}, {"queryString", 5}})->text(), kMailOnly);
}

TEST_F(Starting, QueryTextIsAskedForWithinMail) {
  const std::string text = "kMDItemSubject == \"%@ 100%\"cd) || (x";
  EXPECT_EQ(search({{"uniqueName", "q"}, {"queryString", text}})->text(),
            "(" + std::string(kMailOnly) + ") && (" + text + ")");
  EXPECT_EQ(record("q")->queryString(), Value(text));
}

TEST_F(Starting, AllAttributesAreFetched) {
  EXPECT_EQ(search("q")->attributes(), attributeList_.build());
}

TEST_F(Starting, HandlersComeInOrderAndStartComesLast) {
  const Query query = search("q");
  EXPECT_THAT(query->calls(), ElementsAre("setFoundItemsHandler:", "setCompletionHandler:",
                                          "setRemovedItemsHandler:", "queryContext",
                                          "setLive:", "setGatherEndedHandler:", "start"));
  EXPECT_EQ(query->live(), true);
}

TEST_F(Starting, QueryWithoutRemovalsGetsNoRemovalHandler) {
  fake_.spotlight.setCapabilities({.removedItemsHandler = false});
  EXPECT_THAT(search("q")->calls(),
              AllOf(Not(Contains("setRemovedItemsHandler:")), Contains("setGatherEndedHandler:")));
}

TEST_F(Starting, QueryIsLiveOnlyWithContextLiveAndGatherEnded) {
  std::vector<SpotlightCapabilities> lacking(3);
  lacking[0].queryContext = false;
  lacking[1].gatherEndedHandler = false;
  lacking[2].live = false;
  for (const SpotlightCapabilities& capabilities : lacking) {
    fake_.spotlight.setCapabilities(capabilities);
    const Query query = search("q");
    EXPECT_EQ(query->live(), std::nullopt);
    EXPECT_THAT(query->calls(), AllOf(Not(Contains("setLive:")),
                                      Not(Contains("setGatherEndedHandler:")), Contains("start")));
  }
}

TEST_F(Starting, ContextIsNotFetchedWithoutGatherEnded) {
  fake_.spotlight.setCapabilities({.gatherEndedHandler = false});
  EXPECT_THAT(search("q")->calls(), Not(Contains("queryContext")));
}

TEST_F(Starting, RecordHoldsTheRequest) {
  search({{"uniqueName", "q"},
          {"clientName", "c"},
          {"lineageName", "l"},
          {"queryString", "t"},
          {"sortingAttribute", "kMDItemSubject"},
          {"sortAscending", 1}});
  const auto made = record("q");
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->queryName().view(), "q");
  EXPECT_EQ(made->clientName(), Value("c"));
  EXPECT_EQ(made->lineageName(), Value("l"));
  EXPECT_EQ(made->sortingAttribute(), Value("kMDItemSubject"));
  EXPECT_TRUE(made->sortAscending());
  EXPECT_THAT(registry_.namesOfClient("c"), ElementsAre("q"));
}

TEST_F(Starting, MissingSortAscendingMeansDescending) {
  search("q");
  EXPECT_FALSE(record("q")->sortAscending());
}

TEST_F(Starting, QueryWithoutClientIsRegisteredByNameOnly) {
  search({{"uniqueName", "q"}});
  EXPECT_NE(record("q"), nullptr);
  EXPECT_THAT(registry_.clientNames(), IsEmpty());
}

TEST_F(Starting, DidStartCarriesTheRequestUnchanged) {
  const Dictionary request = {
      {"uniqueName", "q"}, {"clientName", "c"}, {"version", "3"}, {"of its own", Array{1, "x"}}};
  search(request);
  ASSERT_EQ(mediator_->posts().size(), 1u);
  EXPECT_EQ(mediator_->posts()[0].name, " com.quorvane.tallyhive.mailplugin.QueryDidStart");
  EXPECT_TRUE(Value::identical(mediator_->posts()[0].userInfo, request));
}

TEST_F(Starting, IsLoggedInOrderUnderTheQuerysName) {
  search({{"uniqueName", "q"}, {"clientName", "c"}, {"version", "42"}, {"queryString", "t"}});
  EXPECT_THAT(
      mediator_->logTexts(),
      ElementsAre("THMPMailPlugin received  com.quorvane.tallyhive.mailplugin.Search / c - 42",
                  "THMPMailPlugin query t",
                  "THMPMailPlugin post  com.quorvane.tallyhive.mailplugin.QueryDidStart"));
  for (const auto& line : mediator_->log()) EXPECT_EQ(line.queryName, Value("q"));
}

TEST_F(Starting, QueryIsRegisteredBeforeThePostAndStartedAfterIt) {
  bool registered = false;
  bool started = true;
  mediator_->setHook([&](const std::string& step) {
    if (step != "post QueryDidStart") return;
    registered = registry_.isAlive("q");
    started = fake_.spotlight.query()->started();
  });
  EXPECT_TRUE(search("q")->started());
  EXPECT_TRUE(registered);
  EXPECT_FALSE(started);
}

TEST_F(Starting, WithoutUniqueNameOnlyTheLineageIsCancelled) {
  const Query old = search({{"uniqueName", "q"}, {"clientName", "c"}, {"lineageName", "l"}});
  EXPECT_EQ(search({{"clientName", "c"}, {"lineageName", "l"}, {"queryString", "t"}}), nullptr);
  EXPECT_TRUE(old->isCancelled());
  EXPECT_EQ(mediator_->posts().size(), 1u);  // the first one's start
  EXPECT_EQ(mediator_->logTexts().back(),
            "THMPMailPlugin received  com.quorvane.tallyhive.mailplugin.Search / c - (null)");
  EXPECT_TRUE(mediator_->log().back().queryName.isNull());
}

TEST_F(Starting, UniqueNameOfAnotherKindIsNone) {
  for (const Value& name : {Value(5), Value(Array{"q"}), Value(Data{"q"}), Value(true)}) {
    EXPECT_EQ(search({{"uniqueName", name}}), nullptr);
  }
  EXPECT_THAT(registry_.queriesByName(), IsEmpty());
}

TEST_F(Starting, EmptyUniqueNameIsAName) {
  EXPECT_NE(search({{"uniqueName", ""}}), nullptr);
  EXPECT_NE(record(""), nullptr);
}

TEST_F(Starting, MessagesOfAnyShapeAreTolerated) {
  for (const Value& message :
       {Value(), Value(5), Value("text"), Value(Array{1}), Value(Dictionary{{"userInfo", "x"}}),
        Value(Dictionary{{"name", 5}, {"userInfo", Dictionary{{"clientName", Array{}}}}})}) {
    execution_.search(message, mediator_);
  }
  EXPECT_THAT(fake_.spotlight.queries(), IsEmpty());
}

TEST_F(Starting, KeysOfAnotherKindAreMissing) {
  const Query query = search({{"uniqueName", "q"},
                              {"clientName", 1},
                              {"lineageName", 2},
                              {"queryString", 3},
                              {"sortingAttribute", 4},
                              {"sortAscending", Array{}}});
  ASSERT_NE(query, nullptr);
  EXPECT_TRUE(record("q")->clientName().isNull());
  EXPECT_TRUE(record("q")->lineageName().isNull());
  EXPECT_TRUE(record("q")->queryString().isNull());
  EXPECT_TRUE(record("q")->sortingAttribute().isNull());
  EXPECT_FALSE(record("q")->sortAscending());
  EXPECT_TRUE(query->deliver(items(1, 1)));
  EXPECT_EQ(updates().size(), 1u);
}

TEST_F(Starting, WithoutAQueryOfTheEngineNothingIsRegisteredOrPosted) {
  fake_.spotlight.failQueries(true);
  search("q");
  EXPECT_THAT(registry_.queriesByName(), IsEmpty());
  EXPECT_THAT(registry_.clientNames(), IsEmpty());
  EXPECT_THAT(mediator_->posts(), IsEmpty());
  EXPECT_EQ(mediator_->logTexts().back(), "THMPMailPlugin query a == 1");
}

TEST_F(Starting, LineageReplacesTheEarlierQueryBeforeTheNewOneStarts) {
  const Query old = search({{"uniqueName", "q1"}, {"clientName", "c"}, {"lineageName", "l"}});
  old->deliver(items(1, 1));
  const auto oldHandler = old->foundItemsHandler();
  search({{"uniqueName", "q2"}, {"clientName", "c"}, {"lineageName", "l"}});
  EXPECT_TRUE(old->isCancelled());
  EXPECT_EQ(record("q1"), nullptr);
  EXPECT_NE(record("q2"), nullptr);
  EXPECT_THAT(registry_.namesOfClient("c"), ElementsAre("q2"));
  EXPECT_EQ(mediator_->idle().size(), 1u);
  const auto steps = mediator_->steps();
  const auto cancelled = std::find(steps.begin(), steps.end(), "cancel q1");
  EXPECT_THAT(std::vector(cancelled, steps.end()), Contains("post QueryDidStart"));

  const std::size_t posted = mediator_->posts().size();
  (*oldHandler)(items(2, 1));
  EXPECT_EQ(mediator_->posts().size(), posted);
}

TEST_F(Starting, LineageOfAnotherClientOrNameIsLeftAlone) {
  const Query other = search({{"uniqueName", "a"}, {"clientName", "d"}, {"lineageName", "l"}});
  const Query line = search({{"uniqueName", "b"}, {"clientName", "c"}, {"lineageName", "m"}});
  const Query none = search({{"uniqueName", "e"}, {"clientName", "c"}});
  search({{"uniqueName", "q"}, {"clientName", "c"}, {"lineageName", "l"}});
  search({{"uniqueName", "r"}, {"lineageName", "l"}});
  EXPECT_FALSE(other->isCancelled() || line->isCancelled() || none->isCancelled());
}

TEST_F(Starting, LineageCancelsANameThatStandsTwiceOnce) {
  search({{"uniqueName", "q"}, {"clientName", "c"}, {"lineageName", "l"}});
  search({{"uniqueName", "x"}, {"clientName", "c"}});
  // The same name again without a lineage, then with one.
  search({{"uniqueName", "x"}, {"clientName", "c"}, {"lineageName", "l2"}});
  search({{"uniqueName", "p"}, {"clientName", "c"}, {"lineageName", "l2"}});
  const auto steps = mediator_->steps();
  EXPECT_EQ(std::count(steps.begin(), steps.end(), "cancel x"), 1);
  EXPECT_THAT(registry_.namesOfClient("c"), ElementsAre("q", "p"));
}

TEST_F(Starting, SameNameReplacesWithoutCancelling) {
  const Query old = search("q");
  old->deliver(items(1, 1));
  const auto found = old->foundItemsHandler();
  const auto removed = old->removedItemsHandler();
  const auto gathered = old->gatherEndedHandler();
  const auto completed = old->completionHandler();
  const std::weak_ptr<THMPMailPluginQuery> oldRecord = record("q");
  const Query next = search("q");
  // The old one goes with its record; nobody cancels it.
  EXPECT_TRUE(oldRecord.expired());
  EXPECT_THAT(old->calls(), Each(Not(HasSubstr("null"))));
  EXPECT_THAT(old->calls(), Not(Contains("cancel")));
  EXPECT_TRUE(old->handleDropped());
  EXPECT_THAT(registry_.namesOfClient("c"), ElementsAre("q", "q"));

  // Its callbacks find their record gone, even those already under way.
  const auto before = mediator_->steps().size();
  (*found)(items(2, 3));
  (*removed)("", Array{"1"});
  (*gathered)();
  (*completed)(Error{"Domain", 1, "text", nullptr});
  EXPECT_EQ(mediator_->steps().size(), before);
  EXPECT_FALSE(next->isCancelled());
  EXPECT_NE(record("q"), nullptr);

  // Its pending pasteboard stays out, whatever happens to the new query.
  next->deliver(items(2, 1));
  cancel("q");
  EXPECT_EQ(mediator_->lent().size(), 1u);
  EXPECT_EQ(mediator_->idle().size(), 1u);
}

TEST_F(Starting, QueryKeepsThePluginUntilItIsCancelled) {
  search("q");
  const std::weak_ptr<RecordingMediator> plugin = mediator_;
  const std::shared_ptr<RecordingMediator> kept = mediator_;
  mediator_.reset();
  EXPECT_GT(kept.use_count(), 1);
  kept->cancelQuery("q", "c", nullptr);
  EXPECT_EQ(kept.use_count(), 1);
}

TEST_F(Starting, CancelBetweenRegistrationAndPostLeavesNothing) {
  mediator_->setHook([&](const std::string& step) {
    if (step == "post QueryDidStart") cancel("q");
  });
  const Query query = search("q");
  EXPECT_THAT(mediator_->posts(), IsEmpty());
  EXPECT_TRUE(query->isCancelled());
  EXPECT_FALSE(query->deliver(items(1, 1)));
  EXPECT_FALSE(query->complete(Error{"CSSearchQueryErrorDomain", -2003, "cancelled", nullptr}));
  EXPECT_TRUE(query->handleDropped());
}

}  // namespace
}  // namespace thmp
