// SPDX-License-Identifier: Apache-2.0
#include "messaging/THMPCommunicationCenter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <thread>

#include "messaging/messaging_test_support.h"

namespace thmp {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

constexpr char kWriteFailure[] = "THMPMailPlugin error. Failed to write message to file. Error: ";

class Posting : public MessagingTest {
 protected:
  bool post(const std::string& name, const Value& userInfo = {}, Error* error = nullptr,
            const PublishGuard& guard = {}) {
    return center->postMessageName(name, userInfo, directory, std::nullopt, error, guard);
  }
  std::vector<std::string> posted() { return fake.files.entries(directory.path()); }

  const std::shared_ptr<THMPCommunicationCenter> center =
      THMPCommunicationCenter::create(centerClass);
  const Url directory = center->communicationOutboxURL();
};

TEST_F(Posting, NullPayloadWritesTheNameOnly) {
  EXPECT_TRUE(post(" name"));
  const std::vector<Dictionary> messages = fake.messagesIn(directory.path());
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_TRUE(Value::identical(messages[0], Dictionary{{"name", " name"}}));
}

TEST_F(Posting, PayloadStandsUnderUserInfoAndAnEmptyOneIsKept) {
  const Dictionary payload{{"a", 1}, {"b", true}, {"c", Array{"x", 1.5}}};
  EXPECT_TRUE(post(" name", payload));
  EXPECT_TRUE(post(" name", Dictionary()));
  const std::vector<Dictionary> messages = fake.messagesIn(directory.path());
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_TRUE(Value::identical(messages[0]["userInfo"], payload));
  EXPECT_TRUE(Value::identical(messages[1]["userInfo"], Dictionary()));
}

TEST_F(Posting, FileIsABinaryPropertyList) {
  post(" name");
  EXPECT_THAT(*fake.files.contents(directory.appending(posted()[0]).path()),
              StartsWith("bplist00"));
}

TEST_F(Posting, FileNameIsAUniqueStringWithPrefixAndHyphenBeforeIt) {
  EXPECT_TRUE(post(" name"));
  EXPECT_TRUE(center->postMessageName(" name", {}, directory, "abc", nullptr));
  EXPECT_THAT(posted(), ElementsAre("UNIQUE-000001.plist", "abc-UNIQUE-000002.plist"));
}

TEST_F(Posting, TwoPostsInARowNeverShareAName) {
  EXPECT_TRUE(post(" name"));
  EXPECT_TRUE(post(" name"));
  EXPECT_EQ(posted().size(), 2u);
}

TEST_F(Posting, MissingFolderReturnsFalseLogsAndFillsTheError) {
  fake.files.erase(directory.path());
  Error error;
  EXPECT_FALSE(post(" name", {}, &error));
  EXPECT_TRUE(error.isSet());
  EXPECT_THAT(fake.log.lines(), ElementsAre(kWriteFailure + error.text()));
  EXPECT_FALSE(fake.files.hasEntry(directory.path()));
}

TEST_F(Posting, FailureIsReturnedAndLoggedWhenNobodyAsksForTheError) {
  fake.files.erase(directory.path());
  EXPECT_FALSE(post(" name"));
  EXPECT_EQ(fake.log.count(kWriteFailure), 1u);
}

TEST_F(Posting, SuccessClearsTheCallersError) {
  Error error = Error::posix(EIO, "before");
  EXPECT_TRUE(post(" name", {}, &error));
  EXPECT_FALSE(error.isSet());
  EXPECT_TRUE(fake.log.lines().empty());
}

TEST_F(Posting, EveryFailingStepLeavesNothing) {
  for (const FileOperation step : {FileOperation::kPrepare, FileOperation::kPublish}) {
    for (const int errorNumber : {ENOSPC, EIO, EACCES, EROFS, EMFILE}) {
      fake.log.clear();
      fake.files.failOnce(step, errorNumber);
      Error error;
      EXPECT_FALSE(post(" name", {}, &error));
      EXPECT_EQ(error.code, errorNumber);
      EXPECT_EQ(fake.log.lines().size(), 1u);
      EXPECT_TRUE(posted().empty());
      EXPECT_EQ(fake.files.temporaryCount(), 0u);
    }
  }
}

TEST_F(Posting, NameInUseIsNeverOverwrittenButDrawnAnew) {
  fake.files.writeFile(directory.appending("UNIQUE-000001.plist").path(), "another's");
  Error error;
  EXPECT_TRUE(post(" name", {}, &error));
  EXPECT_FALSE(error.isSet());
  EXPECT_EQ(fake.files.contents(directory.appending("UNIQUE-000001.plist").path()), "another's");
  EXPECT_TRUE(fake.files.hasEntry(directory.appending("UNIQUE-000002.plist").path()));
  EXPECT_TRUE(fake.log.lines().empty());
}

TEST_F(Posting, NamesThatAreAlwaysInUseEndInOneFailure) {
  fake.files.failFromNowOn(FileOperation::kPublish, EEXIST);
  EXPECT_FALSE(post(" name"));
  EXPECT_EQ(fake.log.count(kWriteFailure), 1u);
  EXPECT_EQ(fake.files.temporaryCount(), 0u);
}

TEST_F(Posting, PayloadThatPropertyListsHaveNoFormForIsAFailedWrite) {
  Error error;
  EXPECT_FALSE(post(" name", Array{Value()}, &error));
  EXPECT_TRUE(error.isSet());
  EXPECT_EQ(fake.log.count(kWriteFailure), 1u);
  EXPECT_TRUE(posted().empty());
}

TEST_F(Posting, GuardIsAskedWhenTheFileIsPreparedAndPublishesItItself) {
  int asked = 0;
  const PublishGuard guard = [&](const std::function<bool()>& publish) {
    ++asked;
    EXPECT_EQ(fake.files.temporaryCount(), 1u);
    EXPECT_TRUE(posted().empty());
    const bool published = publish();
    EXPECT_EQ(posted().size(), 1u);
    return published;
  };
  EXPECT_TRUE(post(" name", {}, nullptr, guard));
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(fake.files.temporaryCount(), 0u);
}

TEST_F(Posting, DeclinedPostLeavesNothingLogsNothingAndIsNoFailure) {
  Error error = Error::posix(EIO, "before");
  EXPECT_TRUE(post(" name", {}, &error, [](const std::function<bool()>&) { return false; }));
  EXPECT_FALSE(error.isSet());
  EXPECT_TRUE(posted().empty());
  EXPECT_EQ(fake.files.temporaryCount(), 0u);
  EXPECT_TRUE(fake.log.lines().empty());
}

TEST_F(Posting, FailureToPublishUnderAGuardIsAFailedWrite) {
  fake.files.failOnce(FileOperation::kPublish, EACCES);
  Error error;
  bool answer = true;
  EXPECT_FALSE(post(" name", {}, &error,
                    [&](const std::function<bool()>& publish) { return answer = publish(); }));
  EXPECT_FALSE(answer);
  EXPECT_EQ(error.code, EACCES);
  EXPECT_EQ(fake.log.count(kWriteFailure), 1u);
}

TEST_F(Posting, GuardIsNotAskedWhenTheFileCannotBePrepared) {
  fake.files.failOnce(FileOperation::kPrepare, ENOSPC);
  EXPECT_FALSE(post(" name", {}, nullptr, [](const std::function<bool()>& publish) {
    ADD_FAILURE() << "asked";
    return publish();
  }));
}

TEST_F(Posting, ConcurrentPostsEachWriteAFileOfTheirOwn) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this] {
      for (int j = 0; j < 50; ++j) post(" name", j);
    });
  }
  threads.clear();
  EXPECT_EQ(posted().size(), 200u);
}

class Dispatching : public MessagingTest {
 protected:
  std::shared_ptr<THMPCommunicationCenter> center = THMPCommunicationCenter::create(centerClass);
  std::shared_ptr<RecordingObserver> first = std::make_shared<RecordingObserver>();
  std::shared_ptr<RecordingObserver> second = std::make_shared<RecordingObserver>();
};

TEST_F(Dispatching, EveryObserverOfTheNameGetsTheWholeMessage) {
  center->addObserver(first, &RecordingObserver::received, " a");
  center->addObserver(second, &RecordingObserver::received, " a");
  const Value sent = message(" a", Dictionary{{"k", 1}});
  center->dispatchMessage(sent);
  ASSERT_EQ(first->messages.size(), 1u);
  EXPECT_TRUE(Value::identical(first->messages[0], sent));
  EXPECT_EQ(second->messages.size(), 1u);
}

TEST_F(Dispatching, RunsOnTheCallingThreadBeforeItReturns) {
  std::thread::id ranOn;
  first->whenReceived = [&](const Value&) { ranOn = std::this_thread::get_id(); };
  center->addObserver(first, &RecordingObserver::received, " a");
  center->dispatchMessage(message(" a"));
  EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST_F(Dispatching, NamesAreComparedByteForByte) {
  center->addObserver(first, &RecordingObserver::received, " a");
  for (const std::string name : {"a", " A", " a ", "  a", ""})
    center->dispatchMessage(message(name));
  center->dispatchMessage(message(std::string(" a\0", 3)));
  EXPECT_TRUE(first->messages.empty());
}

TEST_F(Dispatching, NamesWithALoneSurrogateOrANulAreNamesOfTheirOwn) {
  const std::string surrogate = " a\xED\xA0\x80";
  const std::string otherSurrogate = " a\xED\xA0\x81";
  const std::string nul(" a\0b", 4);
  center->addObserver(first, &RecordingObserver::received, surrogate);
  center->addObserver(second, &RecordingObserver::received, nul);
  for (const std::string& name : {surrogate, otherSurrogate, nul, std::string(" a")}) {
    center->dispatchMessage(message(name));
  }
  EXPECT_EQ(first->messages.size(), 1u);
  EXPECT_EQ(second->messages.size(), 1u);
}

TEST_F(Dispatching, MessageWithoutANameReachesNobody) {
  center->addObserver(first, &RecordingObserver::received, " a");
  center->dispatchMessage(Dictionary{{"userInfo", 1}});
  center->dispatchMessage(Value());
  EXPECT_TRUE(first->messages.empty());
}

TEST_F(Dispatching, NameOfAnotherTypeReachesNobody) {
  center->addObserver(first, &RecordingObserver::received, "1");
  for (const Value& name : {Value(1), Value(true), Value(1.0), Value(Date{}), Value(Data{"1"}),
                            Value(Array{"1"}), Value(Dictionary{{"1", "1"}})}) {
    center->dispatchMessage(Dictionary{{"name", name}});
  }
  EXPECT_TRUE(first->messages.empty());
}

TEST_F(Dispatching, SecondSelectorOfAnObserverTakesThePlaceOfTheFirst) {
  center->addObserver(first, &RecordingObserver::received, " a");
  center->addObserver(first, &RecordingObserver::receivedElsewhere, " a");
  center->dispatchMessage(message(" a"));
  EXPECT_TRUE(first->messages.empty());
  EXPECT_EQ(first->elsewhere.size(), 1u);
}

TEST_F(Dispatching, OneObserverHasASelectorForEachName) {
  center->addObserver(first, &RecordingObserver::received, " a");
  center->addObserver(first, &RecordingObserver::receivedElsewhere, " b");
  center->dispatchMessage(message(" b"));
  EXPECT_TRUE(first->messages.empty());
  EXPECT_EQ(first->elsewhere.size(), 1u);
}

TEST_F(Dispatching, RemovingByNameLeavesTheOtherNames) {
  center->addObserver(first, &RecordingObserver::received, " a");
  center->addObserver(first, &RecordingObserver::received, " b");
  center->removeObserver(first, " a");
  center->dispatchMessage(message(" a"));
  center->dispatchMessage(message(" b"));
  EXPECT_EQ(first->messages.size(), 1u);
}

TEST_F(Dispatching, RemovingEverywhereLeavesTheOtherObservers) {
  for (const char* name : {" a", " b"}) {
    center->addObserver(first, &RecordingObserver::received, name);
    center->addObserver(second, &RecordingObserver::received, name);
  }
  center->removeObserver(first);
  center->dispatchMessage(message(" a"));
  center->dispatchMessage(message(" b"));
  EXPECT_TRUE(first->messages.empty());
  EXPECT_EQ(second->messages.size(), 2u);
}

TEST_F(Dispatching, RemovingAnUnknownObserverOrNameChangesNothing) {
  center->addObserver(first, &RecordingObserver::received, " a");
  center->removeObserver(second, " a");
  center->removeObserver(second);
  center->removeObserver(first, " never used");
  center->removeObserver(std::weak_ptr<void>());
  center->dispatchMessage(message(" a"));
  EXPECT_EQ(first->messages.size(), 1u);
}

TEST_F(Dispatching, DestroyedObserverIsSkipped) {
  center->addObserver(first, &RecordingObserver::received, " a");
  center->addObserver(second, &RecordingObserver::received, " a");
  first.reset();
  center->dispatchMessage(message(" a"));
  EXPECT_EQ(second->messages.size(), 1u);
}

TEST_F(Dispatching, RegistryHoldsObserversWeakly) {
  center->addObserver(first, &RecordingObserver::received, " a");
  EXPECT_EQ(first.use_count(), 1);
}

struct Place {
  alignas(RecordingObserver) std::byte bytes[sizeof(RecordingObserver)];
};

TEST_F(Dispatching, NewObjectAtADeadObserversAddressIsAnotherObserver) {
  Place place;
  const auto build = [&] {
    auto* const object = new (place.bytes) RecordingObserver;
    return std::shared_ptr<RecordingObserver>(
        object, [](RecordingObserver* dead) { std::destroy_at(dead); });
  };
  auto dead = build();
  center->addObserver(dead, &RecordingObserver::received, " a");
  dead.reset();
  const auto reborn = build();
  center->dispatchMessage(message(" a"));
  EXPECT_TRUE(reborn->messages.empty());
  center->addObserver(reborn, &RecordingObserver::receivedElsewhere, " a");
  center->dispatchMessage(message(" a"));
  EXPECT_TRUE(reborn->messages.empty());
  EXPECT_EQ(reborn->elsewhere.size(), 1u);
}

class SelfRemovingObserver : public std::enable_shared_from_this<SelfRemovingObserver> {
 public:
  explicit SelfRemovingObserver(THMPCommunicationCenter& center) : center_(center) {}
  ~SelfRemovingObserver() { center_.removeObserver(weak_from_this()); }
  void received(const Value&) {}

 private:
  THMPCommunicationCenter& center_;
};

TEST_F(Dispatching, ObserverMayRemoveItselfFromItsDestructor) {
  auto observer = std::make_shared<SelfRemovingObserver>(*center);
  center->addObserver(observer, &SelfRemovingObserver::received, " a");
  const std::weak_ptr<SelfRemovingObserver> weak = observer;
  observer.reset();
  EXPECT_TRUE(weak.expired());
  center->dispatchMessage(message(" a"));
}

TEST_F(Dispatching, ObserverWhoseHandlerLetsGoOfItDiesAfterTheHandler) {
  const std::weak_ptr<RecordingObserver> weak = first;
  first->whenReceived = [&](const Value&) {
    first.reset();
    EXPECT_FALSE(weak.expired());
  };
  center->addObserver(first, &RecordingObserver::received, " a");
  center->dispatchMessage(message(" a"));
  EXPECT_TRUE(weak.expired());
}

TEST_F(Dispatching, ObserverMayDieAndRemoveItselfWhileAnotherIsCalled) {
  auto observer = std::make_shared<SelfRemovingObserver>(*center);
  first->whenReceived = [&](const Value&) { observer.reset(); };
  center->addObserver(first, &RecordingObserver::received, " a");
  center->addObserver(observer, &SelfRemovingObserver::received, " a");
  center->dispatchMessage(message(" a"));
  EXPECT_EQ(observer, nullptr);
}

TEST_F(Dispatching, ObserverRemovedByAnEarlierHandlerIsNotCalled) {
  const auto removeTheOther = [this](const std::shared_ptr<RecordingObserver>& other) {
    return [this, &other](const Value&) { center->removeObserver(other, " a"); };
  };
  first->whenReceived = removeTheOther(second);
  second->whenReceived = removeTheOther(first);
  center->addObserver(first, &RecordingObserver::received, " a");
  center->addObserver(second, &RecordingObserver::received, " a");
  center->dispatchMessage(message(" a"));
  EXPECT_EQ(first->messages.size() + second->messages.size(), 1u);
}

TEST_F(Dispatching, ObserverDestroyedByAnEarlierHandlerIsNotCalled) {
  int calls = 0;
  std::vector<std::shared_ptr<RecordingObserver>> observers;
  for (int i = 0; i < 3; ++i) observers.push_back(std::make_shared<RecordingObserver>());
  for (const auto& observer : observers) {
    observer->whenReceived = [&](const Value&) {
      if (++calls == 1) observers.clear();
    };
    center->addObserver(observer, &RecordingObserver::received, " a");
  }
  center->dispatchMessage(message(" a"));
  EXPECT_EQ(calls, 1);
}

TEST_F(Dispatching, SelectorReplacedByAnEarlierHandlerIsTheOneCalled) {
  const auto replaceTheOthers = [this](const std::shared_ptr<RecordingObserver>& other) {
    return [this, &other](const Value&) {
      center->addObserver(other, &RecordingObserver::receivedElsewhere, " a");
    };
  };
  first->whenReceived = replaceTheOthers(second);
  second->whenReceived = replaceTheOthers(first);
  center->addObserver(first, &RecordingObserver::received, " a");
  center->addObserver(second, &RecordingObserver::received, " a");
  center->dispatchMessage(message(" a"));
  EXPECT_EQ(first->messages.size() + second->messages.size(), 1u);
  EXPECT_EQ(first->elsewhere.size() + second->elsewhere.size(), 1u);
}

TEST_F(Dispatching, ObserverAddedByAHandlerHearsTheNextMessage) {
  first->whenReceived = [this](const Value&) {
    for (int i = 0; i < 100; ++i) {
      center->addObserver(second, &RecordingObserver::received, " b" + std::to_string(i));
    }
    center->addObserver(second, &RecordingObserver::received, " a");
  };
  center->addObserver(first, &RecordingObserver::received, " a");
  center->dispatchMessage(message(" a"));
  second->messages.clear();
  center->dispatchMessage(message(" a"));
  EXPECT_EQ(second->messages.size(), 1u);
}

TEST_F(Dispatching, HandlerThatThrowsEndsThereAndTheOthersAreCalled) {
  first->whenReceived = [](const Value&) { throw std::runtime_error("x"); };
  second->whenReceived = [](const Value&) { throw 1; };
  center->addObserver(first, &RecordingObserver::received, " a");
  center->addObserver(second, &RecordingObserver::received, " a");
  center->dispatchMessage(message(" a"));
  EXPECT_EQ(first->messages.size() + second->messages.size(), 2u);
  EXPECT_EQ(fake.log.count("tallyhive: "), 2u);
}

TEST_F(Dispatching, CenterOutlivesAHandlerThatLetsGoOfIt) {
  first->whenReceived = [this](const Value&) { center.reset(); };
  center->addObserver(first, &RecordingObserver::received, " a");
  center->addObserver(second, &RecordingObserver::received, " a");
  THMPCommunicationCenter& dying = *center;
  dying.dispatchMessage(message(" a"));
  EXPECT_EQ(center, nullptr);
  EXPECT_EQ(second->messages.size(), 1u);
}

TEST_F(Dispatching, RegistryMayChangeOnOtherThreadsMeanwhile) {
  std::atomic<bool> stop = false;
  std::jthread changer([&] {
    while (!stop) {
      const auto passing = std::make_shared<RecordingObserver>();
      center->addObserver(passing, &RecordingObserver::receivedElsewhere, " other");
      center->addObserver(second, &RecordingObserver::receivedElsewhere, " other");
      center->removeObserver(passing);
      center->removeObserver(second, " other");
    }
  });
  center->addObserver(first, &RecordingObserver::received, " a");
  for (int i = 0; i < 2000; ++i) center->dispatchMessage(message(" a"));
  stop = true;
  changer.join();
  EXPECT_EQ(first->messages.size(), 2000u);
}

class Folders : public MessagingTest {
 protected:
  static constexpr char kData[] = "/home/ada/.local/share/Mail/Tallyhive";
};

TEST_F(Folders, DataFolderLiesBelowTheApplicationSupportFolderAndIsNotCreated) {
  EXPECT_EQ(centerClass.pluginDataDirectoryURL(), Url::file(kData));
  EXPECT_FALSE(fake.files.hasEntry(kData));
}

TEST_F(Folders, SandboxedHostsDataFolderLiesBelowTheRealHome) {
  fake.identity.setHostSandboxed(true);
  fake.files.setApplicationSupport("/containers/mail/Library/Application Support",
                                   "Library/Application Support");
  EXPECT_EQ(centerClass.pluginDataDirectoryURL(),
            Url::file("/home/ada/Library/Application Support/Mail/Tallyhive"));
}

TEST_F(Folders, UnsandboxedHostsDataFolderFollowsTheSystem) {
  fake.files.setApplicationSupport("/data", ".local/share");
  EXPECT_EQ(centerClass.pluginDataDirectoryURL(), Url::file("/data/Mail/Tallyhive"));
}

TEST_F(Folders, WithoutASupportFolderOrAHomeThereIsNoDataFolderAndNothingIsMade) {
  fake.identity.setHostSandboxed(true);
  fake.identity.setCurrentUser(std::nullopt);
  EXPECT_TRUE(centerClass.pluginDataDirectoryURL().empty());
  EXPECT_TRUE(centerClass.communicationInboxURL().empty());
  EXPECT_EQ(fake.log.count("Failed to create plugin communication inbox: "), 1u);
}

TEST_F(Folders, InboxAndOutboxAreMadeAtEveryCall) {
  EXPECT_EQ(centerClass.communicationInboxURL(), Url::file(std::string(kData) + "/in"));
  EXPECT_TRUE(fake.files.isDirectory(fake.inbox()));
  EXPECT_FALSE(fake.files.hasEntry(fake.outbox()));
  EXPECT_EQ(centerClass.communicationOutboxURL(), Url::file(std::string(kData) + "/out"));
  EXPECT_TRUE(fake.files.isDirectory(fake.outbox()));
  fake.files.erase(kData);
  centerClass.communicationInboxURL();
  EXPECT_TRUE(fake.files.isDirectory(fake.inbox()));
  EXPECT_TRUE(fake.log.lines().empty());
}

TEST_F(Folders, FolderThatCannotBeMadeIsLoggedAndItsURLReturnedAllTheSame) {
  fake.files.failFromNowOn(FileOperation::kCreateDirectories, EACCES);
  EXPECT_EQ(centerClass.communicationInboxURL(), Url::file(fake.inbox()));
  EXPECT_EQ(centerClass.communicationOutboxURL(), Url::file(fake.outbox()));
  EXPECT_THAT(fake.log.lines(),
              ElementsAre(StartsWith("THMPMailPlugin error. Failed to create plugin communication "
                                     "inbox: Error Domain=NSPOSIXErrorDomain Code=13 "),
                          StartsWith("THMPMailPlugin error. Failed to create plugin communication "
                                     "outbox: Error Domain=NSPOSIXErrorDomain Code=13 ")));
}

TEST_F(Folders, MessageDirectoriesAreMadeInboxFirst) {
  centerClass.createCommunicationMessageDirectories();
  EXPECT_THAT(fake.files.paths(FileOperation::kCreateDirectories),
              ElementsAre(fake.inbox(), fake.outbox()));
}

TEST_F(Folders, CenterMakesBothFoldersAndDoesNotWatch) {
  const auto center = THMPCommunicationCenter::create(centerClass);
  EXPECT_EQ(center->communicationInboxURL(), Url::file(fake.inbox()));
  EXPECT_EQ(center->communicationOutboxURL(), Url::file(fake.outbox()));
  EXPECT_THAT(fake.files.paths(FileOperation::kCreateDirectories),
              ElementsAre(fake.inbox(), fake.outbox()));
  EXPECT_TRUE(fake.execution.watches().empty());
  EXPECT_EQ(center->knownMessageFiles(), nullptr);
}

class ElsewhereClass : public THMPCommunicationCenterClass {
 public:
  using THMPCommunicationCenterClass::THMPCommunicationCenterClass;
  Url pluginDataDirectoryURL() override { return Url::file("/elsewhere"); }
};

TEST_F(Folders, ClassOperationsAreThoseOfTheObjectsOwnClass) {
  ElsewhereClass elsewhere(platform, paths);
  const auto center = THMPCommunicationCenter::create(elsewhere);
  EXPECT_EQ(center->communicationInboxURL(), Url::file("/elsewhere/in"));
  EXPECT_TRUE(fake.files.isDirectory("/elsewhere/out"));
}

TEST_F(Folders, QueueIsOneForTheProcessAndMadeOnFirstUse) {
  EXPECT_TRUE(fake.execution.queues().empty());
  std::vector<std::shared_ptr<SerialQueue>> queues(8);
  {
    std::vector<std::jthread> threads;
    for (auto& queue : queues)
      threads.emplace_back([&] { queue = centerClass.messageCenterQueue(); });
  }
  for (const auto& queue : queues) EXPECT_EQ(queue, queues[0]);
  EXPECT_EQ(fake.execution.queues().size(), 1u);
  EXPECT_EQ(queues[0]->label(), kQueueLabel);
}

class Clearing : public MessagingTest {
 protected:
  void SetUp() override {
    for (const char* name : {"A.PLIST", "b.plist", ".hidden.plist", "c.txt", ".x.tmp-1"}) {
      fake.files.writeFile("/d/" + std::string(name), "x");
    }
    fake.files.writeFile("/d/sub/e.plist", "x");
  }

  const Url directory = Url::file("/d");
};

TEST_F(Clearing, MessageFilesGoAndAllElseStays) {
  centerClass.clearDirectory(directory);
  EXPECT_THAT(fake.files.entries("/d"), ElementsAre("c.txt", ".x.tmp-1", "sub"));
  EXPECT_TRUE(fake.files.hasEntry("/d/sub/e.plist"));
}

TEST_F(Clearing, FileThatTheFilterDeclinesStays) {
  std::vector<std::string> asked;
  centerClass.clearDirectory(directory, [&](const Url& entry) {
    asked.push_back(entry.path());
    return entry != Url::file("/d/b.plist");
  });
  EXPECT_THAT(fake.files.entries("/d"), ElementsAre("b.plist", "c.txt", ".x.tmp-1", "sub"));
  EXPECT_THAT(asked, ElementsAre("/d/A.PLIST", "/d/b.plist", "/d/.hidden.plist"));
}

TEST_F(Clearing, FailuresAreIgnored) {
  fake.files.failOnce(FileOperation::kRemove, EACCES, "/d/A.PLIST");
  centerClass.clearDirectory(directory);
  EXPECT_TRUE(fake.files.hasEntry("/d/A.PLIST"));
  EXPECT_FALSE(fake.files.hasEntry("/d/b.plist"));
  centerClass.clearDirectory(Url::file("/missing"));
  EXPECT_TRUE(fake.log.lines().empty());
}

TEST_F(Clearing, LinkGoesItselfAndNotWhatItLeadsTo) {
  fake.files.writeFile("/precious/file.plist", "x");
  fake.files.makeLink("/d/link.plist", "/precious");
  centerClass.clearDirectory(directory);
  EXPECT_FALSE(fake.files.hasEntry("/d/link.plist"));
  EXPECT_TRUE(fake.files.hasEntry("/precious/file.plist"));
}

TEST_F(Clearing, FolderWithAMessagesNameGoesWithAllItHolds) {
  fake.files.writeFile("/d/f.plist/inner.txt", "x");
  centerClass.clearDirectory(directory);
  EXPECT_FALSE(fake.files.hasEntry("/d/f.plist"));
}

TEST_F(Clearing, TemporaryFilesOfPostsThatWereCutOffGoAndAllElseStays) {
  centerClass.removeTemporaryFiles(directory);
  EXPECT_THAT(fake.files.entries("/d"),
              ElementsAre("A.PLIST", "b.plist", ".hidden.plist", "c.txt", "sub"));
  centerClass.removeTemporaryFiles(Url::file("/missing"));
}

}  // namespace
}  // namespace thmp
