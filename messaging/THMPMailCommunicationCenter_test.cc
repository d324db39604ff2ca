// SPDX-License-Identifier: Apache-2.0
#include "messaging/THMPMailCommunicationCenter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <thread>

#include "messaging/messaging_test_support.h"

namespace thmp {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char kBookmarkKey[] = "com.quorvane.tallyhive.mailplugin.dataURL";

class MailCenter : public MessagingTest {
 protected:
  void create() { center = THMPMailCommunicationCenter::create(centerClass, access); }
  bool watching() { return center && !fake.execution.watches().empty(); }

  DataDirectoryAccess access;
  std::shared_ptr<THMPMailCommunicationCenter> center;
};

TEST_F(MailCenter, WritableHostClearsOutWatchesInAndAsksNobody) {
  fake.files.writeFile(fake.outbox() + "/old.plist", "x");
  create();
  EXPECT_EQ(filesIn(fake.outbox()), 0u);
  ASSERT_TRUE(watching());
  EXPECT_EQ(fake.execution.watches()[0]->directory(), fake.inbox());
  EXPECT_EQ(fake.application.willTerminateObservers(), 1u);
  EXPECT_EQ(fake.application.didBecomeActiveObservers(), 0u);
  EXPECT_EQ(fake.execution.mainQueue().pending(), 0u);
  EXPECT_THAT(fake.application.chooserRequests(), IsEmpty());
  EXPECT_THAT(fake.preferences.sets(), IsEmpty());
  EXPECT_THAT(fake.log.lines(), IsEmpty());
}

TEST_F(MailCenter, MessagesThatWaitAtTheStartReachNobodyAndAreDeleted) {
  fake.clientSends(" a");
  create();
  EXPECT_EQ(filesIn(fake.inbox()), 0u);
}

TEST_F(MailCenter, TemporaryFilesOfAnEarlierRunAreSweptFromOutAndNeverFromIn) {
  fake.files.writeFile(fake.outbox() + "/.x.tmp-1", "x");
  fake.files.writeFile(fake.outbox() + "/other.txt", "x");
  fake.files.writeFile(fake.inbox() + "/.x.tmp-2", "x");
  create();
  EXPECT_THAT(fake.files.entries(fake.outbox()), ElementsAre("other.txt"));
  EXPECT_THAT(fake.files.entries(fake.inbox()), ElementsAre(".x.tmp-2"));
}

TEST_F(MailCenter, EveryMessageIsAcceptedAndItsFileGoneAfterDispatch) {
  create();
  const auto observer = std::make_shared<RecordingObserver>();
  center->addObserver(observer, &RecordingObserver::received, " a");
  for (const Value& any : {Value(), Value(1), Value(Dictionary())}) {
    EXPECT_TRUE(center->shouldAcceptMessage(any));
  }
  fake.clientSends(" a", {{"k", 1}});
  fake.clientSends(" unknown");
  fake.runUntilIdle();
  EXPECT_EQ(observer->messages.size(), 1u);
  EXPECT_EQ(filesIn(fake.inbox()), 0u);
}

TEST_F(MailCenter, ObserversAreRemovedThroughTheProtocolAsThroughTheClass) {
  create();
  const auto observer = std::make_shared<RecordingObserver>();
  protocol::THMPCommunicationCenter& adopted = *center;
  const auto selector = makeMessageSelector<RecordingObserver>(&RecordingObserver::received);
  adopted.addObserver(observer, selector, " a");
  adopted.addObserver(observer, selector, " b");
  adopted.addObserver(observer, selector, " c");
  adopted.removeObserver(observer, " a");
  center->dispatchMessage(message(" a"));
  center->dispatchMessage(message(" b"));
  EXPECT_EQ(observer->messages.size(), 1u);
  adopted.removeObserver(observer);
  center->dispatchMessage(message(" b"));
  center->dispatchMessage(message(" c"));
  EXPECT_EQ(observer->messages.size(), 1u);
}

TEST_F(MailCenter, PostWithNullPayloadWritesTheNameOnlyIntoOut) {
  create();
  center->postMessageName(" name", {});
  EXPECT_THAT(fake.files.entries(fake.outbox()), ElementsAre("UNIQUE-000001.plist"));
  const std::vector<Dictionary> messages = fake.messagesIn(fake.outbox());
  EXPECT_TRUE(Value::identical(messages[0], Dictionary{{"name", " name"}}));
  EXPECT_EQ(filesIn(fake.inbox()), 0u);
}

TEST_F(MailCenter, FailedPostIsLoggedByBothClassesAndNotRetried) {
  create();
  fake.files.failOnce(FileOperation::kPublish, ENOSPC);
  center->postMessageName(" name", {});
  fake.runUntilIdle();
  EXPECT_THAT(
      fake.log.lines(),
      ElementsAre(StartsWith("THMPMailPlugin error. Failed to write message to file. Error: "
                             "Error Domain=NSPOSIXErrorDomain Code=28 "),
                  StartsWith("Failed to post message to Mail client. Error: "
                             "Error Domain=NSPOSIXErrorDomain Code=28 ")));
  EXPECT_EQ(filesIn(fake.outbox()), 0u);
}

TEST_F(MailCenter, DeclinedPostLeavesNothingAndLogsNothing) {
  create();
  center->postMessageName(" name", {}, [](const std::function<bool()>&) { return false; });
  EXPECT_THAT(fake.files.entries(fake.outbox()), IsEmpty());
  EXPECT_EQ(fake.files.temporaryCount(), 0u);
  EXPECT_THAT(fake.log.lines(), IsEmpty());
}

TEST_F(MailCenter, InboxAndOutboxAreClearedOnDemand) {
  create();
  center->stopObservingDirectory();
  fake.clientSends(" a");
  center->postMessageName(" b", {});
  center->clearInbox();
  EXPECT_EQ(filesIn(fake.inbox()), 0u);
  EXPECT_EQ(filesIn(fake.outbox()), 1u);
  center->clearOutbox();
  EXPECT_EQ(filesIn(fake.outbox()), 0u);
}

// Quitting.

TEST_F(MailCenter, QuitDeletesTheMessageFilesInInAndLeavesOut) {
  create();
  center->postMessageName(" b", {});
  fake.clientSends(" a");
  fake.files.writeFile(fake.inbox() + "/X.PLIST", "x");
  fake.files.writeFile(fake.inbox() + "/note.txt", "x");
  fake.application.willTerminate();
  EXPECT_THAT(fake.files.entries(fake.inbox()), ElementsAre("note.txt"));
  EXPECT_EQ(filesIn(fake.outbox()), 1u);
}

TEST_F(MailCenter, QuitClearsInBeforeWhoeverRegisteredLaterHearsOfIt) {
  create();
  std::optional<std::size_t> waiting;
  const auto later = std::make_shared<int>();
  fake.application.observeWillTerminate(later, [&] { waiting = filesIn(fake.inbox()); });
  fake.clientSends(" a");
  fake.application.willTerminate();
  EXPECT_EQ(waiting, 0u);
}

TEST_F(MailCenter, DestroyedCenterHearsNoNotices) {
  fake.files.makeFolder(fake.dataFolder());
  fake.files.setWritable(fake.dataFolder(), false);
  create();
  fake.files.setWritable(fake.dataFolder(), true);
  fake.files.makeFolder(fake.inbox());
  fake.clientSends(" a");
  EXPECT_EQ(fake.application.didBecomeActiveObservers(), 1u);
  center.reset();
  EXPECT_EQ(fake.application.willTerminateObservers(), 0u);
  fake.application.didBecomeActive();
  fake.application.willTerminate();
  fake.runUntilIdle();
  EXPECT_THAT(fake.execution.watches(), IsEmpty());
  EXPECT_EQ(filesIn(fake.inbox()), 1u);
}

TEST_F(MailCenter, NoticesAndRetryHoldTheCenterWeakly) {
  fake.files.makeFolder(fake.dataFolder());
  fake.files.setWritable(fake.dataFolder(), false);
  create();
  EXPECT_EQ(center.use_count(), 1);
}

TEST_F(MailCenter, SecondCenterTakesOverFromTheFirst) {
  create();
  const auto observer = std::make_shared<RecordingObserver>();
  center->addObserver(observer, &RecordingObserver::received, " a");
  const auto second = THMPMailCommunicationCenter::create(centerClass, access);
  second->addObserver(observer, &RecordingObserver::received, " a");
  fake.clientSends(" a");
  fake.runUntilIdle();
  EXPECT_EQ(observer->messages.size(), 1u);
  center.reset();
  fake.clientSends(" a");
  fake.runUntilIdle();
  EXPECT_EQ(observer->messages.size(), 2u);
  EXPECT_EQ(fake.application.willTerminateObservers(), 1u);
}

// Access to the data folder.

class DataFolderAccess : public MailCenter {
 protected:
  void SetUp() override {
    fake.identity.setHostSandboxed(true);
    fake.files.makeFolder(data.path());
    setWritable(false);
  }
  void setWritable(bool writable) { fake.files.setWritable(data.path(), writable); }
  /// Access, once started, makes the folder writable, as a sandbox does.
  void grantOnAccess() {
    fake.application.onStartAccessing([this](const Url&) { setWritable(true); });
  }
  void storeBookmark() { fake.preferences.store(kBookmarkKey, FakeApplication::bookmarkOf(data)); }
  std::size_t timesAsked() { return fake.application.chooserRequests().size(); }
  void activate(int times) {
    for (int i = 0; i < times; ++i) {
      fake.application.didBecomeActive();
      fake.runUntilIdle();
    }
  }

  const Url data = Url::file(fake.dataFolder());
};

TEST_F(DataFolderAccess, ChooserIsShownDuringConstructionAndGrantsTheWatch) {
  grantOnAccess();
  fake.application.answerChooserWithFolder(data.path());
  create();
  ASSERT_EQ(timesAsked(), 1u);
  const FolderChooserRequest request = fake.application.chooserRequests()[0];
  EXPECT_EQ(request.title, "Tallyhive: Folder Access Required");
  EXPECT_EQ(request.message,
            "The Tallyhive Mail plug-in needs your permission to communicate with the Tallyhive "
            "application.\n\nPlease click the Allow button to proceed.");
  EXPECT_EQ(request.prompt, "Allow");
  EXPECT_EQ(request.startingFolder, data);
  EXPECT_THAT(fake.application.accessesStarted(), ElementsAre(data));
  EXPECT_EQ(access.securedDataDirectoryURL(), data);
  EXPECT_EQ(fake.preferences.get(kBookmarkKey), Value(FakeApplication::bookmarkOf(data)));
  EXPECT_TRUE(watching());
  EXPECT_EQ(fake.application.didBecomeActiveObservers(), 0u);
  EXPECT_TRUE(fake.files.isDirectory(fake.outbox()));
}

TEST_F(DataFolderAccess, TextsAreTheHostsTranslations) {
  fake.application.translate("Allow", "Erlauben");
  create();
  EXPECT_EQ(fake.application.chooserRequests()[0].prompt, "Erlauben");
  EXPECT_EQ(fake.application.localizedKeys().size(), 3u);
}

TEST_F(DataFolderAccess, NextLaunchTakesTheBookmarkAndAsksNobody) {
  storeBookmark();
  grantOnAccess();
  create();
  EXPECT_EQ(timesAsked(), 0u);
  EXPECT_THAT(fake.application.accessesStarted(), ElementsAre(data));
  EXPECT_THAT(fake.preferences.sets(), IsEmpty());
  EXPECT_TRUE(watching());
}

TEST_F(DataFolderAccess, StaleBookmarkIsMadeAnewAndUsed) {
  fake.preferences.store(kBookmarkKey, Data{"stale"});
  fake.application.setBookmarkResolver([this](const Data&) {
    return ResolvedBookmark{data, /*stale=*/true};
  });
  grantOnAccess();
  create();
  EXPECT_EQ(timesAsked(), 0u);
  EXPECT_EQ(fake.preferences.get(kBookmarkKey), Value(FakeApplication::bookmarkOf(data)));
  EXPECT_TRUE(watching());
}

TEST_F(DataFolderAccess, StaleBookmarkThatCannotBeMadeAnewIsRemovedAndUsedAllTheSame) {
  fake.preferences.store(kBookmarkKey, Data{"stale"});
  fake.application.setBookmarkResolver([this](const Data&) {
    return ResolvedBookmark{data, /*stale=*/true};
  });
  fake.application.setBookmarkMaker([](const Url&) { return std::nullopt; });
  grantOnAccess();
  create();
  EXPECT_TRUE(fake.preferences.get(kBookmarkKey).isNull());
  EXPECT_TRUE(watching());
}

TEST_F(DataFolderAccess, BookmarkThatLeadsNowhereIsLikeNoneAndStaysStored) {
  fake.preferences.store(kBookmarkKey, Data{"broken"});
  fake.application.setBookmarkResolver([](const Data&) { return std::nullopt; });
  fake.application.cancelChooser();
  create();
  EXPECT_EQ(timesAsked(), 1u);
  EXPECT_EQ(fake.preferences.get(kBookmarkKey), Value(Data{"broken"}));
}

TEST_F(DataFolderAccess, StoredValueThatIsNoDataIsLikeNone) {
  int asked = 0;
  for (const Value& odd : {Value("text"), Value(1), Value(1.5), Value(true), Value(Date{}),
                           Value(Array{Data{"x"}}), Value(Dictionary{{"k", 1}})}) {
    DataDirectoryAccess fresh;
    fake.preferences.store(kBookmarkKey, odd);
    THMPMailCommunicationCenter::create(centerClass, fresh);
    EXPECT_EQ(timesAsked(), static_cast<std::size_t>(++asked));
  }
  EXPECT_THAT(fake.application.bookmarksResolved(), IsEmpty());
}

TEST_F(DataFolderAccess, ChosenFolderWithoutABookmarkIsUsedAndTheKeyRemoved) {
  fake.preferences.store(kBookmarkKey, Value("odd"));
  fake.application.setBookmarkMaker([](const Url&) { return std::nullopt; });
  fake.application.answerChooserWithFolder(data.path());
  grantOnAccess();
  create();
  EXPECT_TRUE(fake.preferences.get(kBookmarkKey).isNull());
  EXPECT_TRUE(watching());
}

TEST_F(DataFolderAccess, OnlyTheDataFolderIsEnabledWhateverItsCase) {
  std::vector<bool> enabled;
  fake.application.answerChooser([&](const FolderChooserRequest& request) {
    for (const std::string& path :
         {data.path(), std::string("/HOME/ada/.local/share/mail/TALLYHIVE"),
          std::string("/home/ada/.local/share/Mail"), data.path() + "/in", std::string("/")}) {
      enabled.push_back(request.shouldEnable(Url::file(path)));
    }
    return FolderChooserAnswer{};
  });
  create();
  EXPECT_THAT(enabled, ElementsAre(true, true, false, false, false));
}

TEST_F(DataFolderAccess, FolderThatContainsTheDataFolderIsAccepted) {
  grantOnAccess();
  fake.application.answerChooserWithFolder("/home/ada/.local/");
  create();
  EXPECT_EQ(timesAsked(), 1u);
  EXPECT_THAT(fake.application.accessesStarted(), ElementsAre(Url::file("/home/ada/.local/")));
  EXPECT_TRUE(watching());
}

TEST_F(DataFolderAccess, FolderBesideOrInsideTheDataFolderBringsTheChooserBack) {
  grantOnAccess();
  fake.application.answerChooserWithFolder("/home/ada/.local/share/Mail/Tally");
  fake.application.answerChooserWithFolder(data.path() + "/in");
  fake.application.answerChooserWithFolder("/home/ada/.local/share/Mail/Tallyhive2");
  fake.application.answerChooserWithFolder(data.path());
  create();
  ASSERT_EQ(timesAsked(), 4u);
  for (const FolderChooserRequest& request : fake.application.chooserRequests()) {
    EXPECT_EQ(request.title, "Tallyhive: Folder Access Required");
  }
  EXPECT_TRUE(watching());
}

TEST_F(DataFolderAccess, OnlyCancellingEndsTheQuestion) {
  for (int i = 0; i < 100; ++i) fake.application.answerChooserWithFolder("/tmp");
  fake.application.cancelChooser();
  create();
  EXPECT_EQ(timesAsked(), 101u);
  EXPECT_FALSE(watching());
}

TEST_F(DataFolderAccess, FolderThatVanishesWhileTheChooserIsOpenEndsTheQuestion) {
  fake.application.answerChooser([this](const FolderChooserRequest&) {
    fake.files.erase(data.path());
    return FolderChooserAnswer{ModalResponse::kOk, Url::file("/tmp")};
  });
  create();
  EXPECT_EQ(timesAsked(), 1u);
}

TEST_F(DataFolderAccess, AnswerWithoutAFolderIsACancelledOne) {
  fake.application.answerChooser([](const FolderChooserRequest&) {
    return FolderChooserAnswer{ModalResponse::kOk, Url()};
  });
  create();
  EXPECT_EQ(timesAsked(), 1u);
  EXPECT_THAT(fake.application.accessesStarted(), IsEmpty());
}

TEST_F(DataFolderAccess, CancelledChooserIsNeverShownAgainInTheProcess) {
  fake.application.cancelChooser();
  create();
  activate(5);
  const auto another = THMPMailCommunicationCenter::create(centerClass, access);
  activate(5);
  EXPECT_EQ(timesAsked(), 1u);
  EXPECT_THAT(fake.preferences.sets(), IsEmpty());
  EXPECT_FALSE(watching());
}

TEST_F(DataFolderAccess, FirstRetryRunsRightAfterTheCurrentPass) {
  create();
  EXPECT_EQ(fake.execution.mainQueue().pending(), 1u);
  EXPECT_EQ(fake.application.didBecomeActiveObservers(), 1u);
  setWritable(true);
  fake.clientSends(" a");
  fake.execution.advance(std::chrono::milliseconds(0));
  EXPECT_TRUE(watching());
  EXPECT_EQ(filesIn(fake.inbox()), 0u);
  EXPECT_EQ(fake.application.didBecomeActiveObservers(), 0u);
}

TEST_F(DataFolderAccess, EachActivationTriesAgainUntilOneSucceeds) {
  create();
  activate(2);
  EXPECT_FALSE(watching());
  setWritable(true);
  activate(1);
  EXPECT_TRUE(watching());
  EXPECT_EQ(fake.application.didBecomeActiveObservers(), 0u);
  EXPECT_EQ(fake.application.willTerminateObservers(), 1u);
}

TEST_F(DataFolderAccess, RequestsThatWaitedForAccessAreHandled) {
  create();
  const auto observer = std::make_shared<RecordingObserver>();
  center->addObserver(observer, &RecordingObserver::received, " a");
  fake.runUntilIdle();
  fake.clientSends(" a");
  setWritable(true);
  activate(1);
  EXPECT_EQ(observer->messages.size(), 1u);
}

TEST_F(DataFolderAccess, BookmarkStoredLaterIsTakenByARetry) {
  grantOnAccess();
  create();
  activate(1);
  storeBookmark();
  activate(1);
  EXPECT_EQ(timesAsked(), 1u);
  EXPECT_TRUE(watching());
}

TEST_F(DataFolderAccess, SecuredFolderIsNotSecuredAgain) {
  storeBookmark();
  create();
  activate(3);
  EXPECT_EQ(fake.application.bookmarksResolved().size(), 1u);
  EXPECT_EQ(fake.application.accessesStarted().size(), 1u);
  EXPECT_FALSE(watching());
}

TEST_F(DataFolderAccess, CheckAfterTheWatchHasBegunIsHarmless) {
  setWritable(true);
  create();
  EXPECT_TRUE(center->checkDataDirectoryAccess());
  EXPECT_EQ(fake.execution.watches().size(), 1u);
}

TEST_F(DataFolderAccess, MissingDataFolderAsksNobody) {
  fake.files.erase(data.path());
  fake.files.failFromNowOn(FileOperation::kCreateDirectories, EACCES);
  create();
  EXPECT_FALSE(center->requestDataDirectoryAccess());
  EXPECT_EQ(center->askUserForDataDirectoryAccess(), std::nullopt);
  EXPECT_EQ(timesAsked(), 0u);
  EXPECT_FALSE(watching());
}

TEST_F(DataFolderAccess, FileInTheDataFoldersPlaceAsksNobody) {
  fake.files.erase(data.path());
  fake.files.writeFile(data.path(), "x");
  create();
  EXPECT_FALSE(center->requestDataDirectoryAccess());
  EXPECT_EQ(center->askUserForDataDirectoryAccess(), std::nullopt);
  EXPECT_EQ(timesAsked(), 0u);
}

TEST_F(DataFolderAccess, WritableDataFolderNeedsNoRequest) {
  setWritable(true);
  create();
  EXPECT_TRUE(center->requestDataDirectoryAccess());
  EXPECT_THAT(fake.application.accessesStarted(), IsEmpty());
}

TEST_F(DataFolderAccess, ActivationWhileTheChooserIsOpenFindsTheQuestionAsked) {
  fake.files.erase(data.path());
  fake.files.failFromNowOn(FileOperation::kCreateDirectories, EACCES);
  create();
  fake.files.stopFailing();
  fake.files.makeFolder(data.path());
  setWritable(false);
  grantOnAccess();
  bool nestedResult = true;
  fake.application.answerChooser([&](const FolderChooserRequest&) {
    fake.application.didBecomeActive();
    nestedResult = center->checkDataDirectoryAccess();
    return FolderChooserAnswer{ModalResponse::kOk, data};
  });
  activate(1);
  EXPECT_FALSE(nestedResult);
  EXPECT_EQ(timesAsked(), 1u);
  EXPECT_TRUE(watching());
}

TEST_F(DataFolderAccess, QuestionComesUpOnceEvenOnTwoThreads) {
  fake.files.erase(data.path());
  create();
  fake.files.makeFolder(data.path());
  setWritable(false);
  const std::size_t before = timesAsked();
  {
    std::jthread other([this] { center->requestDataDirectoryAccess(); });
    center->requestDataDirectoryAccess();
  }
  EXPECT_EQ(timesAsked() - before, 1u);
}

TEST_F(DataFolderAccess, RetryPendingAtQuitIsNotRun) {
  create();
  setWritable(true);
  fake.execution.mainQueue().close();
  fake.runUntilIdle();
  EXPECT_FALSE(watching());
}

TEST_F(DataFolderAccess, FoldersThatCannotBeMadeAreLogged) {
  create();
  EXPECT_GE(fake.log.count("THMPMailPlugin error. Failed to create plugin communication inbox: "),
            1u);
  EXPECT_GE(fake.log.count("THMPMailPlugin error. Failed to create plugin communication outbox: "),
            1u);
}

}  // namespace
}  // namespace thmp
