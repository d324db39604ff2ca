// SPDX-License-Identifier: Apache-2.0
//
// What tests rest on in the fakes, beside what the contract suites show of every implementation.
#include "platform/fake/FakePlatform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cerrno>

namespace thmp {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

std::optional<std::string> read(Files& files, const std::string& path, Error* error = nullptr) {
  return files.readFile(path, 100, error);
}

TEST(InMemoryFileSystem, FaultsHitOnceAtTheNthCallOrFromNowOn) {
  InMemoryFileSystem files;
  files.writeFile("/a", "a");
  files.failAt(FileOperation::kRead, 2, EIO);
  EXPECT_EQ(read(files, "/a"), "a");
  Error error;
  EXPECT_EQ(read(files, "/a", &error), std::nullopt);
  EXPECT_EQ(error.code, EIO);
  EXPECT_EQ(read(files, "/a"), "a");

  files.failFromNowOn(FileOperation::kRead, ENOMEM);
  EXPECT_EQ(read(files, "/a"), std::nullopt);
  EXPECT_EQ(read(files, "/a"), std::nullopt);
  files.stopFailing();
  EXPECT_EQ(read(files, "/a"), "a");
}

TEST(InMemoryFileSystem, FaultOfAPathHitsThatPathOnly) {
  InMemoryFileSystem files;
  files.writeFile("/a", "a");
  files.writeFile("/b", "b");
  files.failOnce(FileOperation::kRead, EIO, "/b");

  EXPECT_EQ(read(files, "/a"), "a");
  EXPECT_EQ(read(files, "/b"), std::nullopt);
  EXPECT_EQ(read(files, "/b"), "b");
}

TEST(InMemoryFileSystem, FaultyPublishLeavesNothing) {
  InMemoryFileSystem files;
  files.makeFolder("/out");
  files.failOnce(FileOperation::kPublish, ENOSPC, "/out/m.plist");
  auto file = files.prepareFile("/out", "m.plist", "x");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(files.temporaryCount(), 1U);

  EXPECT_FALSE(file->publish());
  file.reset();
  EXPECT_EQ(files.temporaryCount(), 0U);
  EXPECT_THAT(files.entries("/out"), IsEmpty());
}

TEST(InMemoryFileSystem, HookLetsAFileVanishBetweenListingAndReading) {
  InMemoryFileSystem files;
  files.writeFile("/in/a", "a");
  files.before(FileOperation::kRead, [&](const std::string& path) { files.erase(path); });

  EXPECT_THAT(files.list("/in").value_or(std::vector<std::string>()), ElementsAre("a"));
  EXPECT_EQ(read(files, "/in/a"), std::nullopt);
}

TEST(InMemoryFileSystem, ListingIsInTheOrderOfArrivalUnlessATestWantsAnother) {
  InMemoryFileSystem files;
  files.writeFile("/in/b", "");
  files.writeFile("/in/a", "");
  EXPECT_THAT(*files.list("/in"), ElementsAre("b", "a"));

  files.onListing([](const std::string&, std::vector<std::string>& names) {
    names = {names.back(), names.back()};
  });
  EXPECT_THAT(*files.list("/in"), ElementsAre("a", "a"));
}

TEST(InMemoryFileSystem, AccessesOfTheCoreAreRecordedAndTheScenesAreNot) {
  InMemoryFileSystem files;
  files.writeFile("/in/a", "a");
  EXPECT_TRUE(files.hasEntry("/in/a"));
  EXPECT_THAT(files.accesses(), IsEmpty());

  read(files, "/in/a");
  read(files, "/in/none");
  EXPECT_TRUE(files.removeEntry("/in", "a"));
  EXPECT_THAT(files.paths(FileOperation::kRead), ElementsAre("/in/a"));
  EXPECT_EQ(files.count(FileOperation::kRead), 2U);
  EXPECT_THAT(files.paths(FileOperation::kRemove), ElementsAre("/in/a"));
}

TEST(InMemoryFileSystem, LinksMayBeRelativeLeadUpwardsAndEndInACircle) {
  InMemoryFileSystem files;
  files.writeFile("/a/file", "x");
  files.makeLink("/b/up", "../a");
  files.makeLink("/b/circle", "circle");

  EXPECT_EQ(read(files, "/b/up/./file"), "x");
  EXPECT_EQ(files.canonicalPath("/b/up/file"), "/a/file");
  Error error;
  EXPECT_EQ(read(files, "/b/circle", &error), std::nullopt);
  EXPECT_EQ(error.code, ELOOP);
}

TEST(InMemoryFileSystem, UnreadableFoldersAndFilesRefuse) {
  InMemoryFileSystem files;
  files.writeFile("/in/a", "x");
  files.setReadable("/in/a", false);
  files.setReadable("/in", false);

  Error error;
  EXPECT_EQ(files.list("/in", &error), std::nullopt);
  ASSERT_TRUE(error.underlying);
  EXPECT_EQ(error.underlying->code, EACCES);
  EXPECT_EQ(read(files, "/in/a"), std::nullopt);
}

TEST(ManualQueue, ClosureDoesNotRunAnotherOne) {
  ManualQueue queue("q");
  bool inner = true;
  queue.post([&] { inner = queue.runOne(); });
  queue.post([] {});

  EXPECT_TRUE(queue.runOne());
  EXPECT_FALSE(inner);
  EXPECT_EQ(queue.pending(), 1U);
}

TEST(ManualQueue, ClosuresThatThrowAreCounted) {
  ManualQueue queue("q");
  queue.post([] { throw 1; });

  EXPECT_EQ(queue.runUntilIdle(), 1U);
  EXPECT_EQ(queue.thrownCount(), 1U);
}

TEST(ManualMainQueue, NestedLoopRunsWhatIsPosted) {
  ManualMainQueue queue;
  std::vector<int> order;
  queue.post([&] {
    queue.runUntilIdle();
    order.push_back(1);
  });
  queue.post([&] { order.push_back(2); });
  queue.runUntilIdle();

  EXPECT_THAT(order, ElementsAre(2, 1));
}

TEST(ManualMainQueue, TimeComesOnlyByAdvance) {
  ManualMainQueue queue;
  std::vector<int> order;
  queue.postAfter(milliseconds(10), [&] {
    order.push_back(10);
    queue.postAfter(milliseconds(5), [&] { order.push_back(15); });
  });
  queue.postAfter(milliseconds(20), [&] { order.push_back(20); });

  EXPECT_EQ(queue.runUntilIdle(), 0U);
  queue.advance(milliseconds(9));
  EXPECT_THAT(order, IsEmpty());
  queue.advance(milliseconds(11));
  EXPECT_THAT(order, ElementsAre(10, 15, 20));
}

class FakeWatches : public testing::Test {
 protected:
  FakeWatches() { fake_.files.makeFolder("/in"); }

  std::unique_ptr<DirectoryWatch> resumedWatch() {
    auto watch = fake_.execution.makeDirectoryWatch("/in", queue_, [this] { ++calls_; });
    watch->resume();
    return watch;
  }

  FakePlatform fake_;
  const std::shared_ptr<SerialQueue> queue_ = fake_.execution.makeSerialQueue("q");
  int calls_ = 0;
};

TEST_F(FakeWatches, ChangesBeforeTheCallAreMergedIntoIt) {
  const auto watch = resumedWatch();
  fake_.files.writeFile("/in/a", "");
  fake_.files.writeFile("/in/b", "");
  fake_.runUntilIdle();
  EXPECT_EQ(calls_, 1);

  fake_.files.writeFile("/in/c", "");
  fake_.runUntilIdle();
  EXPECT_EQ(calls_, 2);
}

TEST_F(FakeWatches, WatchIsCountedAndClosedOnItsQueue) {
  auto watch = resumedWatch();
  const auto seen = fake_.execution.watches().front();
  watch->cancel();
  watch.reset();
  EXPECT_EQ(seen->resumedCount(), 1);
  EXPECT_EQ(seen->cancelledCount(), 2);
  EXPECT_FALSE(seen->closed());

  fake_.runUntilIdle();
  EXPECT_TRUE(seen->closed());
}

TEST_F(FakeWatches, SilentWatchIsNotCalledEvenByFire) {
  fake_.execution.makeWatchesSilent(true);
  const auto watch = resumedWatch();
  fake_.files.writeFile("/in/a", "");
  fake_.execution.watches().front()->fire();
  fake_.runUntilIdle();

  EXPECT_EQ(calls_, 0);
}

TEST_F(FakeWatches, FireCallsWithoutAChange) {
  const auto watch = resumedWatch();
  fake_.execution.watches().front()->fire();
  fake_.runUntilIdle();

  EXPECT_EQ(calls_, 1);
}

TEST(FakeExecution, QueuesAreKnownByTheirLabels) {
  FakePlatform fake;
  const auto queue = fake.execution.makeSerialQueue("label");

  EXPECT_EQ(fake.execution.queue("label"), queue);
  EXPECT_EQ(fake.execution.queue("other"), nullptr);
}

TEST(FakePreferences, CallbackMayUseTheDefaultsItself) {
  FakePreferences preferences;
  Value seen;
  preferences.setChangeCallback([&](const std::string& key) { seen = preferences.get(key); });
  preferences.set("key", 5);

  EXPECT_EQ(seen, Value(5));
  ASSERT_EQ(preferences.sets().size(), 1U);
  EXPECT_EQ(preferences.sets()[0].first, "key");
}

TEST(FakeApplication, ChooserTakesTheNextScriptAndThenIsCancelled) {
  FakeApplication application;
  bool enabled = false;
  application.answerChooser([&](const FolderChooserRequest& request) {
    enabled = request.shouldEnable(Url::file("/data"));
    return FolderChooserAnswer{ModalResponse::kOk, Url::file("/data")};
  });
  FolderChooserRequest request;
  request.title = "Title";
  request.shouldEnable = [](const Url& entry) { return entry.path() == "/data"; };

  EXPECT_EQ(application.chooseFolder(request).folder, Url::file("/data"));
  EXPECT_TRUE(enabled);
  EXPECT_EQ(application.chooseFolder(request).response, ModalResponse::kCancel);
  EXPECT_EQ(application.chooserRequests().size(), 2U);
  EXPECT_EQ(application.chooserRequests()[0].title, "Title");
}

TEST(FakeApplication, AlertStaysOpenWhileItsHookPlaysTheNestedLoop) {
  FakeApplication application;
  const auto observer = std::make_shared<int>(0);
  bool told = false;
  application.observeWillTerminate(observer, [&] { told = true; });
  application.duringAlert([&] { application.willTerminate(); });
  application.runAlert({"message", "more", "OK"});

  EXPECT_TRUE(told);
  EXPECT_EQ(application.alerts().size(), 1U);
}

TEST(RecordingPasteboards, FaultsHitCreationAndTheNthSet) {
  RecordingPasteboards pasteboards;
  pasteboards.failSetAt(2);
  const auto pasteboard = pasteboards.makeUnique();
  pasteboard->declareType("t");
  EXPECT_TRUE(pasteboard->setPropertyList(1, "t"));
  Error error;
  EXPECT_FALSE(pasteboard->setPropertyList(2, "t", &error));
  EXPECT_EQ(error.code, ENOSPC);
  EXPECT_TRUE(pasteboard->setPropertyList(3, "t"));
  EXPECT_THAT(pasteboards.find("pb-1")->record(),
              ElementsAre("declare t", "set t", "set t failed", "set t"));

  pasteboards.failCreation(true);
  EXPECT_EQ(pasteboards.makeUnique(), nullptr);
}

class ScriptedQueries : public testing::Test {
 protected:
  std::shared_ptr<SpotlightQuery> make() {
    auto query = spotlight_.makeQuery("text", nullptr);
    query->setFoundItemsHandler(counting<SpotlightQuery::FoundItemsHandler>());
    query->setCompletionHandler(counting<SpotlightQuery::CompletionHandler>());
    return query;
  }

  template <typename Handler>
  std::shared_ptr<const Handler> counting() {
    return std::make_shared<const Handler>([this](auto&&...) { ++calls_; });
  }

  ScriptedSpotlight spotlight_;
  int calls_ = 0;
};

TEST_F(ScriptedQueries, NothingIsDeliveredBeforeStartOrAfterCancel) {
  const auto query = make();
  const auto script = spotlight_.query();
  EXPECT_FALSE(script->deliver({mailItem(1)}));
  query->start();
  EXPECT_TRUE(script->deliver({mailItem(1), mailItem(2)}));
  EXPECT_EQ(query->foundItemCount(), 2U);
  query->cancel();
  EXPECT_FALSE(script->deliver({mailItem(3)}));
  EXPECT_FALSE(script->complete());
  EXPECT_TRUE(script->complete(Error::posix(ECANCELED, "query")));
  EXPECT_EQ(calls_, 2);
}

TEST_F(ScriptedQueries, HandlerSetToNullIsNotCalledAgain) {
  const auto query = make();
  query->start();
  query->setFoundItemsHandler(nullptr);

  EXPECT_FALSE(spotlight_.query()->deliver({mailItem(1)}));
  EXPECT_THAT(spotlight_.query()->calls(),
              ElementsAre("setFoundItemsHandler:", "setCompletionHandler:", "start",
                          "setFoundItemsHandler: null"));
}

TEST_F(ScriptedQueries, QueryMayBeDroppedFromInsideItsCallback) {
  auto query = make();
  query->setFoundItemsHandler(std::make_shared<const SpotlightQuery::FoundItemsHandler>(
      [&](std::span<const SpotlightItem>) { query.reset(); }));
  query->start();
  const auto script = spotlight_.query();

  EXPECT_TRUE(script->deliver({mailItem(1)}));
  EXPECT_TRUE(script->handleDropped());
  EXPECT_TRUE(script->isCancelled());
}

TEST_F(ScriptedQueries, HandlersGoWithTheHandle) {
  auto query = make();
  query->start();
  query.reset();

  EXPECT_EQ(spotlight_.query()->foundItemsHandler(), nullptr);
  EXPECT_FALSE(spotlight_.query()->complete(Error::posix(ECANCELED, "query")));
  EXPECT_EQ(calls_, 0);
}

TEST_F(ScriptedQueries, CapabilitiesTakenAwayAreEmptyFunctions) {
  spotlight_.setCapabilities({.removedItemsHandler = false,
                              .gatherEndedHandler = false,
                              .queryContext = true,
                              .live = false,
                              .itemAttributes = false});
  const auto query = make();

  EXPECT_FALSE(query->setRemovedItemsHandler);
  EXPECT_FALSE(query->setGatherEndedHandler);
  ASSERT_TRUE(query->queryContext);
  EXPECT_FALSE(query->queryContext()->setLive);
  EXPECT_FALSE(spotlight_.itemsHaveAttributes());
}

TEST_F(ScriptedQueries, LiveIsWhatTheContextWasTold) {
  const auto query = make();
  EXPECT_EQ(spotlight_.query()->live(), std::nullopt);
  query->queryContext()->setLive(true);

  EXPECT_EQ(spotlight_.query()->live(), true);
}

TEST(ScriptedMail, ReadBlockLendsADatabaseWithTheRows) {
  ScriptedMail mail;
  mail.addMessage(7, 3, "/mail/7.eml");
  const auto library = mail.libraryClass("MFLibrary")->defaultLibrary();
  std::int64_t mailbox = 0;
  library->libraryDatabase()->performReadBlock([&](LibraryConnection& connection) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(connection.sqlDB(), "SELECT mailbox FROM messages WHERE rowid = 7", -1,
                       &statement, nullptr);
    EXPECT_EQ(mail.database().openStatements(), 1);
    if (sqlite3_step(statement) == SQLITE_ROW) mailbox = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    return true;
  });

  EXPECT_EQ(mailbox, 3);
  EXPECT_EQ(mail.database().openStatements(), 0);
  EXPECT_EQ(mail.database().readBlocks(), 1);
  EXPECT_EQ(mail.database().lastBlockResult(), true);
  EXPECT_THAT(mail.database().statements(),
              ElementsAre("SELECT mailbox FROM messages WHERE rowid = 7"));
  EXPECT_EQ(library->dataPathForMessage(7, 3, 0), "/mail/7.eml");
  EXPECT_EQ(library->dataPathForMessage(7, 3, 1), "");
}

TEST(ScriptedMail, PartsCanBeMissing) {
  ScriptedMail mail;
  mail.database().lendNullHandle(true);
  mail.library().libraryDatabase()->performReadBlock([](LibraryConnection& connection) {
    EXPECT_EQ(connection.sqlDB(), nullptr);
    return true;
  });
  mail.library().setDatabase(nullptr);
  EXPECT_EQ(mail.library().libraryDatabase(), nullptr);
  mail.setHasLibrary(false);
  EXPECT_EQ(mail.libraryClass("MFLibrary")->defaultLibrary(), nullptr);
  mail.setHasLibraryClass(false);
  EXPECT_EQ(mail.libraryClass("MFLibrary"), nullptr);
  mail.setHasBundleClass(false);
  EXPECT_EQ(mail.bundleClass("MVMailBundle"), nullptr);
}

TEST(FakePlatform, ClientsMessagesComeWholeAndInOrder) {
  FakePlatform fake;
  fake.clientSends("first", {{"key", 1}});
  fake.clientSends("second");
  fake.files.writeFile(fake.inbox() + "/broken.plist", "no property list");
  fake.files.writeFile(fake.inbox() + "/other.txt", "x");

  const auto messages = fake.messagesIn(fake.inbox());
  ASSERT_EQ(messages.size(), 3U);
  EXPECT_EQ(messages[0]["userInfo"]["key"], Value(1));
  EXPECT_EQ(messages[1]["name"], Value("second"));
  EXPECT_FALSE(messages[1].contains("userInfo"));
  EXPECT_TRUE(messages[2].empty());
}

TEST(FakePlatform, PlatformIsTheMembers) {
  FakePlatform fake;
  const Platform platform = fake.platform();

  EXPECT_EQ(platform.interfaceVersion, kPlatformInterfaceVersion);
  EXPECT_EQ(&platform.files, &fake.files);
  EXPECT_EQ(&platform.log, &fake.log);
}

}  // namespace
}  // namespace thmp
