// SPDX-License-Identifier: Apache-2.0
//
// The handlers of messages and the notice that an application has quit.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "plugin/plugin_test_support.h"

namespace thmp {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kTallyhive[] = "com.quorvane.tallyhive";
constexpr char kVendalo[] = "com.quorvane.tallyhive-vendalo";

class Client : public PluginScene {
 protected:
  void SetUp() override {
    start();
    takeLog();
  }

  void connect(const Value& compatibilityVersion, const Value& checkVersion = true) {
    Dictionary userInfo{{"clientName", "client"}, {"version", "5"}};
    userInfo.set("compatibilityVersion", compatibilityVersion);
    userInfo.set("checkVersion", checkVersion);
    send(kConnectName, userInfo);
  }
  /// Plug-in lines since the last takeLog(), without the prefix.
  std::vector<std::string> takeTexts(const std::string& query) {
    std::vector<std::string> texts;
    const std::string prefix = line(query, "");
    for (const std::string& logged : takeLog()) {
      if (logged.starts_with(prefix)) texts.push_back(logged.substr(prefix.size()));
    }
    return texts;
  }
};

using Connecting = Client;

TEST_F(Connecting, IsAnsweredWithItsOwnPayloadAndTheVersionKeys) {
  send(kConnectName, {{"clientName", "client"}, {"version", "5"}, {"extra", Array{1, "two"}}});
  const auto answers = fake.posted(kPluginReadyName);
  ASSERT_EQ(answers.size(), 2U);
  EXPECT_TRUE(Value::identical(answers[1], Dictionary{{"clientName", "client"},
                                                      {"extra", Array{1, "two"}},
                                                      {"version", ""},
                                                      {"majorVersion", ""},
                                                      {"compatibilityVersion", 1}}));
}

TEST_F(Connecting, IsLoggedOnceForTheMessageAndOnceForTheAnswer) {
  connect(2, false);
  EXPECT_THAT(takeLog(),
              ElementsAre(line("n/a", std::string("THMPMailPlugin received ") + kConnectName +
                                          " / client - 5 - 2"),
                          line("n/a", std::string("THMPMailPlugin post ") + kPluginReadyName)));
}

TEST_F(Connecting, OtherCompatibilityVersionShowsTheAlertOnceAndIsStillAnswered) {
  connect(2);
  ASSERT_EQ(fake.application.alerts().size(), 1U);
  const Alert alert = fake.application.alerts()[0];
  EXPECT_EQ(alert.messageText, "Tallyhive Mail plug-in needs an update");
  EXPECT_EQ(alert.informativeText,
            "The version of your Tallyhive Mail plug-in is not compatible with the version of "
            "your Tallyhive application. Please re-install the plug-in.");
  EXPECT_EQ(alert.button, "OK");
  EXPECT_EQ(fake.posted(kPluginReadyName).size(), 2U);
  connect(2);
  EXPECT_EQ(fake.application.alerts().size(), 1U);
  EXPECT_EQ(fake.posted(kPluginReadyName).size(), 3U);
}

TEST_F(Connecting, AlertIsShownInTheHostsLanguageLaterThanTheAnswer) {
  fake.application.translate("OK", "Gut");
  fake.application.duringAlert([this] { EXPECT_EQ(fake.posted(kPluginReadyName).size(), 2U); });
  connect(2);
  EXPECT_EQ(fake.application.alerts()[0].button, "Gut");
}

TEST_F(Connecting, NumberOneOfAnyKindIsCompatible) {
  for (const Value& one : {Value(1), Value(1.0), Value(true)}) {
    process.versionChecked = false;
    connect(one);
    EXPECT_THAT(fake.application.alerts(), IsEmpty());
    EXPECT_TRUE(process.versionChecked);
  }
}

TEST_F(Connecting, TextsOtherNumbersAndAMissingKeyAreNotCompatible) {
  std::size_t alerts = 0;
  for (const Value& other : {Value("1"), Value("1.0"), Value(""), Value(0), Value(1.5),
                             Value(false), Value(Array{1}), Value()}) {
    process.versionChecked = false;
    connect(other);
    EXPECT_EQ(fake.application.alerts().size(), ++alerts);
  }
}

TEST_F(Connecting, CheckRunsForTheFirstConnectThatAsksWhateverItsOutcome) {
  connect(1);
  connect(2);
  EXPECT_THAT(fake.application.alerts(), IsEmpty());
}

TEST_F(Connecting, ConnectThatDoesNotAskLeavesTheCheckToTheNext) {
  connect(2, false);
  connect(2, Value());
  connect(2, "no");
  EXPECT_THAT(fake.application.alerts(), IsEmpty());
  connect(2, 1);
  EXPECT_EQ(fake.application.alerts().size(), 1U);
}

TEST_F(Connecting, PayloadWithTheNameOfNoLiveQueryIsNotAnswered) {
  send(kConnectName, {{"clientName", "client"}, {"uniqueName", "q"}});
  EXPECT_EQ(fake.posted(kPluginReadyName).size(), 1U);
  search("q", "client");
  send(kConnectName, {{"clientName", "client"}, {"uniqueName", "q"}});
  EXPECT_EQ(fake.posted(kPluginReadyName).size(), 2U);
}

TEST_F(Connecting, ClientNameThatIsNoTextIsMissingAndEchoedAllTheSame) {
  send(kConnectName, {{"clientName", 7}, {"uniqueName", 8}});
  EXPECT_EQ(fake.log.count(" / (null) - (null) - (null)"), 1U);
  ASSERT_EQ(fake.posted(kPluginReadyName).size(), 2U);
  EXPECT_EQ(fake.posted(kPluginReadyName)[1]["clientName"], Value(7));
}

TEST_F(Connecting, PayloadOfAnyKindIsAnswered) {
  for (const Value& userInfo : {Value("text"), Value(Array{1}), Value(5), Value(2.5), Value(true),
                                Value(Data{"x"}), Value(Date{})}) {
    fake.clientWrites("x.plist", Dictionary{{"name", kConnectName}, {"userInfo", userInfo}});
    fake.runUntilIdle();
  }
  fake.clientSends(kConnectName);
  fake.runUntilIdle();
  const auto answers = fake.posted(kPluginReadyName);
  ASSERT_EQ(answers.size(), 9U);
  for (const Dictionary& answer : answers) EXPECT_EQ(answer.size(), 3U);
}

TEST_F(Connecting, KeepsNoRecordOfTheClient) {
  connect(1);
  EXPECT_TRUE(plugin->queryNamesByClient().empty());
}

using Cancelling = Client;

TEST_F(Cancelling, EndsTheQueryAndForgetsTheClientWithItsLast) {
  const auto query = search("q1", "client");
  search("q2", "client");
  send(kCancelName, {{"uniqueName", "q1"}, {"clientName", "client"}});
  EXPECT_TRUE(query->isCancelled());
  EXPECT_TRUE(query->handleDropped());
  EXPECT_FALSE(isLive("q1"));
  EXPECT_THAT(namesOf("client"), ElementsAre("q2"));
  send(kCancelName, {{"uniqueName", "q2"}, {"clientName", "client"}});
  EXPECT_TRUE(plugin->queryNamesByClient().empty());
}

TEST_F(Cancelling, DetachesEveryCallbackBeforeItCancels) {
  const auto query = search("q", "client");
  plugin->cancelQuery("q", "client");
  const auto calls = query->calls();
  ASSERT_GE(calls.size(), 6U);
  EXPECT_THAT(std::vector<std::string>(calls.end() - 6, calls.end()),
              ElementsAre("setFoundItemsHandler: null", "setCompletionHandler: null",
                          "setRemovedItemsHandler: null", "setGatherEndedHandler: null", "cancel",
                          "destroyed"));
}

TEST_F(Cancelling, OlderEnginesAreNotAskedToDetachWhatTheyLack) {
  fake.spotlight.setCapabilities({.removedItemsHandler = false, .gatherEndedHandler = false});
  const auto query = search("q", "client");
  plugin->cancelQuery("q", "client");
  for (const std::string& call : query->calls()) {
    EXPECT_NE(call, "setRemovedItemsHandler: null");
    EXPECT_NE(call, "setGatherEndedHandler: null");
  }
  EXPECT_TRUE(query->isCancelled());
}

TEST_F(Cancelling, LogsTheQueryAndWhatIsLeft) {
  const auto q1 = search("q1", "client");
  const auto q2 = search("q2", "client");
  deliverBatch(q1);
  deliverBatch(q2);
  deliverBatch(q2);
  takeLog();
  send(kCancelName, {{"uniqueName", "q1"}, {"clientName", "client"}});
  EXPECT_THAT(takeLog(), ElementsAre(line("q1", std::string("THMPMailPlugin received ") +
                                                    kCancelName + " / client"),
                                     line("q1", "THMPMailPlugin cancel query"),
                                     line("n/a", "THMPMailPlugin active query count: 1"),
                                     line("n/a", "THMPMailPlugin active pasteboard count: 2")));
}

TEST_F(Cancelling, ReturnsThePendingPasteboardsOldestFirst) {
  const auto query = search("q", "client");
  const std::vector<std::string> batches{deliverBatch(query), deliverBatch(query),
                                         deliverBatch(query)};
  plugin->cancelQuery("q", "client");
  EXPECT_EQ(namesIn(plugin->pasteboardPool()), batches);
  for (const auto& pasteboard : plugin->pasteboardPool()) {
    EXPECT_TRUE(pasteboard->ownerTags().clientName.isNull());
  }
}

TEST_F(Cancelling, UnknownNameLeavesTheClientsArrayAndTheClientGoesWithTheLast) {
  plugin->setQueryNamesByClient({{"client", {"gone", "q", "gone"}}, {"other", {"gone"}}});
  send(kCancelName, {{"uniqueName", "gone"}, {"clientName", "client"}});
  EXPECT_THAT(namesOf("client"), ElementsAre("q"));
  EXPECT_THAT(namesOf("other"), ElementsAre("gone"));
  send(kCancelName, {{"uniqueName", "gone"}, {"clientName", "other"}});
  EXPECT_FALSE(plugin->queryNamesByClient().contains("other"));
}

TEST_F(Cancelling, UnknownNameWritesNoCounts) {
  send(kCancelName, {{"uniqueName", "gone"}, {"clientName", "client"}});
  EXPECT_EQ(fake.log.count("count"), 0U);
  EXPECT_EQ(fake.log.count("THMPMailPlugin cancel query"), 1U);
}

TEST_F(Cancelling, UnderAnotherClientsNameEndsTheQueryAndTouchesThatClientOnly) {
  search("q", "client");
  search("p", "other");
  send(kCancelName, {{"uniqueName", "q"}, {"clientName", "other"}});
  EXPECT_FALSE(isLive("q"));
  EXPECT_THAT(namesOf("client"), ElementsAre("q"));
  EXPECT_THAT(namesOf("other"), ElementsAre("p"));
}

TEST_F(Cancelling, WithoutAClientNameTouchesNoArray) {
  search("q", "client");
  send(kCancelName, {{"uniqueName", "q"}});
  EXPECT_FALSE(isLive("q"));
  EXPECT_THAT(namesOf("client"), ElementsAre("q"));
}

TEST_F(Cancelling, WithoutAUniqueNameOnlyLogs) {
  search("q", "client");
  takeLog();
  send(kCancelName, {{"clientName", "client"}});
  send(kCancelName, {{"clientName", "client"}, {"uniqueName", Array{"q"}}});
  EXPECT_THAT(takeTexts("none"),
              ElementsAre(std::string("THMPMailPlugin received ") + kCancelName + " / client",
                          std::string("THMPMailPlugin received ") + kCancelName + " / client"));
  EXPECT_TRUE(isLive("q"));
}

TEST_F(Cancelling, EmptyTextsCountAsNames) {
  send(kSearchName, {{"uniqueName", ""}, {"clientName", ""}});
  EXPECT_TRUE(isLive(""));
  send(kCancelName, {{"uniqueName", ""}, {"clientName", ""}});
  EXPECT_FALSE(isLive(""));
  EXPECT_TRUE(plugin->queryNamesByClient().empty());
}

TEST_F(Cancelling, ClientNameThatIsNoTextIsMissing) {
  search("q", "client");
  send(kCancelName, {{"uniqueName", "q"}, {"clientName", 7}});
  EXPECT_FALSE(isLive("q"));
  EXPECT_THAT(namesOf("client"), ElementsAre("q"));
}

TEST_F(Cancelling, NameThatStandsTwiceGoesAtOnce) {
  search("q", "client");
  search("q", "client");
  EXPECT_THAT(namesOf("client"), ElementsAre("q", "q"));
  send(kCancelName, {{"uniqueName", "q"}, {"clientName", "client"}});
  EXPECT_TRUE(plugin->queryNamesByClient().empty());
}

TEST_F(Cancelling, IsNotAnswered) {
  search("q", "client");
  const std::size_t before = fake.messagesIn(fake.outbox()).size();
  send(kCancelName, {{"uniqueName", "q"}, {"clientName", "client"}});
  EXPECT_EQ(fake.messagesIn(fake.outbox()).size(), before);
}

TEST_F(Cancelling, CancelledQueryPostsNothingMore) {
  const auto query = search("q", "client");
  const auto found = query->foundItemsHandler();
  const auto completion = query->completionHandler();
  const auto removed = query->removedItemsHandler();
  const auto gathered = query->gatherEndedHandler();
  plugin->cancelQuery("q", "client");
  const std::size_t before = fake.messagesIn(fake.outbox()).size();
  // Calls that were under way when the query was cancelled.
  (*found)(std::vector<SpotlightItem>{mailItem(1)});
  (*removed)("", Array{"1"});
  (*gathered)();
  (*completion)({});
  EXPECT_EQ(fake.messagesIn(fake.outbox()).size(), before);
  EXPECT_FALSE(query->complete(Error{"d", 1, "gone", nullptr}));
}

TEST_F(Cancelling, CompletionEndsItsOwnQueryFromInsideTheCallback) {
  const auto query = search("q", "client");
  deliverBatch(query);
  takeLog();
  EXPECT_TRUE(query->complete());
  EXPECT_EQ(fake.posted(kQueryDidCompleteName).size(), 1U);
  EXPECT_FALSE(isLive("q"));
  EXPECT_TRUE(query->handleDropped());
  EXPECT_EQ(plugin->pasteboardPool().size(), 1U);
  EXPECT_EQ(fake.log.count("THMPMailPlugin cancel query"), 1U);
  EXPECT_TRUE(plugin->queryNamesByClient().empty());
}

TEST_F(Cancelling, CancelFromInsideACallbackIsSafe) {
  const auto query = search("q", "client");
  fake.files.after(FileOperation::kPrepare,
                   [this](const std::string&) { plugin->cancelQuery("q", "client"); });
  deliverBatch(query);
  EXPECT_FALSE(isLive("q"));
  EXPECT_THAT(fake.posted(kQueryHasUpdatesName), IsEmpty());
  EXPECT_EQ(plugin->pasteboardPool().size(), 1U);
}

TEST_F(Cancelling, CancelOnBehalfOfARecordSparesAQueryThatHasTakenItsName) {
  search("q", "client");
  const auto first = plugin->queriesByName().at("q");
  search("q", "client");
  takeLog();
  plugin->cancelQuery("q", "client", first);
  EXPECT_TRUE(isLive("q"));
  EXPECT_THAT(takeLog(), IsEmpty());
  plugin->cancelQuery("q", "client", plugin->queriesByName().at("q"));
  EXPECT_FALSE(isLive("q"));
  EXPECT_EQ(fake.log.count("THMPMailPlugin cancel query"), 1U);
}

TEST_F(Cancelling, SearchOfTheSameLineageEndsTheEarlierQuery) {
  send(kSearchName, {{"uniqueName", "q1"}, {"clientName", "client"}, {"lineageName", "l"}});
  const auto first = fake.spotlight.query();
  send(kSearchName, {{"uniqueName", "q2"}, {"clientName", "client"}, {"lineageName", "l"}});
  EXPECT_TRUE(first->isCancelled());
  EXPECT_THAT(namesOf("client"), ElementsAre("q2"));
}

using Terminating = Client;

TEST_F(Terminating, EndsTheClientsQueriesAndThoseNamedWhoeverTheyBelongTo) {
  search("q1", "client");
  search("q2", "client");
  search("p1", "other");
  search("p2", "other");
  send(kTerminateName, {{"clientName", "client"}, {"activeNames", Array{"p1", "q1", "gone"}}});
  EXPECT_FALSE(isLive("q1"));
  EXPECT_FALSE(isLive("q2"));
  EXPECT_FALSE(isLive("p1"));
  EXPECT_TRUE(isLive("p2"));
  EXPECT_FALSE(plugin->queryNamesByClient().contains("client"));
  EXPECT_THAT(namesOf("other"), ElementsAre("p1", "p2"));
}

TEST_F(Terminating, EachNameIsCancelledOnce) {
  search("q", "client");
  search("q", "client");
  takeLog();
  send(kTerminateName, {{"clientName", "client"}, {"activeNames", Array{"q", "q"}}});
  EXPECT_EQ(fake.log.count("THMPMailPlugin cancel query"), 1U);
}

TEST_F(Terminating, LogsTheMessageTheClientAndEachQuery) {
  search("q1", "client");
  search("q2", "client");
  takeLog();
  send(kTerminateName, {{"clientName", "client"}});
  EXPECT_THAT(takeLog(), ElementsAre(line("n/a", std::string("THMPMailPlugin received ") +
                                                     kTerminateName + " / client"),
                                     line("n/a", "THMPMailPlugin terminate client client"),
                                     line("q1", "THMPMailPlugin cancel query"),
                                     line("n/a", "THMPMailPlugin active query count: 1"),
                                     line("n/a", "THMPMailPlugin active pasteboard count: 0"),
                                     line("q2", "THMPMailPlugin cancel query"),
                                     line("n/a", "THMPMailPlugin active query count: 0"),
                                     line("n/a", "THMPMailPlugin active pasteboard count: 0")));
}

TEST_F(Terminating, WithoutAClientNameOnlyLogs) {
  search("q", "client");
  takeLog();
  send(kTerminateName, {{"activeNames", Array{"q"}}});
  send(kTerminateName, {{"clientName", 7}, {"activeNames", Array{"q"}}});
  EXPECT_EQ(fake.log.lines().size(), 2U);
  EXPECT_TRUE(isLive("q"));
}

TEST_F(Terminating, ActiveNamesThatAreNoTextsAreSkipped) {
  search("q", "other");
  search("7", "other");
  send(kTerminateName,
       {{"clientName", "client"}, {"activeNames", Array{7, Array{"q"}, Dictionary{}, true}}});
  send(kTerminateName, {{"clientName", "client"}, {"activeNames", "q"}});
  EXPECT_TRUE(isLive("q"));
  EXPECT_TRUE(isLive("7"));
}

TEST_F(Terminating, ClientThatIsNotKnownIsNoError) {
  send(kTerminateName, {{"clientName", "nobody"}, {"activeNames", Array{"gone"}}});
  EXPECT_EQ(fake.log.count("THMPMailPlugin terminate client nobody"), 1U);
  EXPECT_TRUE(plugin->queryNamesByClient().empty());
}

TEST_F(Terminating, ManyNamesEndInOneMessage) {
  constexpr int kNames = 2000;
  Array names;
  for (int i = 0; i < kNames; ++i) names.push_back("gone" + std::to_string(i));
  send(kTerminateName, {{"clientName", "client"}, {"activeNames", names}});
  EXPECT_EQ(fake.log.count("THMPMailPlugin cancel query"), std::size_t{kNames});
}

using ApplicationQuits = Client;

TEST_F(ApplicationQuits, AnyOtherApplicationEndsEveryClient) {
  fake.application.setRunning(kTallyhive, true);
  search("q1", "a");
  search("q2", "b");
  search("q3", "");
  takeLog();
  fake.application.endApplication("com.example.other");
  EXPECT_FALSE(isLive("q1"));
  EXPECT_FALSE(isLive("q2"));
  EXPECT_TRUE(isLive("q3"));
  EXPECT_TRUE(plugin->queryNamesByClient().empty());
  EXPECT_EQ(fake.log.count("THMPMailPlugin terminate client"), 2U);
}

TEST_F(ApplicationQuits, EditionThatQuitsWhileTheOtherRunsEndsNobody) {
  fake.application.setRunning(kVendalo, true);
  search("q", "a");
  takeLog();
  fake.application.endApplication(kTallyhive);
  EXPECT_TRUE(isLive("q"));
  EXPECT_THAT(takeLog(), IsEmpty());
  fake.application.endApplication(kVendalo);
  EXPECT_FALSE(isLive("q"));
}

TEST_F(ApplicationQuits, EditionThatStillRunsOnceMoreEndsNobody) {
  fake.application.setRunning(kVendalo, true);
  search("q", "a");
  fake.application.applicationTerminated({kVendalo, kVendalo});
  EXPECT_TRUE(isLive("q"));
}

TEST_F(ApplicationQuits, IdentifierOfTheNoticeCountsBeforeThatOfTheApplication) {
  fake.application.setRunning(kTallyhive, true);
  search("q", "a");
  fake.application.applicationTerminated({kTallyhive, "com.example.other"});
  EXPECT_TRUE(isLive("q"));
  fake.application.applicationTerminated({"com.example.other", kTallyhive});
  EXPECT_FALSE(isLive("q"));
}

TEST_F(ApplicationQuits, IdentifierThatIsNoTextIsTakenFromTheApplication) {
  fake.application.setRunning(kTallyhive, true);
  search("q", "a");
  fake.application.applicationTerminated({7, kTallyhive});
  EXPECT_TRUE(isLive("q"));
  fake.application.applicationTerminated({7, "com.example.other"});
  EXPECT_FALSE(isLive("q"));
}

TEST_F(ApplicationQuits, NoticeWithoutAnyIdentifierIsIgnored) {
  search("q", "a");
  fake.application.applicationTerminated({Value(), Value()});
  fake.application.applicationTerminated({7, Array{kTallyhive}});
  EXPECT_TRUE(isLive("q"));
}

TEST_F(ApplicationQuits, NothingIsPosted) {
  search("q", "a");
  const std::size_t before = fake.messagesIn(fake.outbox()).size();
  fake.application.endApplication("com.example.other");
  EXPECT_EQ(fake.messagesIn(fake.outbox()).size(), before);
}

using Clearing = Client;

TEST_F(Clearing, ReturnsTheBatchsPasteboard) {
  const auto query = search("q", "client");
  const std::string batch = deliverBatch(query);
  takeLog();
  clear("q", "client", batch);
  EXPECT_THAT(namesIn(plugin->pasteboardPool()), ElementsAre(batch));
  EXPECT_EQ(pendingCount("q"), 0U);
  EXPECT_THAT(takeLog(), ElementsAre(line("q", std::string("THMPMailPlugin received ") +
                                                   kClearName + " / client - " + batch)));
}

TEST_F(Clearing, IsNotAnswered) {
  const std::string batch = deliverBatch(search("q", "client"));
  const std::size_t before = fake.messagesIn(fake.outbox()).size();
  clear("q", "client", batch);
  EXPECT_EQ(fake.messagesIn(fake.outbox()).size(), before);
}

TEST_F(Clearing, OfAnotherClientKeepsTheBatchPending) {
  const std::string batch = deliverBatch(search("q", "client"));
  takeLog();
  clear("q", "other", batch);
  EXPECT_EQ(takeTexts("q").back(),
            "THMPMailPlugin PASTEBOARD USE ERROR. Pasteboard client mismatch: client - other");
  EXPECT_EQ(pendingCount("q"), 1U);
  EXPECT_THAT(plugin->pasteboardPool(), IsEmpty());
}

TEST_F(Clearing, WithoutAClientNameIsAMismatchEvenWhereTheQueryHasNone) {
  const std::string batch = deliverBatch(search("q", ""));
  takeLog();
  send(kClearName, {{"uniqueName", "q"}, {"batchName", batch}});
  EXPECT_EQ(takeTexts("q").back(),
            "THMPMailPlugin PASTEBOARD USE ERROR. Pasteboard client mismatch: (null) - (null)");
  EXPECT_EQ(pendingCount("q"), 1U);
}

TEST_F(Clearing, OfAnotherQueryIsAQueryMismatch) {
  const std::string batch = deliverBatch(search("q", "client"));
  search("p", "client");
  takeLog();
  clear("p", "client", batch);
  EXPECT_EQ(takeTexts("p").back(),
            "THMPMailPlugin PASTEBOARD USE ERROR. Pasteboard query mismatch: q - p");
  EXPECT_EQ(pendingCount("q"), 1U);
}

TEST_F(Clearing, AfterTheQueryWasCancelledIsAClientMismatch) {
  const std::string batch = deliverBatch(search("q", "client"));
  plugin->cancelQuery("q", "client");
  takeLog();
  clear("q", "client", batch);
  EXPECT_EQ(takeTexts("q").back(),
            "THMPMailPlugin PASTEBOARD USE ERROR. Pasteboard client mismatch: (null) - client");
  EXPECT_THAT(namesIn(plugin->pasteboardPool()), ElementsAre(batch));
}

TEST_F(Clearing, TwiceIsAClientMismatchTheSecondTime) {
  const std::string batch = deliverBatch(search("q", "client"));
  clear("q", "client", batch);
  takeLog();
  clear("q", "client", batch);
  EXPECT_EQ(takeTexts("q").back(),
            "THMPMailPlugin PASTEBOARD USE ERROR. Pasteboard client mismatch: (null) - client");
  EXPECT_THAT(namesIn(plugin->pasteboardPool()), ElementsAre(batch));
}

TEST_F(Clearing, OfATaggedPasteboardWhoseQueryIsGoneIsLogged) {
  const auto lent = plugin->pasteboardFromPool();
  lent->setOwnerTags("q", "client");
  clear("q", "client", lent->name());
  EXPECT_EQ(takeTexts("q").back(), "THMPMailPlugin PASTEBOARD CLEAR ERROR. Missing query");
  EXPECT_THAT(plugin->pasteboardPool(), IsEmpty());
}

TEST_F(Clearing, TwoEntriesOfOnePasteboardGoAndItStaysOutOfThePool) {
  const std::string batch = deliverBatch(search("q", "client"));
  const auto record = plugin->queriesByName().at("q");
  record->pendingBatches().push_back(record->pendingBatches()[0]);
  plugin->setQueriesByName({{"q", record}});
  takeLog();
  clear("q", "client", batch);
  EXPECT_EQ(takeTexts("q").back(),
            "THMPMailPlugin PASTEBOARD USE ERROR. Pasteboard mismatch: " + batch + " - 2");
  EXPECT_EQ(pendingCount("q"), 0U);
  EXPECT_THAT(plugin->pasteboardPool(), IsEmpty());
}

TEST_F(Clearing, OfARemovalBatchIsRefusedWithACountOfNone) {
  const auto query = search("q", "client");
  query->removed(Array{"1"});
  const std::string batch(*fake.posted(kQueryHasRemovalsName)[0]["batchName"].asText());
  takeLog();
  clear("q", "client", batch);
  EXPECT_EQ(takeTexts("q").back(),
            "THMPMailPlugin PASTEBOARD USE ERROR. Pasteboard mismatch: " + batch + " - 0");
  plugin->cancelQuery("q", "client");
  EXPECT_THAT(plugin->pasteboardPool(), IsEmpty());
}

TEST_F(Clearing, WithoutAUniqueOrBatchNameOnlyLogs) {
  const std::string batch = deliverBatch(search("q", "client"));
  takeLog();
  send(kClearName, {{"clientName", "client"}, {"batchName", batch}});
  send(kClearName, {{"clientName", "client"}, {"uniqueName", "q"}});
  send(kClearName, {{"clientName", "client"}, {"uniqueName", "q"}, {"batchName", 7}});
  EXPECT_EQ(fake.log.lines().size(), 3U);
  EXPECT_EQ(fake.log.count("received"), 3U);
  EXPECT_EQ(pendingCount("q"), 1U);
}

TEST_F(Clearing, NamesThatAreNotOursAreClientMismatchesAndReachNoSystem) {
  const std::string batch = deliverBatch(search("q", "client"));
  takeLog();
  const std::vector<std::string> hostile{"",
                                         "../../" + batch,
                                         "/etc/passwd",
                                         "nothing",
                                         batch + std::string("\0x", 2),
                                         std::string(1000, 'x')};
  for (const std::string& name : hostile) clear("q", "client", name);
  EXPECT_EQ(fake.log.count("Pasteboard client mismatch: (null) - client"), hostile.size());
  EXPECT_EQ(pendingCount("q"), 1U);
  EXPECT_EQ(fake.pasteboards.made().size(), 1U);
  RecordProperty("bad_inputs", static_cast<int>(hostile.size()));
}

TEST_F(Clearing, ReplacedRecordsBatchStaysOutOfThePool) {
  const std::string batch = deliverBatch(search("q", "client"));
  search("q", "client");
  takeLog();
  clear("q", "client", batch);
  EXPECT_EQ(takeTexts("q").back(),
            "THMPMailPlugin PASTEBOARD USE ERROR. Pasteboard mismatch: " + batch + " - 0");
  plugin->cancelQuery("q", "client");
  EXPECT_THAT(plugin->pasteboardPool(), IsEmpty());
  EXPECT_EQ(plugin->pasteboards().size(), 1U);
}

TEST_F(Clearing, PasteboardOfACancelledBatchCarriesTheNextOne) {
  const std::string batch = deliverBatch(search("q", "client"));
  plugin->cancelQuery("q", "client");
  EXPECT_EQ(deliverBatch(search("p", "client")), batch);
  clear("q", "client", batch);
  EXPECT_EQ(pendingCount("p"), 1U);
}

using Record = Client;

TEST_F(Record, NewOneIsEmpty) {
  THMPMailPluginQuery record("q");
  EXPECT_EQ(record.queryName(), Text("q"));
  EXPECT_TRUE(record.clientName().isNull());
  EXPECT_TRUE(record.lineageName().isNull());
  EXPECT_TRUE(record.queryString().isNull());
  EXPECT_TRUE(record.sortingAttribute().isNull());
  EXPECT_FALSE(record.sortAscending());
  EXPECT_EQ(record.searchQuery(), nullptr);
  EXPECT_TRUE(record.messageIDs().empty());
  EXPECT_TRUE(record.pendingBatches().empty());
  EXPECT_FALSE(record.error().isSet());
}

TEST_F(Record, ChangingTheTextGivenToASetterDoesNotChangeIt) {
  THMPMailPluginQuery record("q");
  std::string text = "before";
  record.setClientName(text);
  text = "after";
  EXPECT_EQ(record.clientName(), Value("before"));
}

TEST_F(Record, RegistryIsItsOnlyOwner) {
  search("q", "client");
  const std::weak_ptr<THMPMailPluginQuery> record = plugin->queriesByName().at("q");
  plugin->cancelQuery("q", "client");
  EXPECT_TRUE(record.expired());
}

TEST_F(Record, EndsWithTheRegistryThatDropsItAndItsQueryWithIt) {
  const auto first = search("q", "client");
  const std::weak_ptr<THMPMailPluginQuery> record = plugin->queriesByName().at("q");
  search("q", "client");
  EXPECT_TRUE(record.expired());
  EXPECT_TRUE(first->isCancelled());
  EXPECT_EQ(fake.posted(kQueryDidStartName).size(), 2U);
}

}  // namespace
}  // namespace thmp
