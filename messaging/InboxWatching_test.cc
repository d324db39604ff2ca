// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <set>
#include <stdexcept>
#include <thread>

#include "messaging/messaging_test_support.h"

namespace thmp {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr char kReadFailure[] = "THMPMailPlugin. Failed to read message file: ";

class InboxWatching : public MessagingTest {
 protected:
  void SetUp() override { center->addObserver(observer, &RecordingObserver::received, " a"); }

  std::string path(const std::string& name) { return inbox.path() + "/" + name; }
  /// A message to the observer, in a file of that name.
  void placeMessage(const std::string& name, const Value& userInfo = {}) {
    place(path(name), message(" a", userInfo));
  }
  void start() { center->startObserving(inbox); }
  bool hasFile(const std::string& name) { return fake.files.hasEntry(path(name)); }
  std::size_t received() const { return observer->messages.size(); }
  std::shared_ptr<FakeWatch> watch() { return fake.execution.watches().back(); }
  std::set<std::string> known() {
    const auto files = center->knownMessageFiles();
    return files ? std::set<std::string>(files->begin(), files->end()) : std::set<std::string>();
  }

  std::shared_ptr<ReceivingCenter> center = ReceivingCenter::create(centerClass);
  const Url inbox = center->communicationInboxURL();
  std::shared_ptr<RecordingObserver> observer = std::make_shared<RecordingObserver>();
};

// Starting and stopping.

TEST_F(InboxWatching, WaitingFilesAreDispatchedAndDeletedBeforeTheStartReturns) {
  placeMessage("1.plist");
  placeMessage("2.plist");
  start();
  EXPECT_EQ(received(), 2u);
  EXPECT_THAT(fake.files.entries(inbox.path()), IsEmpty());
}

TEST_F(InboxWatching, MissingFolderIsLoggedAndNothingElseHappens) {
  center->startObserving(Url::file("/nowhere"));
  EXPECT_THAT(
      fake.log.lines(),
      ElementsAre("THMPMailPlugin error. Communication directory (/nowhere) does not exist"));
  EXPECT_THAT(fake.execution.watches(), IsEmpty());
  EXPECT_EQ(center->knownMessageFiles(), nullptr);
}

TEST_F(InboxWatching, FileWhereTheFolderShouldBeIsNoFolder) {
  fake.files.writeFile("/file", "x");
  center->startObserving(Url::file("/file"));
  EXPECT_THAT(fake.log.lines(),
              ElementsAre("THMPMailPlugin error. Communication directory (/file) does not exist"));
  EXPECT_THAT(fake.execution.watches(), IsEmpty());
}

TEST_F(InboxWatching, StartingAgainDoesNothingEvenForAnotherFolder) {
  start();
  placeMessage("1.plist");
  fake.files.makeFolder("/other");
  place("/other/2.plist", message(" a"));
  start();
  center->startObserving(Url::file("/other"));
  EXPECT_EQ(received(), 0u);
  EXPECT_EQ(fake.execution.watches().size(), 1u);
  EXPECT_TRUE(fake.files.hasEntry("/other/2.plist"));
  fake.runUntilIdle();
  EXPECT_EQ(received(), 1u);
}

TEST_F(InboxWatching, WatchRunsBeforeTheFirstListing) {
  int resumedBeforeListing = -1;
  fake.files.before(FileOperation::kList,
                    [&](const std::string&) { resumedBeforeListing = watch()->resumedCount(); });
  start();
  EXPECT_EQ(resumedBeforeListing, 1);
}

TEST_F(InboxWatching, FileThatArrivesJustAfterTheFirstListingIsHandled) {
  bool placed = false;
  fake.files.after(FileOperation::kList, [&](const std::string&) {
    if (!placed) placeMessage("late.plist");
    placed = true;
  });
  start();
  EXPECT_EQ(received(), 0u);
  fake.runUntilIdle();
  EXPECT_EQ(received(), 1u);
}

TEST_F(InboxWatching, WatchIsOnTheExchangeQueue) {
  start();
  EXPECT_EQ(watch()->queue(), centerClass.messageCenterQueue());
  EXPECT_EQ(watch()->directory(), inbox.path());
}

TEST_F(InboxWatching, FirstScanRunsOnTheCallersThreadAndLaterOnesOnTheQueue) {
  std::vector<bool> onQueue;
  observer->whenReceived = [&](const Value&) {
    onQueue.push_back(centerClass.messageCenterQueue()->isCurrent());
  };
  placeMessage("1.plist");
  start();
  placeMessage("2.plist");
  fake.runUntilIdle();
  EXPECT_THAT(onQueue, ElementsAre(false, true));
}

TEST_F(InboxWatching, FolderThatCannotBeWatchedIsScannedOnce) {
  fake.execution.makeWatchesSilent(true);
  placeMessage("1.plist");
  start();
  placeMessage("2.plist");
  fake.runUntilIdle();
  EXPECT_EQ(received(), 1u);
  center->stopObservingDirectory();
  EXPECT_EQ(watch()->cancelledCount() > 0, true);
}

TEST_F(InboxWatching, AfterAStopNothingIsHandledAndTheDescriptorIsClosedOnTheQueue) {
  start();
  const auto stopped = watch();
  placeMessage("1.plist");
  center->stopObservingDirectory();
  EXPECT_FALSE(stopped->closed());
  fake.runUntilIdle();
  EXPECT_TRUE(stopped->closed());
  EXPECT_EQ(received(), 0u);
  center->stopObservingDirectory();
}

TEST_F(InboxWatching, FilesLeftInPlaceAreNotDispatchedAgainAfterStopAndStart) {
  placeMessage("declined.plist");
  fake.files.writeFile(path("broken.plist"), "x");
  center->accepts = false;
  start();
  center->stopObservingDirectory();
  center->accepts = true;
  placeMessage("new.plist");
  start();
  EXPECT_EQ(fake.execution.watches().size(), 2u);
  EXPECT_EQ(received(), 1u);
  EXPECT_TRUE(hasFile("declined.plist"));
  EXPECT_FALSE(hasFile("new.plist"));
  EXPECT_EQ(fake.log.count(kReadFailure), 1u);
}

TEST_F(InboxWatching, StopInsideAHandlerLetsTheScanFinish) {
  observer->whenReceived = [this](const Value&) { center->stopObservingDirectory(); };
  start();
  placeMessage("1.plist");
  placeMessage("2.plist");
  fake.runUntilIdle();
  EXPECT_EQ(received(), 2u);
  placeMessage("3.plist");
  fake.runUntilIdle();
  EXPECT_EQ(received(), 2u);
  EXPECT_TRUE(watch()->closed());
}

TEST_F(InboxWatching, StartInsideAHandlerDoesNothing) {
  observer->whenReceived = [this](const Value&) { start(); };
  placeMessage("1.plist");
  start();
  EXPECT_EQ(fake.execution.watches().size(), 1u);
  EXPECT_EQ(received(), 1u);
}

TEST_F(InboxWatching, EveryStartHasItsOwnWatchAndEveryStopClosesIt) {
  for (int i = 0; i < 200; ++i) {
    start();
    center->stopObservingDirectory();
  }
  fake.runUntilIdle();
  const auto watches = fake.execution.watches();
  EXPECT_EQ(watches.size(), 200u);
  for (const auto& stopped : watches) {
    EXPECT_EQ(stopped->resumedCount(), 1);
    EXPECT_TRUE(stopped->closed());
  }
}

TEST_F(InboxWatching, EventAfterTheCentersDestructionDoesNothing) {
  start();
  placeMessage("1.plist");
  const auto orphan = watch();
  center.reset();
  fake.runUntilIdle();
  EXPECT_EQ(received(), 0u);
  EXPECT_TRUE(hasFile("1.plist"));
  EXPECT_TRUE(orphan->closed());
}

TEST_F(InboxWatching, WatchHoldsTheCenterWeakly) {
  start();
  EXPECT_EQ(center.use_count(), 1);
}

TEST_F(InboxWatching, CenterMayDieInAHandlerOfItsOwn) {
  const std::weak_ptr<ReceivingCenter> weak = center;
  observer->whenReceived = [this](const Value&) { center.reset(); };
  start();
  placeMessage("1.plist");
  placeMessage("2.plist");
  const auto dying = watch();
  fake.runUntilIdle();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(received(), 2u);
  EXPECT_FALSE(hasFile("1.plist"));
  EXPECT_TRUE(dying->closed());
}

TEST_F(InboxWatching, CenterMayDieInAHandlerOfItsFirstScan) {
  placeMessage("1.plist");
  observer->whenReceived = [this](const Value&) { center.reset(); };
  ReceivingCenter& dying = *center;
  dying.startObserving(inbox);
  EXPECT_EQ(center, nullptr);
  EXPECT_FALSE(hasFile("1.plist"));
}

// One scan.

TEST_F(InboxWatching, ArrivingFileIsDispatchedWholeAndDeleted) {
  start();
  placeMessage("1.plist", Dictionary{{"k", "v"}});
  fake.runUntilIdle();
  ASSERT_EQ(received(), 1u);
  EXPECT_TRUE(Value::identical(observer->messages[0], message(" a", Dictionary{{"k", "v"}})));
  EXPECT_FALSE(hasFile("1.plist"));
}

TEST_F(InboxWatching, FileIsThereUntilItsHandlerHasReturned) {
  bool there = false;
  observer->whenReceived = [&](const Value&) { there = hasFile("1.plist"); };
  placeMessage("1.plist");
  start();
  EXPECT_TRUE(there);
  EXPECT_FALSE(hasFile("1.plist"));
}

TEST_F(InboxWatching, FilesAreHandledInTheOrderOfTheListing) {
  fake.files.onListing([](const std::string&, std::vector<std::string>& names) {
    names = {"c.plist", "a.plist", "b.plist"};
  });
  for (const char* name : {"a.plist", "b.plist", "c.plist"}) placeMessage(name, name);
  start();
  std::vector<std::string> order;
  for (const Value& each : observer->messages) order.emplace_back(*each["userInfo"].asText());
  EXPECT_THAT(order, ElementsAre("c.plist", "a.plist", "b.plist"));
}

TEST_F(InboxWatching, ExtensionInCapitalsIsHandled) {
  placeMessage("X.PLIST");
  start();
  EXPECT_EQ(received(), 1u);
  EXPECT_FALSE(hasFile("X.PLIST"));
}

TEST_F(InboxWatching, HiddenMessageFileIsHandled) {
  placeMessage(".x.plist");
  start();
  EXPECT_EQ(received(), 1u);
}

TEST_F(InboxWatching, FilesOfOtherExtensionsAreRememberedAndNeverRead) {
  placeMessage("X.plist.tmp");
  placeMessage("X.txt");
  placeMessage(".x.tmp-1");
  start();
  fake.execution.watches().back()->fire();
  fake.runUntilIdle();
  EXPECT_THAT(known(), UnorderedElementsAre(path("X.plist.tmp"), path("X.txt"), path(".x.tmp-1")));
  EXPECT_EQ(fake.files.count(FileOperation::kRead), 0u);
  EXPECT_EQ(fake.files.count(FileOperation::kRemove), 0u);
}

TEST_F(InboxWatching, XmlMessageIsRead) {
  fake.files.writeFile(path("x.plist"),
                       "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                       "<plist version=\"1.0\"><dict><key>name</key><string> a</string></dict>"
                       "</plist>");
  start();
  EXPECT_EQ(received(), 1u);
}

TEST_F(InboxWatching, BrokenFileStaysAndIsNotReadAgain) {
  fake.files.writeFile(path("broken.plist"), "bplist00 nothing of the kind");
  start();
  EXPECT_EQ(fake.log.count(kReadFailure), 1u);
  EXPECT_TRUE(hasFile("broken.plist"));
  placeMessage("good.plist");
  fake.runUntilIdle();
  fake.files.writeFile(path("other.txt"), "x");
  fake.runUntilIdle();
  EXPECT_EQ(received(), 1u);
  EXPECT_EQ(fake.log.count(kReadFailure), 1u);
  EXPECT_TRUE(hasFile("broken.plist"));
}

TEST_F(InboxWatching, ReadFailureNamesTheErrorOfTheRead) {
  placeMessage("1.plist");
  fake.files.failOnce(FileOperation::kRead, EACCES, path("1.plist"));
  start();
  EXPECT_THAT(fake.log.lines(),
              ElementsAre(StartsWith(std::string(kReadFailure) +
                                     "Error Domain=NSPOSIXErrorDomain Code=13 ")));
  EXPECT_TRUE(hasFile("1.plist"));
}

TEST_F(InboxWatching, RootThatIsNoDictionaryIsAReadFailure) {
  const std::vector<Value> roots = {Value("text"),      Value(1),      Value(1.5),
                                    Value(true),        Value(Date{}), Value(Data{}),
                                    Value(Array{" a"}), Value(Array())};
  for (std::size_t i = 0; i < roots.size(); ++i)
    place(path(std::to_string(i) + ".plist"), roots[i]);
  start();
  EXPECT_EQ(fake.log.count(kReadFailure), roots.size());
  EXPECT_EQ(filesIn(inbox.path()), roots.size());
  EXPECT_EQ(center->offered, 0u);
}

TEST_F(InboxWatching, KeysOfEveryOtherTypeAreToleratedAndTheFileIsDeleted) {
  const std::vector<Value> values = {
      Value("text"), Value(1),         Value(1.5),      Value(true),
      Value(Date{}), Value(Data{"x"}), Value(Array{1}), Value(Dictionary{{"k", 1}}),
      Value("")};
  for (std::size_t i = 0; i < values.size(); ++i) {
    place(path("name" + std::to_string(i) + ".plist"), Dictionary{{"name", values[i]}});
    placeMessage("userInfo" + std::to_string(i) + ".plist", values[i]);
  }
  place(path("empty.plist"), Dictionary());
  start();
  EXPECT_EQ(filesIn(inbox.path()), 0u);
  ASSERT_EQ(received(), values.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_TRUE(Value::identical(observer->messages[i]["userInfo"], values[i])) << i;
  }
  EXPECT_THAT(fake.log.lines(), IsEmpty());
}

TEST_F(InboxWatching, FileThatIsTooLargeIsAReadFailure) {
  fake.files.writeFile(path("huge.plist"), std::string(kMessageLimits.maxBytes + 1, 'x'));
  start();
  EXPECT_EQ(fake.log.count(kReadFailure), 1u);
  EXPECT_TRUE(hasFile("huge.plist"));
}

TEST_F(InboxWatching, FolderAndPipeWithAMessagesNameAreReadFailuresAndStay) {
  fake.files.makeFolder(path("folder.plist"));
  fake.files.makeSpecial(path("pipe.plist"));
  start();
  EXPECT_EQ(fake.log.count(kReadFailure), 2u);
  EXPECT_TRUE(hasFile("folder.plist"));
  EXPECT_TRUE(hasFile("pipe.plist"));
}

TEST_F(InboxWatching, LinkIsReadThroughAndDeletedItself) {
  place("/elsewhere/message", message(" a"));
  fake.files.makeLink(path("link.plist"), "/elsewhere/message");
  start();
  EXPECT_EQ(received(), 1u);
  EXPECT_FALSE(hasFile("link.plist"));
  EXPECT_TRUE(fake.files.hasEntry("/elsewhere/message"));
}

TEST_F(InboxWatching, FileInASubfolderIsNeverRead) {
  place(path("sub/1.plist"), message(" a"));
  start();
  fake.files.writeFile(path("sub/2.plist"), "x");
  watch()->fire();
  fake.runUntilIdle();
  EXPECT_EQ(fake.files.count(FileOperation::kRead), 0u);
  EXPECT_THAT(known(), UnorderedElementsAre(path("sub")));
}

TEST_F(InboxWatching, DeclinedFileStaysAndIsNotOfferedAgain) {
  center->accepts = false;
  placeMessage("1.plist");
  start();
  placeMessage("2.plist");
  fake.runUntilIdle();
  center->accepts = true;
  watch()->fire();
  fake.runUntilIdle();
  EXPECT_EQ(center->offered, 2u);
  EXPECT_EQ(received(), 0u);
  EXPECT_EQ(filesIn(inbox.path()), 2u);
}

TEST_F(InboxWatching, DeclinedFileThatVanishesAndReappearsIsOfferedAgain) {
  center->accepts = false;
  placeMessage("1.plist");
  start();
  fake.files.erase(path("1.plist"));
  fake.runUntilIdle();
  placeMessage("1.plist");
  fake.runUntilIdle();
  EXPECT_EQ(center->offered, 2u);
}

TEST_F(InboxWatching, FileNobodyRegisteredForIsDeleted) {
  place(path("1.plist"), message(" unknown"));
  start();
  EXPECT_FALSE(hasFile("1.plist"));
  EXPECT_THAT(fake.log.lines(), IsEmpty());
}

TEST_F(InboxWatching, CenterThatDoesNotAdoptTheProtocolReadsButDispatchesAndDeletesNothing) {
  const auto base = THMPCommunicationCenter::create(centerClass);
  base->addObserver(observer, &RecordingObserver::received, " a");
  placeMessage("1.plist");
  fake.files.writeFile(path("broken.plist"), "x");
  base->startObserving(inbox);
  watch()->fire();
  fake.runUntilIdle();
  EXPECT_EQ(fake.files.count(FileOperation::kRead), 2u);
  EXPECT_EQ(fake.log.count(kReadFailure), 1u);
  EXPECT_EQ(received(), 0u);
  EXPECT_EQ(filesIn(inbox.path()), 2u);
}

TEST_F(InboxWatching, HandlerThatThrowsCountsAsHavingRun) {
  observer->whenReceived = [](const Value&) { throw std::runtime_error("x"); };
  placeMessage("1.plist");
  placeMessage("2.plist");
  start();
  EXPECT_EQ(received(), 2u);
  EXPECT_EQ(filesIn(inbox.path()), 0u);
}

TEST_F(InboxWatching, FileThatCannotBeDeletedIsNotDispatchedAgainWhileItStays) {
  fake.files.failFromNowOn(FileOperation::kRemove, EACCES);
  placeMessage("1.plist");
  start();
  watch()->fire();
  fake.runUntilIdle();
  EXPECT_EQ(received(), 1u);
  EXPECT_TRUE(hasFile("1.plist"));
  EXPECT_THAT(fake.log.lines(), IsEmpty());
}

TEST_F(InboxWatching, FailedListingEmptiesTheKnownSet) {
  center->accepts = false;
  placeMessage("1.plist");
  start();
  fake.files.failOnce(FileOperation::kList, EIO);
  watch()->fire();
  fake.runUntilIdle();
  ASSERT_NE(center->knownMessageFiles(), nullptr);
  EXPECT_THAT(known(), IsEmpty());
  watch()->fire();
  fake.runUntilIdle();
  EXPECT_EQ(center->offered, 2u);
}

TEST_F(InboxWatching, InboxThatIsReplacedIsWatchedOn) {
  start();
  fake.files.rename(inbox.path(), "/moved");
  fake.files.makeFolder(inbox.path());
  placeMessage("1.plist");
  fake.runUntilIdle();
  EXPECT_EQ(received(), 1u);
  placeMessage("2.plist");
  fake.runUntilIdle();
  EXPECT_EQ(received(), 2u);
}

TEST_F(InboxWatching, NameThatAListingRepeatsIsHandledOnce) {
  fake.files.failFromNowOn(FileOperation::kRemove, EACCES);
  fake.files.onListing([](const std::string&, std::vector<std::string>& names) {
    const std::vector<std::string> again = names;
    names.insert(names.end(), again.begin(), again.end());
  });
  placeMessage("1.plist");
  fake.files.writeFile(path("broken.plist"), "x");
  start();
  EXPECT_EQ(received(), 1u);
  EXPECT_EQ(fake.log.count(kReadFailure), 1u);
}

TEST_F(InboxWatching, FileThatAListingMissesIsHandledOnTheNextEvent) {
  bool missed = false;
  fake.files.onListing([&](const std::string&, std::vector<std::string>& names) {
    if (!missed) names.clear();
    missed = true;
  });
  placeMessage("1.plist");
  start();
  EXPECT_EQ(received(), 0u);
  watch()->fire();
  fake.runUntilIdle();
  EXPECT_EQ(received(), 1u);
}

TEST_F(InboxWatching, FileThatVanishesBetweenListingAndReadReachesNobody) {
  fake.files.before(FileOperation::kRead, [this](const std::string& read) {
    if (read == path("1.plist")) fake.files.erase(read);
  });
  placeMessage("1.plist");
  placeMessage("2.plist");
  start();
  EXPECT_EQ(received(), 1u);
}

TEST_F(InboxWatching, ManyFilesLeftInPlaceCostAListingAndNoRead) {
  constexpr std::size_t kCount = 5000;
  center->accepts = false;
  for (std::size_t i = 0; i < kCount; ++i) placeMessage(std::to_string(i) + ".plist");
  start();
  EXPECT_EQ(fake.files.count(FileOperation::kRead), kCount);
  fake.files.clearRecord();
  watch()->fire();
  fake.runUntilIdle();
  EXPECT_EQ(fake.files.count(FileOperation::kList), 1u);
  EXPECT_EQ(fake.files.count(FileOperation::kRead), 0u);
}

TEST_F(InboxWatching, FirstBrokenFileDoesNotKeepTheOthersFromBeingRead) {
  fake.files.writeFile(path("0.plist"), "x");
  for (int i = 1; i <= 100; ++i) placeMessage(std::to_string(i) + ".plist");
  start();
  EXPECT_EQ(received(), 100u);
  EXPECT_THAT(fake.files.entries(inbox.path()), ElementsAre("0.plist"));
  EXPECT_EQ(fake.log.lines().size(), 1u);
}

TEST_F(InboxWatching, MessagePostedByOneCenterReachesAnother) {
  start();
  center->postMessageName(" a", Dictionary{{"k", 1}}, inbox, "abc", nullptr);
  fake.runUntilIdle();
  ASSERT_EQ(received(), 1u);
  EXPECT_EQ(observer->messages[0]["userInfo"]["k"], Value(1));
}

// Scans that overlap.

class OverlappingScans : public InboxWatching {
 protected:
  /// Runs what waits on the queue when the first message is received.
  void runQueueInFirstHandler() {
    observer->whenReceived = [this](const Value&) {
      if (received() == 1) fake.runUntilIdle();
    };
  }
};

TEST_F(OverlappingScans, EachFileIsDispatchedOnceAndTheScansDoOverlap) {
  for (int i = 0; i < 10; ++i) placeMessage("waiting" + std::to_string(i) + ".plist");
  std::size_t receivedInside = 0;
  observer->whenReceived = [&](const Value&) {
    if (received() != 1) return;
    placeMessage("arriving.plist");
    fake.runUntilIdle();
    receivedInside = received();
  };
  start();
  fake.runUntilIdle();
  EXPECT_EQ(receivedInside, 11u);
  EXPECT_EQ(received(), 11u);
  EXPECT_EQ(filesIn(inbox.path()), 0u);
}

TEST_F(OverlappingScans, FileTakenBetweenListingAndReadIsLeftToWhoTookIt) {
  placeMessage("1.plist");
  bool nested = false;
  fake.files.before(FileOperation::kRead, [&](const std::string&) {
    if (nested) return;
    nested = true;
    center->directoryChanged(inbox);
    EXPECT_EQ(received(), 0u);
  });
  start();
  EXPECT_EQ(received(), 1u);
  EXPECT_THAT(fake.log.lines(), IsEmpty());
}

TEST_F(OverlappingScans, FileDeletedSinceTheListingIsNoReadFailure) {
  placeMessage("1.plist");
  bool nested = false;
  fake.files.after(FileOperation::kList, [&](const std::string&) {
    if (nested) return;
    nested = true;
    center->directoryChanged(inbox);
    EXPECT_EQ(received(), 1u);
  });
  start();
  EXPECT_EQ(received(), 1u);
  EXPECT_THAT(fake.log.lines(), IsEmpty());
}

TEST_F(OverlappingScans, BrokenFileSeenByTheOtherScanStaysKnownWhoeverWritesLast) {
  placeMessage("1.plist");
  observer->whenReceived = [this](const Value&) {
    if (received() != 1) return;
    fake.files.writeFile(path("broken.plist"), "x");
    fake.runUntilIdle();
  };
  start();
  EXPECT_EQ(fake.log.count(kReadFailure), 1u);
  placeMessage("2.plist");
  fake.runUntilIdle();
  EXPECT_EQ(received(), 2u);
  EXPECT_EQ(fake.log.count(kReadFailure), 1u);
}

TEST_F(OverlappingScans, FileThatCannotBeDeletedIsDispatchedOnce) {
  fake.files.failFromNowOn(FileOperation::kRemove, EACCES);
  for (const char* name : {"1.plist", "2.plist", "3.plist"}) placeMessage(name);
  observer->whenReceived = [this](const Value&) {
    if (received() != 1) return;
    placeMessage("4.plist");
    fake.runUntilIdle();
  };
  start();
  watch()->fire();
  fake.runUntilIdle();
  EXPECT_EQ(received(), 4u);
}

TEST_F(OverlappingScans, ClaimsAreDroppedWhenNoScanIsInFlight) {
  for (const char* name : {"1.plist", "2.plist"}) placeMessage(name);
  std::size_t inside = 0;
  observer->whenReceived = [&](const Value&) { inside = centerClass.messageClaims().count(); };
  start();
  EXPECT_EQ(inside, 2u);
  EXPECT_EQ(centerClass.messageClaims().count(), 0u);
}

TEST_F(OverlappingScans, TwoCentersOnOneInboxHandleEachFileOnce) {
  const auto other = ReceivingCenter::create(centerClass);
  other->addObserver(observer, &RecordingObserver::received, " a");
  start();
  other->startObserving(inbox);
  for (int i = 0; i < 20; ++i) placeMessage(std::to_string(i) + ".plist");
  fake.runUntilIdle();
  EXPECT_EQ(received(), 20u);
  EXPECT_EQ(filesIn(inbox.path()), 0u);
}

TEST_F(OverlappingScans, SecondCentersFirstScanTakesNothingThatTheFirstCenterHasInHand) {
  const auto other = ReceivingCenter::create(centerClass);
  other->addObserver(observer, &RecordingObserver::received, " a");
  start();
  observer->whenReceived = [&](const Value&) {
    if (received() == 1) other->startObserving(inbox);
  };
  placeMessage("1.plist");
  placeMessage("2.plist");
  fake.runUntilIdle();
  EXPECT_EQ(received(), 2u);
}

/// Counts by the number in the payload. Any thread.
class CountingObserver {
 public:
  void received(const Value& message) {
    const Lock lock(mutex_);
    ++counts_[message["userInfo"].integerValue()];
  }
  std::map<std::int64_t, int> counts() const {
    const Lock lock(mutex_);
    return counts_;
  }

 private:
  mutable Mutex mutex_;
  std::map<std::int64_t, int> counts_ THMP_GUARDED_BY(mutex_);
};

TEST_F(OverlappingScans, ThreadsHandleEachFileOnce) {
  constexpr int kStarts = 20;
  constexpr int kWaiting = 30;
  constexpr int kArriving = 10;
  const auto counting = std::make_shared<CountingObserver>();
  center->addObserver(counting, &CountingObserver::received, " n");
  const auto queue = centerClass.messageCenterQueue();
  int number = 0;
  const auto placeNumber = [&](int n) {
    place(path(std::to_string(n) + ".plist"), message(" n", n));
  };
  for (int i = 0; i < kStarts; ++i) {
    fake.files.writeFile(path("broken" + std::to_string(i) + ".plist"), "x");
    for (int j = 0; j < kWaiting; ++j) placeNumber(number++);
    std::atomic<bool> stop = false;
    std::jthread exchange([&] {
      while (!stop) fake.execution.queue(kQueueLabel)->runUntilIdle();
    });
    std::jthread client([&, first = number] {
      for (int j = 0; j < kArriving; ++j) placeNumber(first + j);
    });
    number += kArriving;
    start();
    client.join();
    stop = true;
    exchange.join();
    fake.runUntilIdle();
    center->stopObservingDirectory();
  }
  const auto counts = counting->counts();
  EXPECT_EQ(counts.size(), static_cast<std::size_t>(number));
  for (const auto& [n, count] : counts) EXPECT_EQ(count, 1) << n;
  EXPECT_EQ(fake.log.count(kReadFailure), static_cast<std::size_t>(kStarts));
  EXPECT_EQ(filesIn(inbox.path()), static_cast<std::size_t>(kStarts));
}

TEST_F(OverlappingScans, HandlerOfTheFirstScanMayWaitForTheQueue) {
  const auto counting = std::make_shared<CountingObserver>();
  center->addObserver(counting, &CountingObserver::received, " n");
  centerClass.messageCenterQueue();
  std::atomic<bool> stop = false;
  std::jthread exchange([&] {
    while (!stop) fake.execution.queue(kQueueLabel)->runUntilIdle();
  });
  placeMessage("1.plist");
  observer->whenReceived = [&](const Value&) {
    place(path("2.plist"), message(" n", 2));
    while (counting->counts().empty()) std::this_thread::yield();
  };
  start();
  stop = true;
  EXPECT_EQ(counting->counts().at(2), 1);
}

TEST_F(OverlappingScans, StartsAndStopsOnSeveralThreadsLeaveNoWatchOpen) {
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([this] {
        for (int j = 0; j < 50; ++j) {
          start();
          center->stopObservingDirectory();
        }
      });
    }
  }
  center->stopObservingDirectory();
  fake.runUntilIdle();
  for (const auto& each : fake.execution.watches()) EXPECT_TRUE(each->closed());
}

}  // namespace
}  // namespace thmp
