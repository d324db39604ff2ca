// SPDX-License-Identifier: Apache-2.0
//
// Each operation with its first system call failing, its second, and so on until none does: what is
// seen afterwards is whole or absent, no descriptor is kept, and the next attempt works.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <iostream>
#include <memory>

#include "base/plist.h"
#include "platform/linux/FailingSystemCalls.h"
#include "platform/linux/InotifyWatches.h"
#include "platform/linux/LinuxApplication.h"
#include "platform/linux/LinuxExecution.h"
#include "platform/linux/LinuxFiles.h"
#include "platform/linux/LinuxPreferences.h"
#include "platform/linux/LinuxSerialQueue.h"
#include "platform/linux/PasteboardReader.h"
#include "platform/linux/PasteboardStore.h"
#include "platform/linux/RunningApplications.h"
#include "platform/linux/TemporaryFile.h"
#include "platform/linux/posix_io.h"
#include "platform/linux/testing.h"
#include "platform/linux/user_records.h"

namespace thmp {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using testing::FailingCall;
using testing::FailingSystemCalls;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using testing::TemporaryFolder;

constexpr char kType[] = "org.example.type";

class FailingSystemCallsTest : public ::testing::Test {
 protected:
  /// Plays `scene` with each call failing in turn, that one alone and all from it on. A scene gives
  /// the number of calls that failed.
  void withEachCallFailing(const std::function<int(const FailingCall&)>& scene) {
    int failures = 0;
    for (const int error : {EIO, EMFILE, ENOSPC, EACCES, EINTR}) {
      for (const bool fromThenOn : {false, true}) {
        if (fromThenOn && error != EIO && error != EACCES) continue;
        for (int nth = 1;; ++nth) {
          SCOPED_TRACE("call " + std::to_string(nth) + (fromThenOn ? " and all after it" : "") +
                       ": " + Error::posix(error, "").description);
          const std::size_t open = testing::openDescriptors();
          const int failed = scene({.nth = nth, .error = error, .fromThenOn = fromThenOn});
          EXPECT_EQ(testing::openDescriptors(), open);
          failures += failed;
          if (failed == 0 || HasFailure()) break;
          ASSERT_LT(nth, 1000);
        }
      }
    }
    EXPECT_GT(failures, 10);
    RecordProperty("faults", failures);
  }

  LinuxFiles files_{"/nowhere"};
};

TEST_F(FailingSystemCallsTest, FileIsPublishedWholeOrNotAtAll) {
  withEachCallFailing([this](const FailingCall& call) {
    const TemporaryFolder folder;
    Error error;
    bool done = false;
    int failures = 0;
    {
      const FailingSystemCalls failing(call);
      const auto prepared = files_.prepareFile(folder.path(), "m.plist", "content", &error);
      done = prepared && prepared->publish(&error);
      failures = failing.failures();
    }
    EXPECT_EQ(done, !error.isSet());
    if (done) {
      EXPECT_EQ(testing::readFile(folder.at("m.plist")), "content");
      EXPECT_EQ(testing::modeOf(folder.at("m.plist")), 0600U);
    } else {
      EXPECT_THAT(testing::namesIn(folder.path()), IsEmpty());
      const auto again = files_.prepareFile(folder.path(), "m.plist", "content", nullptr);
      EXPECT_TRUE(again && again->publish());
    }
    return failures;
  });
}

TEST_F(FailingSystemCallsTest, FileIsReadWholeOrNotAtAll) {
  const TemporaryFolder folder;
  testing::writeFile(folder.at("file"), "content");
  withEachCallFailing([&](const FailingCall& call) {
    Error error;
    const FailingSystemCalls failing(call);
    const auto bytes = files_.readFile(folder.at("file"), 100, &error);
    EXPECT_EQ(bytes.has_value(), !error.isSet());
    if (bytes) {
      EXPECT_EQ(*bytes, "content");
    }
    return failing.failures();
  });
}

TEST_F(FailingSystemCallsTest, FolderIsListedWholeOrNotAtAll) {
  const TemporaryFolder folder;
  for (const char* name : {"a", "b", "c"}) testing::writeFile(folder.at(name), "");
  withEachCallFailing([&](const FailingCall& call) {
    Error error;
    const FailingSystemCalls failing(call);
    const auto names = files_.list(folder.path(), &error);
    EXPECT_EQ(names.has_value(), !error.isSet());
    if (names) {
      EXPECT_THAT(*names, SizeIs(3));
    }
    return failing.failures();
  });
}

TEST_F(FailingSystemCallsTest, WhatCannotBeAskedIsNoAndNoCrash) {
  const TemporaryFolder folder;
  testing::writeFile(folder.at("file"), "");
  EXPECT_EQ(::symlink("file", folder.at("link").c_str()), 0);
  withEachCallFailing([&](const FailingCall& call) {
    const FailingSystemCalls failing(call);
    const int yes = static_cast<int>(files_.exists(folder.at("file"))) +
                    static_cast<int>(files_.isDirectory(folder.path())) +
                    static_cast<int>(files_.isReadable(folder.at("file"))) +
                    static_cast<int>(files_.permissions(folder.at("file")).has_value()) +
                    static_cast<int>(files_.linkTarget(folder.at("link")).has_value());
    int entries = 0;
    files_.walk(folder.path(), [&](const std::string&) { ++entries; });
    if (failing.failures() == 0) {
      EXPECT_EQ(yes, 5);
      EXPECT_EQ(entries, 2);
    }
    EXPECT_LE(entries, 2);
    return failing.failures();
  });
}

TEST_F(FailingSystemCallsTest, TreeIsRemovedOrTheErrorSaysThatItStays) {
  withEachCallFailing([this](const FailingCall& call) {
    const TemporaryFolder folder;
    testing::makeFolder(folder.at("tree/inner/innermost"));
    testing::writeFile(folder.at("tree/inner/file"), "");
    testing::writeFile(folder.at("beside"), "kept");
    int failures = 0;
    {
      Error error;
      const FailingSystemCalls failing(call);
      const bool done = files_.removeEntry(folder.path(), "tree", &error);
      failures = failing.failures();
      EXPECT_EQ(done, !error.isSet());
    }
    EXPECT_TRUE(files_.removeEntry(folder.path(), "tree", nullptr));
    EXPECT_FALSE(testing::exists(folder.at("tree")));
    EXPECT_EQ(testing::readFile(folder.at("beside")), "kept");
    return failures;
  });
}

TEST_F(FailingSystemCallsTest, FoldersAreMadePrivateOrTheErrorSaysWhy) {
  withEachCallFailing([this](const FailingCall& call) {
    const TemporaryFolder folder;
    int failures = 0;
    bool done = false;
    {
      Error error;
      const FailingSystemCalls failing(call);
      done = files_.createDirectories(folder.at("a/b"), &error);
      failures = failing.failures();
      EXPECT_EQ(done, !error.isSet());
    }
    EXPECT_TRUE(files_.createDirectories(folder.at("a/b"), nullptr));
    EXPECT_EQ(testing::modeOf(folder.at("a/b")), 0700U);
    return failures;
  });
}

TEST_F(FailingSystemCallsTest, UnfinishedFilesAreRemovedAndOthersStay) {
  withEachCallFailing([](const FailingCall& call) {
    const TemporaryFolder folder;
    testing::writeFile(folder.at(".x.tmp-1"), "");
    testing::writeFile(folder.at("kept.plist"), "");
    int failures = 0;
    {
      const FailingSystemCalls failing(call);
      LinuxFiles::removeTemporaryFiles(folder.path());
      failures = failing.failures();
    }
    LinuxFiles::removeTemporaryFiles(folder.path());
    EXPECT_THAT(testing::namesIn(folder.path()), ElementsAre("kept.plist"));
    return failures;
  });
}

TEST_F(FailingSystemCallsTest, FileOfAFileSystemWithoutUnnamedFilesIsWholeAndLeavesNoOtherName) {
  for (const int unnamed : {EOPNOTSUPP, EISDIR, ENOENT, EINVAL}) {
    for (const int noReplace : {EINVAL, ENOSYS}) {
      const TemporaryFolder folder;
      {
        const FailingSystemCalls failing({{.name = "openat", .nth = 2, .error = unnamed},
                                          {.name = "renameat2", .error = noReplace}});
        const auto prepared = files_.prepareFile(folder.path(), "m.plist", "content", nullptr);
        ASSERT_TRUE(prepared);
        EXPECT_EQ(failing.failures(), 1) << unnamed;
        EXPECT_TRUE(prepared->publish());
        EXPECT_EQ(failing.failures(), 2);
      }
      EXPECT_THAT(testing::namesIn(folder.path()), ElementsAre("m.plist"));
      EXPECT_EQ(testing::readFile(folder.at("m.plist")), "content");
    }
  }
}

TEST_F(FailingSystemCallsTest, FileThatIsNamedFromTheStartIsPublishedWholeOrNotAtAll) {
  withEachCallFailing([this](const FailingCall& call) {
    const TemporaryFolder folder;
    int failures = 0;
    bool done = false;
    {
      const FailingSystemCalls failing({{.name = "openat", .nth = 2, .error = EOPNOTSUPP}, call});
      const auto prepared = files_.prepareFile(folder.path(), "m.plist", "content", nullptr);
      done = prepared && prepared->publish();
      failures = failing.failures(1);
    }
    EXPECT_EQ(testing::readFile(folder.at("m.plist")), done ? "content" : "");
    LinuxFiles::removeTemporaryFiles(folder.path());
    EXPECT_THAT(testing::namesIn(folder.path()), SizeIs(done ? 1 : 0));
    return failures;
  });
}

class FailingPasteboards : public FailingSystemCallsTest {
 protected:
  static Value read(const TemporaryFolder& cache, const std::string& name) {
    return PasteboardReader(cache.path()).read(name, kType).value_or(Value());
  }

  /// A host with one pasteboard that has content.
  struct Host {
    explicit Host(const TemporaryFolder& cache, const Value& content = 1)
        : store(cache.path(), log), made(store.makeUnique(nullptr)) {
      EXPECT_TRUE(made->setPropertyList(content, kType));
    }
    testing::CollectingLog log;
    PasteboardStore store;
    const std::shared_ptr<Pasteboard> made;
  };
};

TEST_F(FailingPasteboards, ContentIsWholeOrNone) {
  withEachCallFailing([](const FailingCall& call) {
    const TemporaryFolder cache;
    testing::CollectingLog log;
    int failures = 0;
    {
      std::unique_ptr<PasteboardStore> store;
      std::shared_ptr<Pasteboard> made;
      bool written = false;
      {
        const FailingSystemCalls failing(call);
        store = std::make_unique<PasteboardStore>(cache.path(), log);
        Error error;
        made = store->makeUnique(&error);
        EXPECT_EQ(made == nullptr, error.isSet());
        written = made && made->setPropertyList(1, kType, nullptr);
        failures = failing.failures();
      }
      if (made) {
        EXPECT_EQ(read(cache, made->name()), written ? Value(1) : Value());
        EXPECT_TRUE(made->setPropertyList(2, kType));
        EXPECT_EQ(read(cache, made->name()), Value(2));
      }
      EXPECT_TRUE(store->makeUnique(nullptr));
    }
    EXPECT_THAT(testing::namesIn(cache.at("tallyhive/pasteboards.locks")), IsEmpty());
    return failures;
  });
}

TEST_F(FailingPasteboards, ContentWhoseFileCannotBeClosedIsNone) {
  const TemporaryFolder cache;
  const Host host(cache, 0);
  for (int nth = 1; nth < 30; ++nth) {
    bool written = false;
    {
      // The file system has no unnamed files; a close that fails may have lost what was written.
      const FailingSystemCalls failing(
          {{.name = "openat", .nth = nth, .error = EOPNOTSUPP}, {.name = "close", .nth = nth}});
      written = host.made->setPropertyList(nth, kType, nullptr);
    }
    EXPECT_EQ(read(cache, host.made->name()) == Value(nth), written) << nth;
  }
}

TEST_F(FailingPasteboards, ContentThatIsReplacedIsTheOldTheNewOrNone) {
  withEachCallFailing([](const FailingCall& call) {
    const TemporaryFolder cache;
    const Host host(cache, "old");
    int failures = 0;
    bool written = false;
    {
      const FailingSystemCalls failing(call);
      written = host.made->setPropertyList("new", kType, nullptr);
      failures = failing.failures();
    }
    const Value found = read(cache, host.made->name());
    if (written) {
      EXPECT_EQ(found, Value("new"));
    } else {
      EXPECT_THAT(found, AnyOf(Value("old"), Value()));
    }
    host.made->clearContents();
    EXPECT_TRUE(read(cache, host.made->name()).isNull());
    return failures;
  });
}

TEST_F(FailingPasteboards, ClearedAndReleasedOnesAreGoneAfterTheNextAttempt) {
  withEachCallFailing([](const FailingCall& call) {
    const TemporaryFolder cache;
    testing::CollectingLog log;
    const std::string pasteboards = cache.at("tallyhive/pasteboards");
    int failures = 0;
    {
      const Host host(cache);
      const FailingSystemCalls failing(call);
      host.made->clearContents();
      host.made->declareType(kType);
      host.made->releaseGlobally();
      failures = failing.failures();
    }
    const PasteboardStore next(cache.path(), log);
    EXPECT_THAT(testing::namesIn(pasteboards), IsEmpty());
    return failures;
  });
}

TEST_F(FailingPasteboards, ReaderGivesAllOrTheError) {
  const TemporaryFolder cache;
  const Host host(cache);
  withEachCallFailing([&](const FailingCall& call) {
    Error error;
    const FailingSystemCalls failing(call);
    const auto found =
        PasteboardReader(cache.path()).read(host.made->name(), kType, kBatchLimits, &error);
    EXPECT_EQ(found.has_value(), !error.isSet());
    return failing.failures();
  });
}

TEST_F(FailingPasteboards, SweepNeverTakesThoseOfALivingHost) {
  withEachCallFailing([](const FailingCall& call) {
    const TemporaryFolder cache;
    testing::CollectingLog log;
    const Host living(cache);
    testing::makeFolder(cache.at("tallyhive/pasteboards/0123456789abcdef-1"));
    int failures = 0;
    {
      const FailingSystemCalls failing(call);
      const PasteboardStore next(cache.path(), log);
      failures = failing.failures();
    }
    EXPECT_EQ(read(cache, living.made->name()), Value(1));
    const PasteboardStore after(cache.path(), log);
    EXPECT_EQ(read(cache, living.made->name()), Value(1));
    EXPECT_FALSE(testing::exists(cache.at("tallyhive/pasteboards/0123456789abcdef-1")));
    return failures;
  });
}

TEST_F(FailingPasteboards, LockThatStandsInTheWayIsTakenAway) {
  const TemporaryFolder cache;
  testing::CollectingLog log;
  PasteboardStore store(cache.path(), log);
  {
    // Somebody's file of the same name, as the link meets it.
    const FailingSystemCalls failing({.name = "linkat", .nth = 1, .error = EEXIST});
    EXPECT_TRUE(store.makeUnique(nullptr));
  }
  PasteboardStore other(cache.path(), log);
  const FailingSystemCalls failing({.name = "linkat", .error = EEXIST, .fromThenOn = true});
  EXPECT_FALSE(other.makeUnique(nullptr));
}

TEST_F(FailingSystemCallsTest, UserDefaultsKeepTheirOtherKeys) {
  withEachCallFailing([](const FailingCall& call) {
    const TemporaryFolder folder;
    testing::CollectingLog log;
    testing::writeFile(folder.at("defaults.plist"),
                       writeBinaryPropertyList(Dictionary{{"other", 1}}).value_or(""));
    int failures = 0;
    {
      bool done = false;
      {
        const FailingSystemCalls failing(call);
        LinuxPreferences preferences(folder.path(), log);
        preferences.set("key", 2);
        done = preferences.flush();
        failures = failing.failures();
      }
      LinuxPreferences next(folder.path(), log);
      EXPECT_EQ(next.get("other"), Value(1));
      if (done) {
        EXPECT_EQ(next.get("key"), Value(2));
      }
      next.set("key", 3);
      EXPECT_TRUE(next.flush());
    }
    EXPECT_EQ(LinuxPreferences(folder.path(), log).get("other"), Value(1));
    return failures;
  });
}

class FailingApplications : public FailingSystemCallsTest {
 protected:
  FailingApplications() { testing::makeFolder(applications_); }

  std::unique_ptr<testing::Child> application() const {
    return std::make_unique<testing::Child>([this] {
      const std::string path = applications_ + "/org.example.client." + std::to_string(::getpid());
      Descriptor file = openAt(AT_FDCWD, path, O_RDWR | O_CREAT | O_EXCL, 0600);
      const bool locked = ::flock(file.get(), LOCK_EX | LOCK_NB) == 0;
      static_cast<void>(file.release());
      return std::string(locked ? "ready" : "failed");
    });
  }

  const TemporaryFolder folder_;
  const std::string applications_ = folder_.at("applications");
};

TEST_F(FailingApplications, OneThatRunsIsNeverToldToHaveQuit) {
  const auto child = application();
  withEachCallFailing([&](const FailingCall& call) {
    testing::CollectingLog log;
    LinuxExecution execution(log);
    std::vector<std::string> quit;
    RunningApplications running(applications_, execution,
                                [&](const std::string& bundle) { quit.push_back(bundle); });
    int failures = 0;
    {
      const FailingSystemCalls failing(call);
      running.start();
      failures = failing.failures();
    }
    // What could not be looked at is looked at again with the next change.
    testing::writeFile(applications_ + "/stray", "x");
    execution.retryWatches();
    execution.mainQueue().post([&] { execution.mainQueue().stop(); });
    EXPECT_TRUE(testing::runUntilStopped(execution.mainQueue()));
    ::unlink((applications_ + "/stray").c_str());
    EXPECT_THAT(quit, IsEmpty());
    return failures;
  });
  EXPECT_TRUE(RunningApplications::isRunning(applications_, "org.example.client"));
}

TEST_F(FailingApplications, OneThatHasQuitIsToldAtLastAndOnce) {
  withEachCallFailing([&](const FailingCall& call) {
    testing::CollectingLog log;
    LinuxExecution execution(log);
    MainLoop& loop = execution.mainQueue();
    std::vector<std::string> quit;
    RunningApplications running(applications_, execution,
                                [&](const std::string& bundle) { quit.push_back(bundle); });
    auto child = application();
    running.start();
    child->kill();
    int failures = 0;
    {
      const FailingSystemCalls failing(call);
      // The end of the process comes before what is posted behind it.
      loop.post([&loop] { loop.post([&loop] { loop.post([&loop] { loop.stop(); }); }); });
      loop.run();
      failures = failing.failures();
    }
    for (int round = 0; round < 100 && quit.empty(); ++round) {
      testing::writeFile(applications_ + "/stray", "x");
      loop.postAfter(std::chrono::milliseconds(1), [&loop] { loop.stop(); });
      loop.run();
      ::unlink((applications_ + "/stray").c_str());
    }
    EXPECT_THAT(quit, ElementsAre("org.example.client"));
    EXPECT_FALSE(RunningApplications::isRunning(applications_, "org.example.client"));
    return failures;
  });
}

TEST_F(FailingApplications, OneWhoseFileCannotBeRemovedIsToldOnce) {
  testing::CollectingLog log;
  LinuxExecution execution(log);
  MainLoop& loop = execution.mainQueue();
  std::vector<std::string> quit;
  RunningApplications running(applications_, execution,
                              [&](const std::string& bundle) { quit.push_back(bundle); });
  auto child = application();
  running.start();
  child->kill();
  const auto seesAChange = [&] {
    testing::writeFile(applications_ + "/stray", "x");
    loop.postAfter(std::chrono::milliseconds(5), [&loop] { loop.stop(); });
    loop.run();
    ::unlink((applications_ + "/stray").c_str());
  };
  {
    const FailingSystemCalls failing({.name = "unlinkat", .error = EROFS, .fromThenOn = true});
    for (int round = 0; round < 100 && failing.failures() < 5; ++round) seesAChange();
    EXPECT_GE(failing.failures(), 5);
  }
  EXPECT_THAT(quit, ElementsAre("org.example.client"));
  for (int round = 0; round < 100 && !testing::namesIn(applications_).empty(); ++round) {
    seesAChange();
  }
  EXPECT_THAT(testing::namesIn(applications_), IsEmpty());
  EXPECT_THAT(quit, ElementsAre("org.example.client"));
}

TEST_F(FailingApplications, LeftOverThatCannotBeRemovedIsNeverTold) {
  testing::writeFile(applications_ + "/org.example.client.2147483647", "");
  testing::CollectingLog log;
  LinuxExecution execution(log);
  MainLoop& loop = execution.mainQueue();
  std::vector<std::string> quit;
  RunningApplications running(applications_, execution,
                              [&](const std::string& bundle) { quit.push_back(bundle); });
  {
    const FailingSystemCalls failing({.name = "unlinkat", .error = EROFS, .fromThenOn = true});
    running.start();
    EXPECT_EQ(failing.failures(), 1);
  }
  for (int round = 0; round < 100 && !testing::namesIn(applications_).empty(); ++round) {
    testing::writeFile(applications_ + "/stray", "x");
    ::unlink((applications_ + "/stray").c_str());
    loop.postAfter(std::chrono::milliseconds(5), [&loop] { loop.stop(); });
    loop.run();
  }
  EXPECT_THAT(testing::namesIn(applications_), IsEmpty());
  EXPECT_THAT(quit, IsEmpty());
}

TEST_F(FailingApplications, FileInThePlaceOfOneThatHasQuitIsThatOfAnother) {
  testing::CollectingLog log;
  LinuxExecution execution(log);
  MainLoop& loop = execution.mainQueue();
  std::vector<std::string> quit;
  RunningApplications running(applications_, execution, [&](const std::string& bundle) {
    quit.push_back(bundle);
    loop.stop();
  });
  auto child = application();
  const FailingSystemCalls failing({.name = "syscall", .error = EMFILE, .fromThenOn = true});
  running.start();
  const std::string path = applications_ + "/" + testing::namesIn(applications_).at(0);
  child->kill();
  EXPECT_EQ(::unlink(path.c_str()), 0);
  testing::writeFile(path, "");
  EXPECT_TRUE(testing::runUntilStopped(loop));
  EXPECT_THAT(quit, ElementsAre("org.example.client", "org.example.client"));
  EXPECT_THAT(testing::namesIn(applications_), IsEmpty());
}

TEST_F(FailingApplications, LookTellsWhatItCanSee) {
  const auto child = application();
  withEachCallFailing([&](const FailingCall& call) {
    const FailingSystemCalls failing(call);
    const auto all = RunningApplications::look(applications_);
    EXPECT_LE(all.size(), 1U);
    return failing.failures();
  });
}

class FailingWatches : public FailingSystemCallsTest {
 protected:
  std::unique_ptr<DirectoryWatch> watch(InotifyWatches& watches, const std::string& directory) {
    auto made = watches.makeWatch(
        directory,
        [queue = queue_](std::function<void()> closure) { queue->post(std::move(closure)); },
        [calls = calls_] { calls->raise(); });
    made->resume();
    return made;
  }

  void drain() {
    auto drained = std::make_shared<testing::Count>();
    queue_->post([drained] { drained->raise(); });
    EXPECT_TRUE(drained->reaches(1));
  }

  /// Null for a thread.
  std::vector<std::shared_ptr<LinuxSerialQueue>> readers() const { return {nullptr, queue_}; }

  const std::shared_ptr<LinuxSerialQueue> queue_ = LinuxSerialQueue::create("test.failing");
  const std::shared_ptr<testing::Count> calls_ = std::make_shared<testing::Count>();
};

TEST_F(FailingWatches, WatchThatCannotBeSetIsSetLaterAndToldOnceAtMost) {
  // From its first watch on a queue keeps what wakes it.
  const TemporaryFolder any;
  testing::CollectingLog anyLog;
  {
    InotifyWatches watches(anyLog, queue_);
    watch(watches, any.path());
    drain();
  }
  drain();
  for (const auto& reader : readers()) {
    withEachCallFailing([&](const FailingCall& call) {
      const TemporaryFolder folder;
      testing::CollectingLog log;
      int failures = 0;
      {
        InotifyWatches watches(log, reader);
        std::unique_ptr<DirectoryWatch> made;
        {
          const FailingSystemCalls failing(call);
          made = watch(watches, folder.path());
          failures = failing.failures();
        }
        EXPECT_LE(log.lines().size(), 1U);
        watches.retry();
        // A watch that is set now is a call.
        drain();
        const int before = calls_->value();
        testing::writeFile(folder.at("new"), "");
        EXPECT_TRUE(calls_->reaches(before + 1));
      }
      drain();
      return failures;
    });
  }
}

TEST_F(FailingWatches, EachRefusalIsToldOnce) {
  const TemporaryFolder folder;
  const std::vector<FailingCall> refusals = {
      {.name = "inotify_add_watch", .error = ENOSPC, .fromThenOn = true},
      {.name = "inotify_add_watch", .error = ENOMEM, .fromThenOn = true},
      {.name = "inotify_add_watch", .error = EACCES, .fromThenOn = true},
      {.name = "eventfd", .error = EMFILE, .fromThenOn = true},
      {.name = "eventfd", .error = ENFILE, .fromThenOn = true},
      {.name = "eventfd", .error = EAGAIN, .fromThenOn = true}};
  for (const FailingCall& refusal : refusals) {
    testing::CollectingLog log;
    InotifyWatches watches(log);
    const FailingSystemCalls failing(refusal);
    const auto made = watch(watches, folder.path());
    watches.retry();
    ASSERT_THAT(log.lines(), SizeIs(1));
    EXPECT_EQ(log.lines()[0], "tallyhive: the folder " + folder.path() + " cannot be watched: " +
                                  Error::posix(refusal.error, "inotify").description);
  }
}

TEST_F(FailingWatches, QueueThatCannotBeWokenReadsOnceItCan) {
  const TemporaryFolder folder;
  testing::CollectingLog log;
  InotifyWatches watches(log, queue_);
  std::unique_ptr<DirectoryWatch> made;
  {
    const FailingSystemCalls failing({.name = "eventfd", .error = EMFILE});
    made = watch(watches, folder.path());
    EXPECT_EQ(failing.failures(), 1);
  }
  EXPECT_THAT(log.lines(), SizeIs(1));
  watches.retry();
  drain();
  EXPECT_EQ(calls_->value(), 1);
  testing::writeFile(folder.at("new"), "");
  EXPECT_TRUE(calls_->reaches(2));
}

TEST_F(FailingWatches, FoldersAboveThatMayNotBeReadAreNoHindrance) {
  const TemporaryFolder folder;
  testing::CollectingLog log;
  InotifyWatches watches(log);
  std::unique_ptr<DirectoryWatch> made;
  {
    const FailingSystemCalls failing({.name = "inotify_add_watch", .nth = 1, .error = EACCES});
    made = watch(watches, folder.path());
    EXPECT_EQ(failing.failures(), 1);
  }
  testing::writeFile(folder.at("new"), "");
  EXPECT_TRUE(calls_->reaches(1));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(FailingWatches, ReaderGoesOnAfterAnInterruption) {
  for (const auto& reader : readers()) {
    const TemporaryFolder folder;
    testing::CollectingLog log;
    InotifyWatches watches(log, reader);
    const auto made = watch(watches, folder.path());
    for (const char* call : {"poll", "read"}) {
      drain();
      const int before = calls_->value();
      const FailingSystemCalls failing({.name = call, .error = EINTR, .anyThread = true});
      testing::writeFile(folder.at(std::string("first-") + call), "");
      testing::writeFile(folder.at(std::string("second-") + call), "");
      EXPECT_TRUE(calls_->reaches(before + 1));
      EXPECT_EQ(failing.failures(), 1);
    }
    drain();
  }
}

TEST_F(FailingSystemCallsTest, LoopWithoutDescriptorsSaysSo) {
  for (const char* call : {"epoll_create1", "eventfd", "epoll_ctl"}) {
    const FailingSystemCalls failing({.name = call, .error = EMFILE});
    MainLoop loop;
    EXPECT_FALSE(loop.run()) << call;
    EXPECT_FALSE(loop.watchDescriptor(0, [] {}));
  }
}

TEST_F(FailingSystemCallsTest, SignalsThatCannotBeWatchedAreRefused) {
  const FailingSystemCalls failing({.name = "signalfd", .error = EMFILE});
  MainLoop loop;
  EXPECT_FALSE(loop.watchSignals({SIGUSR2}, [](int) {}));
}

TEST_F(FailingSystemCallsTest, RuntimeFolderIsUsableOrTheErrorSaysWhatToDo) {
  withEachCallFailing([](const FailingCall& call) {
    const TemporaryFolder folder;
    const auto folders = XdgFolders::from([](const char*) { return nullptr; }, folder.path());
    int failures = 0;
    {
      Error error;
      const FailingSystemCalls failing(call);
      const bool done = folders.prepareRuntime(&error);
      failures = failing.failures();
      EXPECT_EQ(done, !error.isSet());
      EXPECT_EQ(done, error.description.find("set XDG_RUNTIME_DIR") == std::string::npos);
    }
    EXPECT_TRUE(folders.prepareRuntime(nullptr));
    return failures;
  });
}

TEST_F(FailingSystemCallsTest, BookmarkLeadsToItsFolderOrNowhere) {
  const TemporaryFolder folder;
  testing::CollectingLog log;
  LinuxExecution execution(log);
  LinuxApplication application(XdgFolders::from([](const char*) { return nullptr; }), execution,
                               log);
  const Url url = Url::file(folder.path());
  withEachCallFailing([&](const FailingCall& call) {
    const FailingSystemCalls failing(call);
    const auto bookmark = application.makeBookmark(url);
    const auto resolved = bookmark ? application.resolveBookmark(*bookmark) : std::nullopt;
    if (resolved) {
      EXPECT_EQ(resolved->url.path(), folder.path());
    } else {
      EXPECT_GT(failing.failures(), 0);
    }
    return failing.failures();
  });
}

TEST_F(FailingSystemCallsTest, LargeUserRecordIsAskedForWithMoreRoom) {
  const FailingSystemCalls failing({{.name = "getpwuid_r", .nth = 1, .error = ERANGE},
                                    {.name = "getpwuid_r", .nth = 1, .error = EINTR}});
  EXPECT_EQ(userRecordOf(::getuid()).has_value(), true);
  EXPECT_EQ(failing.failures(), 2);
}

TEST_F(FailingSystemCallsTest, UserRecordsThatCannotBeReadAreNone) {
  {
    const FailingSystemCalls failing({.name = "getpwuid_r", .error = EIO});
    EXPECT_FALSE(userRecordOf(::getuid()));
  }
  const FailingSystemCalls failing({.name = "getpwuid_r", .error = ERANGE, .fromThenOn = true});
  EXPECT_FALSE(userRecordOf(::getuid()));
}

TEST_F(FailingSystemCallsTest, RandomNamesWaitForTheirRandomBits) {
  const FailingSystemCalls failing({.name = "getrandom", .error = EINTR});
  EXPECT_THAT(randomHex(16), SizeIs(32));
  EXPECT_EQ(failing.failures(), 1);
}

TEST_F(FailingSystemCallsTest, WithoutRandomBitsTheProcessEndsBeforeItGivesAName) {
  EXPECT_EXIT(
      {
        const FailingSystemCalls failing({.name = "getrandom", .error = EIO});
        std::cerr << randomHex(16);
      },
      ::testing::KilledBySignal(SIGABRT), "^$");
}

}  // namespace
}  // namespace thmp
