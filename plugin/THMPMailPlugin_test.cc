// SPDX-License-Identifier: Apache-2.0
#include "plugin/THMPMailPlugin.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "plugin/plugin_test_support.h"

namespace thmp {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class StartUp : public PluginScene {
 protected:
  std::string versionOf(const Value& bundleVersion) {
    fake.application.setPluginInformation(Dictionary{{"CFBundleVersion", bundleVersion}});
    THMPMailPlugin::createInstance(process);
    return process.instance()->version();
  }
};

TEST_F(StartUp, LoadWritesOneLine) {
  THMPMailPlugin::load(process);
  EXPECT_THAT(takeLog(), ElementsAre(line("n/a", "THMPMailPlugin load")));
  EXPECT_EQ(process.stage(), PluginStage::kLoaded);
}

TEST_F(StartUp, HostWithoutBundlesGetsThreeLinesAndNoDataFolder) {
  fake.mail.setHasBundleClass(false);
  start();
  EXPECT_THAT(takeLog(), ElementsAre(line("n/a", "THMPMailPlugin load"),
                                     line("n/a", "THMPMailPlugin initialize"),
                                     line("n/a", "Mail.app doesn't support bundles anymore!")));
  EXPECT_FALSE(fake.files.hasFolder(fake.dataFolder()));
  EXPECT_EQ(process.stage(), PluginStage::kInert);
  EXPECT_EQ(plugin, nullptr);
  EXPECT_THAT(fake.application.presentedErrors(), IsEmpty());
  EXPECT_THAT(fake.mail.classNames(), ElementsAre("MVMailBundle"));
}

TEST_F(StartUp, StepsComeInTheirOrder) {
  fake.mail.onRegisterBundle([this] {
    EXPECT_TRUE(fake.files.hasFolder(fake.dataFolder()));
    EXPECT_EQ(fake.execution.mainQueue().pending(), 0U);
  });
  THMPMailPlugin::load(process);
  THMPMailPlugin::initialize(process);
  EXPECT_EQ(fake.mail.registerBundleCount(), 1);
  EXPECT_EQ(process.instance(), nullptr);
  EXPECT_EQ(process.stage(), PluginStage::kRegistered);
  EXPECT_EQ(fake.execution.mainQueue().pending(), 1U);
  fake.runUntilIdle();
  EXPECT_NE(process.instance(), nullptr);
  EXPECT_EQ(process.stage(), PluginStage::kRunning);
  EXPECT_THAT(takeLog(), ElementsAre(line("n/a", "THMPMailPlugin load"),
                                     line("n/a", "THMPMailPlugin initialize"),
                                     line("n/a", "THMPMailPlugin register"),
                                     line("n/a", "THMPMailPlugin create instance")));
}

TEST_F(StartUp, ExistingDataFolderIsSuccess) {
  fake.files.makeFolder(fake.dataFolder());
  start();
  EXPECT_NE(plugin, nullptr);
}

TEST_F(StartUp, DataFolderThatCannotBeMadeShowsTheErrorAndLeavesThePluginInert) {
  const std::string text = "Failed to create data directory for the Tallyhive Mail plug-in";
  fake.application.translate(text, "Kein Ordner");
  fake.files.failFromNowOn(FileOperation::kCreateDirectories, EACCES);
  start();
  ASSERT_EQ(fake.application.presentedErrors().size(), 1U);
  const Error error = fake.application.presentedErrors()[0];
  EXPECT_EQ(error.domain, "THMPMailPlugin");
  EXPECT_EQ(error.code, 1);
  EXPECT_EQ(error.description, "Kein Ordner");
  ASSERT_NE(error.underlying, nullptr);
  EXPECT_EQ(error.underlying->code, EACCES);
  EXPECT_THAT(fake.application.localizedKeys(), ElementsAre(text));
  EXPECT_EQ(fake.mail.registerBundleCount(), 0);
  EXPECT_EQ(fake.execution.mainQueue().pending(), 0U);
  EXPECT_EQ(process.stage(), PluginStage::kInert);
  EXPECT_EQ(plugin, nullptr);
}

TEST_F(StartUp, DataFolderIsGivenBackOrTheError) {
  EXPECT_EQ(THMPMailPlugin::createPluginDataDirectory(process), Url::file(fake.dataFolder()));
  fake.files.failOnce(FileOperation::kCreateDirectories, ENOSPC);
  Error error;
  EXPECT_EQ(THMPMailPlugin::createPluginDataDirectory(process, &error), std::nullopt);
  EXPECT_EQ(error.code, ENOSPC);
}

TEST_F(StartUp, SandboxedHostUsesTheRealHome) {
  fake.identity.setHostSandboxed(true);
  fake.files.setApplicationSupport("/home/ada/.var/app/share", ".local/share");
  EXPECT_EQ(THMPMailPlugin::createPluginDataDirectory(process),
            Url::file("/home/ada/.local/share/Mail/Tallyhive"));
}

TEST_F(StartUp, SecondInitializeDoesNothing) {
  start();
  takeLog();
  THMPMailPlugin::initialize(process);
  fake.runUntilIdle();
  EXPECT_THAT(takeLog(), IsEmpty());
  EXPECT_EQ(process.instance(), plugin);
}

TEST_F(StartUp, InitializeOnManyThreadsRunsOnce) {
  std::vector<std::thread> threads;
  threads.reserve(8);
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([this] { THMPMailPlugin::initialize(process); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(fake.mail.registerBundleCount(), 1);
  EXPECT_EQ(fake.log.count("THMPMailPlugin initialize"), 1U);
  EXPECT_EQ(fake.execution.mainQueue().pending(), 1U);
}

TEST_F(StartUp, InitializeThatIsEnteredAgainWhileItRunsDoesNotHang) {
  fake.mail.onRegisterBundle([this] { THMPMailPlugin::initialize(process); });
  start();
  EXPECT_EQ(fake.mail.registerBundleCount(), 1);
  EXPECT_NE(plugin, nullptr);
}

TEST_F(StartUp, VersionIsWhatFollowsTheFirstHyphen) {
  EXPECT_EQ(versionOf("310"), "310");
  EXPECT_EQ(versionOf("3.1-310"), "310");
  EXPECT_EQ(versionOf("310-"), "310-");
  EXPECT_EQ(versionOf("2.4.1-1187"), "1187");
  EXPECT_EQ(versionOf("a-b-c"), "b-c");
  EXPECT_EQ(versionOf("-5"), "5");
  EXPECT_EQ(versionOf("-"), "-");
  EXPECT_EQ(versionOf(""), "");
}

TEST_F(StartUp, InformationThatIsMissingOrNoTextGivesEmptyVersions) {
  fake.application.setPluginInformation({});
  EXPECT_EQ(versionOf(Value()), "");
  EXPECT_EQ(versionOf(Value(310)), "");
  EXPECT_EQ(process.instance()->majorVersion(), "");
}

TEST_F(StartUp, PluginReadyCarriesExactlyTheVersionKeys) {
  fake.application.setPluginInformation(
      Dictionary{{"CFBundleVersion", "3.1-310"}, {"THMPMailPluginBundleVersion", "4-x"}});
  start();
  ASSERT_EQ(fake.posted(kPluginReadyName).size(), 1U);
  EXPECT_TRUE(Value::identical(
      fake.posted(kPluginReadyName)[0],
      Dictionary{{"version", "310"}, {"majorVersion", "4-x"}, {"compatibilityVersion", 1}}));
}

TEST_F(StartUp, NewInstanceHasEmptyCollections) {
  start();
  EXPECT_TRUE(plugin->queriesByName().empty());
  EXPECT_TRUE(plugin->queryNamesByClient().empty());
  EXPECT_THAT(plugin->pasteboards(), IsEmpty());
  EXPECT_THAT(plugin->pasteboardPool(), IsEmpty());
  EXPECT_NE(plugin->communicationCenter(), nullptr);
  EXPECT_EQ(plugin->logLevel(), 1U);
}

TEST_F(StartUp, CollectionsAreSnapshotsThatCanBeReplacedAsAWhole) {
  start();
  search("q", "client");
  auto records = plugin->queriesByName();
  auto names = plugin->queryNamesByClient();
  records.clear();
  names.clear();
  EXPECT_TRUE(isLive("q"));
  EXPECT_THAT(namesOf("client"), ElementsAre("q"));
  plugin->setQueriesByName(records);
  plugin->setQueryNamesByClient({{"other", {"a", "a"}}});
  EXPECT_FALSE(isLive("q"));
  EXPECT_THAT(namesOf("other"), ElementsAre("a", "a"));
  const auto lent = plugin->pasteboardFromPool();
  plugin->setPasteboards({lent, lent});
  plugin->setPasteboardPool({lent});
  EXPECT_EQ(plugin->pasteboards().size(), 2U);
  EXPECT_EQ(plugin->pasteboardFromPool(), lent);
}

TEST_F(StartUp, RequestsThatWaitAtTheStartReachNobodyAndAreDeleted) {
  fake.files.makeFolder(fake.inbox());
  fake.clientSends(kConnectName, {{"clientName", "client"}});
  start();
  EXPECT_THAT(fake.messagesIn(fake.inbox()), IsEmpty());
  EXPECT_EQ(fake.posted(kPluginReadyName).size(), 1U);
}

TEST_F(StartUp, MessagesFromAnEarlierRunAreGoneBeforePluginReady) {
  fake.files.makeFolder(fake.outbox());
  fake.files.writeFile(fake.outbox() + "/old.plist", "x");
  start();
  EXPECT_EQ(fake.files.entries(fake.outbox()).size(), 1U);
}

TEST_F(StartUp, SecondInstanceWorksAndTheFirstOneIsReleased) {
  start();
  const std::weak_ptr<THMPMailPlugin> first = plugin;
  plugin.reset();
  const auto lent = first.lock()->pasteboardFromPool();
  lent->setOwnerTags("q", "client");
  THMPMailPlugin::createInstance(process);
  EXPECT_TRUE(first.expired());
  EXPECT_EQ(fake.pasteboards.find(lent->name())->releaseCount(), 1);
  EXPECT_TRUE(lent->ownerTags().clientName.isNull());
  EXPECT_EQ(fake.application.applicationTerminatedObservers(), 1U);

  plugin = process.instance();
  search("q", "client");
  EXPECT_TRUE(isLive("q"));
  EXPECT_EQ(fake.posted(kQueryDidStartName).size(), 1U);
}

TEST_F(StartUp, MessageIsHandledOnceWhileTwoInstancesLive) {
  start();
  const auto first = plugin;
  THMPMailPlugin::createInstance(process);
  send(kConnectName, {{"clientName", "client"}});
  EXPECT_EQ(fake.log.count("received"), 1U);
}

class Sending : public PluginScene {
 protected:
  void SetUp() override { start(); }
};

TEST_F(Sending, AddsTheVersionKeysToACopyOfThePayload) {
  const Dictionary payload{{"a", 1}, {"version", "theirs"}, {"compatibilityVersion", "x"}};
  plugin->postMessageName(" name", payload);
  ASSERT_EQ(fake.posted(" name").size(), 1U);
  EXPECT_TRUE(Value::identical(
      fake.posted(" name")[0],
      Dictionary{{"a", 1}, {"version", ""}, {"majorVersion", ""}, {"compatibilityVersion", 1}}));
  EXPECT_EQ(payload["version"], Value("theirs"));
}

TEST_F(Sending, PayloadThatIsNoDictionaryCountsAsNone) {
  plugin->postMessageName(" name", Array{1, 2});
  plugin->postMessageName(" name", Value());
  for (const Dictionary& payload : fake.posted(" name")) EXPECT_EQ(payload.size(), 3U);
  EXPECT_EQ(fake.posted(" name").size(), 2U);
}

TEST_F(Sending, MessageOfAQueryThatIsNotThereIsDroppedWithoutAWord) {
  takeLog();
  plugin->postMessageName(" name", Dictionary{{"uniqueName", "q"}});
  EXPECT_THAT(fake.posted(" name"), IsEmpty());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(Sending, MessageOfALiveQueryGoesOut) {
  search("q", "client");
  plugin->postMessageName(" name", Dictionary{{"uniqueName", "q"}});
  EXPECT_EQ(fake.posted(" name").size(), 1U);
}

TEST_F(Sending, MessageOfARecordWithoutAQueryOrWithACancelledOneIsDropped) {
  const auto record = std::make_shared<THMPMailPluginQuery>("q");
  plugin->setQueriesByName({{"q", record}});
  plugin->postMessageName(" name", Dictionary{{"uniqueName", "q"}});
  record->setSearchQuery(fake.spotlight.makeQuery("", nullptr));
  record->searchQuery()->cancel();
  plugin->postMessageName(" name", Dictionary{{"uniqueName", "q"}});
  EXPECT_THAT(fake.posted(" name"), IsEmpty());
}

TEST_F(Sending, QueryCancelledBetweenPreparationAndPublicationSendsNothing) {
  search("q", "client");
  fake.files.after(FileOperation::kPrepare,
                   [this](const std::string&) { plugin->cancelQuery("q", "client"); });
  plugin->postMessageName(" name", Dictionary{{"uniqueName", "q"}});
  EXPECT_THAT(fake.posted(" name"), IsEmpty());
  EXPECT_EQ(fake.files.temporaryCount(), 0U);
  EXPECT_EQ(fake.log.count("error"), 0U);
}

TEST_F(Sending, RecordThatWasReplacedBetweenPreparationAndPublicationSendsNothing) {
  search("q", "client");
  const auto first = plugin->queriesByName().at("q");
  int prepared = 0;
  fake.files.after(FileOperation::kPrepare, [&](const std::string&) {
    if (++prepared == 1) search("q", "client");
  });
  plugin->postMessageName(" name", Dictionary{{"uniqueName", "q"}}, first);
  EXPECT_THAT(fake.posted(" name"), IsEmpty());
  plugin->postMessageName(" name", Dictionary{{"uniqueName", "q"}}, first);
  EXPECT_THAT(fake.posted(" name"), IsEmpty());
  plugin->postMessageName(" name", Dictionary{{"uniqueName", "q"}},
                          plugin->queriesByName().at("q"));
  EXPECT_EQ(fake.posted(" name").size(), 1U);
}

TEST_F(Sending, FailedWriteIsReportedByTheCenterAlone) {
  takeLog();
  fake.files.failOnce(FileOperation::kPrepare, ENOSPC);
  plugin->postMessageName(" name", Value());
  EXPECT_EQ(fake.log.count("Failed to write message to file"), 1U);
  EXPECT_EQ(fake.log.count("Failed to post message to Mail client"), 1U);
  EXPECT_EQ(fake.log.count("TallyhiveMailPlugin - "), 0U);
}

class Quitting : public PluginScene {
 protected:
  void SetUp() override { start(); }
};

TEST_F(Quitting, NamesTheLiveQueriesAndLeavesThemRegistered) {
  const auto query = search("q1", "client");
  search("q2", "");
  fake.application.willTerminate();
  ASSERT_EQ(fake.posted(kPluginQuitName).size(), 1U);
  const Dictionary payload = fake.posted(kPluginQuitName)[0];
  EXPECT_EQ(payload.size(), 4U);
  EXPECT_EQ(payload["activeNames"], Value(Array{"q1", "q2"}));
  EXPECT_TRUE(isLive("q1"));
  EXPECT_TRUE(isLive("q2"));
  EXPECT_THAT(namesOf("client"), ElementsAre("q1"));
  EXPECT_FALSE(query->isCancelled());
}

TEST_F(Quitting, WithoutQueriesNamesNone) {
  fake.application.willTerminate();
  EXPECT_EQ(fake.posted(kPluginQuitName)[0]["activeNames"], Value(Array{}));
}

TEST_F(Quitting, ReleasesEveryPasteboardThoseLentToAClientToo) {
  const auto query = search("q", "client");
  deliverBatch(query);
  plugin->pasteboardToPool(plugin->pasteboardFromPool());
  fake.application.willTerminate();
  ASSERT_EQ(fake.pasteboards.made().size(), 2U);
  for (const auto& pasteboard : fake.pasteboards.made()) EXPECT_EQ(pasteboard->releaseCount(), 1);
  EXPECT_THAT(plugin->pasteboards(), IsEmpty());
  EXPECT_THAT(plugin->pasteboardPool(), IsEmpty());
}

TEST_F(Quitting, InboxIsClearedBeforePluginQuitIsPosted) {
  fake.clientSends(kConnectName, {{"clientName", "client"}});
  bool cleared = false;
  fake.files.before(FileOperation::kPrepare,
                    [&](const std::string&) { cleared = fake.messagesIn(fake.inbox()).empty(); });
  fake.application.willTerminate();
  EXPECT_TRUE(cleared);
  EXPECT_EQ(fake.posted(kPluginQuitName).size(), 1U);
}

TEST_F(Quitting, PostsThenReleasesThenTrimsTheLog) {
  const std::string name = plugin->pasteboardFromPool()->name();
  fake.files.before(FileOperation::kPrepare, [&](const std::string&) {
    EXPECT_EQ(fake.pasteboards.find(name)->releaseCount(), 0);
  });
  fake.preferences.setChangeCallback([&](const std::string& key) {
    EXPECT_EQ(key, "THMPMailPlugin.log");
    EXPECT_EQ(fake.pasteboards.find(name)->releaseCount(), 1);
  });
  fake.application.willTerminate();
  EXPECT_EQ(fake.pasteboards.find(name)->releaseCount(), 1);
  EXPECT_TRUE(fake.preferences.get("THMPMailPlugin.log").isNull());
}

TEST_F(Quitting, BetaBuildKeepsItsStoredLog) {
  fake.application.setPluginInformation(Dictionary{{"CFBundleShortVersionString", "2.3b4"}});
  fake.application.willTerminate();
  EXPECT_FALSE(fake.preferences.get("THMPMailPlugin.log").asArray()->empty());
}

TEST_F(Quitting, SecondNoticeDoesNothing) {
  fake.application.willTerminate();
  fake.application.willTerminate();
  EXPECT_EQ(fake.posted(kPluginQuitName).size(), 1U);
}

TEST_F(Quitting, BatchFoundAfterwardsIsSkipped) {
  const auto query = search("q", "client");
  fake.application.willTerminate();
  deliverBatch(query);
  EXPECT_THAT(fake.posted(kQueryHasUpdatesName), IsEmpty());
  EXPECT_THAT(fake.pasteboards.made(), IsEmpty());
  EXPECT_EQ(pendingCount("q"), 0U);
}

TEST_F(Quitting, PasteboardReturnedAfterwardsIsReleased) {
  const auto query = search("q", "client");
  const std::string batch = deliverBatch(query);
  fake.application.willTerminate();
  clear("q", "client", batch);
  EXPECT_THAT(plugin->pasteboardPool(), IsEmpty());
  EXPECT_EQ(fake.pasteboards.find(batch)->releaseCount(), 2);
  EXPECT_EQ(pendingCount("q"), 0U);
}

TEST_F(Quitting, NoInstanceIsMadeAfterwards) {
  fake.application.willTerminate();
  takeLog();
  THMPMailPlugin::createInstance(process);
  EXPECT_EQ(process.instance(), plugin);
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(StartUp, QuitBeforeTheInstanceExistsLeavesNothingBehind) {
  THMPMailPlugin::load(process);
  THMPMailPlugin::initialize(process);
  fake.application.willTerminate();
  fake.execution.mainQueue().close();
  fake.runUntilIdle();
  EXPECT_EQ(process.instance(), nullptr);
  EXPECT_FALSE(fake.files.hasFolder(fake.outbox()));
}

TEST_F(Quitting, NoticeDuringTheAlertIsHandledAtOnce) {
  fake.application.duringAlert([this] {
    fake.application.willTerminate();
    EXPECT_EQ(fake.posted(kPluginQuitName).size(), 1U);
  });
  send(kConnectName, {{"checkVersion", true}, {"compatibilityVersion", 2}});
  EXPECT_EQ(fake.application.alerts().size(), 1U);
}

TEST_F(Quitting, AlertThatIsStillPendingIsNeverShown) {
  fake.clientSends(kConnectName, {{"checkVersion", true}, {"compatibilityVersion", 2}});
  fake.execution.queues()[0]->runUntilIdle();
  EXPECT_EQ(fake.execution.mainQueue().pending(), 1U);
  fake.application.willTerminate();
  fake.execution.mainQueue().close();
  fake.runUntilIdle();
  EXPECT_THAT(fake.application.alerts(), IsEmpty());
}

TEST_F(Quitting, NoticeAfterTheInstanceIsGoneReachesNobody) {
  plugin.reset();
  process.exchangeInstance(nullptr);
  fake.application.willTerminate();
  fake.application.endApplication("com.example.other");
  EXPECT_THAT(fake.posted(kPluginQuitName), IsEmpty());
  EXPECT_EQ(fake.application.willTerminateObservers(), 0U);
  EXPECT_EQ(fake.application.applicationTerminatedObservers(), 0U);
}

class Forwards : public PluginScene {
 protected:
  void SetUp() override { start(); }
};

TEST_F(Forwards, LookUpMessagesThroughTheHostsLibrary) {
  fake.mail.addMessage(7, 1, "/mail/7.eml");
  fake.files.writeFile("/mail/7.eml", "");
  EXPECT_NE(plugin->library(), nullptr);
  EXPECT_EQ(plugin->emlxPathForMessageWithLibraryID(7), "/mail/7.eml");
  bool called = false;
  EXPECT_TRUE(plugin->scPerformSynchronousSqliteBlock([&](sqlite3*) { called = true; }));
  EXPECT_TRUE(called);
  FoundItem item;
  item.libraryID = 7;
  std::uint64_t index = 3;
  const auto items = plugin->loadFilePaths({item}, index);
  ASSERT_EQ(items.size(), 1U);
  EXPECT_EQ(items[0].path, "/mail/7.eml");
  EXPECT_EQ(index, 4U);
}

TEST_F(Forwards, BuildQueriesWithTheProcessesAttributeList) {
  EXPECT_NE(plugin->buildQueryWithString("a", true), nullptr);
  EXPECT_EQ(fake.spotlight.query()->attributes(), process.attributeList.build());
  EXPECT_NE(plugin->buildQueryWithString("b", false), nullptr);
  EXPECT_EQ(fake.spotlight.query()->attributes(), nullptr);
}

TEST_F(Forwards, OwnLinesGoToTheSystemLogAlone) {
  takeLog();
  const Value before = fake.preferences.get("THMPMailPlugin.log");
  plugin->logOwnLine("tallyhive: a line");
  EXPECT_THAT(takeLog(), ElementsAre("tallyhive: a line"));
  EXPECT_EQ(fake.preferences.get("THMPMailPlugin.log"), before);
}

}  // namespace
}  // namespace thmp
