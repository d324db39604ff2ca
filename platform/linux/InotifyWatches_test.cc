// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/InotifyWatches.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <new>

#include "platform/linux/LinuxSerialQueue.h"
#include "platform/linux/testing.h"

namespace thmp {
namespace {

using testing::Count;
using testing::TemporaryFolder;

enum class Reader { kThread, kQueue };

class InotifyWatchesTest : public ::testing::TestWithParam<Reader> {
 protected:
  // A watch that went has left a task behind, which knows of all watches.
  void TearDown() override { drain(); }

  static InotifyWatches::Poster onto(std::shared_ptr<SerialQueue> queue) {
    return [queue = std::move(queue)](std::function<void()> closure) {
      queue->post(std::move(closure));
    };
  }

  std::unique_ptr<DirectoryWatch> watch(InotifyWatches& watches, const std::string& directory,
                                        const std::shared_ptr<Count>& calls) {
    auto made = watches.makeWatch(directory, onto(queue_), [calls] { calls->raise(); });
    made->resume();
    return made;
  }

  /// Null for a thread.
  static std::shared_ptr<LinuxSerialQueue> newReader() {
    return GetParam() == Reader::kThread ? nullptr : LinuxSerialQueue::create("test.reader");
  }

  /// Until all that is posted has run.
  void drain() { drain(queue_); }
  static void drain(const std::shared_ptr<LinuxSerialQueue>& queue) {
    if (!queue) return;
    auto drained = std::make_shared<Count>();
    queue->post([drained] { drained->raise(); });
    EXPECT_TRUE(drained->reaches(1));
  }

  /// Whether a new file in `directory` is reported.
  ::testing::AssertionResult reportsFileIn(const std::string& directory) {
    drain();
    const int before = calls_->value();
    testing::writeFile(directory + "/new-" + std::to_string(++files_), "x");
    if (calls_->reaches(before + 1)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << directory;
  }

  static void rename(const std::string& from, const std::string& to) {
    EXPECT_EQ(::rename(from.c_str(), to.c_str()), 0);
  }

  const TemporaryFolder folder_;
  testing::CollectingLog log_;
  const std::shared_ptr<LinuxSerialQueue> queue_ = LinuxSerialQueue::create("test.watches");
  InotifyWatches watches_{log_, GetParam() == Reader::kThread ? nullptr : queue_};
  const std::shared_ptr<Count> calls_ = std::make_shared<Count>();
  int files_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Readers, InotifyWatchesTest,
                         ::testing::Values(Reader::kThread, Reader::kQueue),
                         [](const auto& reader) {
                           return reader.param == Reader::kThread ? "Thread" : "Queue";
                         });

TEST_P(InotifyWatchesTest, FolderMovedAwayAndMadeAnewIsReportedAndToldOnce) {
  testing::makeFolder(folder_.at("in"));
  const auto made = watch(watches_, folder_.at("in"), calls_);
  rename(folder_.at("in"), folder_.at("aside"));
  testing::makeFolder(folder_.at("in"));
  ASSERT_TRUE(calls_->reaches(1));
  EXPECT_TRUE(reportsFileIn(folder_.at("in")));
  EXPECT_EQ(log_.lines(), std::vector<std::string>{"tallyhive: the folder " + folder_.at("in") +
                                                   " was made anew and is watched again"});
}

TEST_P(InotifyWatchesTest, FolderMovedAwayNoLongerCounts) {
  testing::makeFolder(folder_.at("in"));
  testing::makeFolder(folder_.at("other"));
  const auto made = watch(watches_, folder_.at("in"), calls_);
  rename(folder_.at("in"), folder_.at("aside"));
  testing::makeFolder(folder_.at("in"));
  ASSERT_TRUE(calls_->reaches(1));
  drain();
  const int before = calls_->value();
  auto sentinelCalls = std::make_shared<Count>();
  const auto sentinel = watch(watches_, folder_.at("other"), sentinelCalls);
  testing::writeFile(folder_.at("aside/late"), "x");
  testing::writeFile(folder_.at("other/late"), "x");
  ASSERT_TRUE(sentinelCalls->reaches(1));
  drain();
  EXPECT_EQ(calls_->value(), before);
}

TEST_P(InotifyWatchesTest, AnyFolderOnTheWayMayBeReplaced) {
  for (const std::string level : {"a", "a/b", "a/b/c", "a/b/c/in"}) {
    testing::makeFolder(folder_.at("a/b/c/in"));
    const auto calls = std::make_shared<Count>();
    const auto made = watch(watches_, folder_.at("a/b/c/in"), calls);
    rename(folder_.at(level), folder_.at("aside"));
    testing::makeFolder(folder_.at("a/b/c/in"));
    ASSERT_TRUE(calls->reaches(1)) << level;
    drain();
    const int before = calls->value();
    testing::writeFile(folder_.at("a/b/c/in/new"), "x");
    EXPECT_TRUE(calls->reaches(before + 1)) << level;
    std::filesystem::remove_all(folder_.at("aside"));
    std::filesystem::remove_all(folder_.at("a"));
    made->cancel();
    drain();
  }
}

TEST_P(InotifyWatchesTest, FolderWithoutAnyOnTheWayIsWatchedOnceItIsMade) {
  const auto made = watch(watches_, folder_.at("a/b/c/in"), calls_);
  testing::makeFolder(folder_.at("a/b/c/in"));
  ASSERT_TRUE(calls_->reaches(1));
  EXPECT_TRUE(reportsFileIn(folder_.at("a/b/c/in")));
}

TEST_P(InotifyWatchesTest, FolderDeletedAndMadeAnewManyTimesIsStillWatched) {
  const auto made = watch(watches_, folder_.at("a/in"), calls_);
  for (int i = 0; i < 50; ++i) {
    testing::makeFolder(folder_.at("a/in"));
    if (i % 2 == 0) testing::writeFile(folder_.at("a/in/file"), "x");
    std::filesystem::remove_all(folder_.at(i % 3 == 0 ? "a" : "a/in"));
  }
  drain();
  const int before = calls_->value();
  testing::makeFolder(folder_.at("a/in"));
  ASSERT_TRUE(calls_->reaches(before + 1));
  EXPECT_TRUE(reportsFileIn(folder_.at("a/in")));
}

TEST_P(InotifyWatchesTest, FileInPlaceOfTheFolderIsNotWatchedUntilAFolderStandsThere) {
  testing::writeFile(folder_.at("in"), "x");
  const auto made = watch(watches_, folder_.at("in"), calls_);
  EXPECT_EQ(::unlink(folder_.at("in").c_str()), 0);
  testing::makeFolder(folder_.at("in"));
  ASSERT_TRUE(calls_->reaches(1));
  EXPECT_TRUE(reportsFileIn(folder_.at("in")));
}

TEST_P(InotifyWatchesTest, LinkThatIsPointedElsewhereIsFollowed) {
  testing::makeFolder(folder_.at("first"));
  testing::makeFolder(folder_.at("second"));
  ASSERT_EQ(::symlink("first", folder_.at("in").c_str()), 0);
  const auto made = watch(watches_, folder_.at("in"), calls_);
  EXPECT_TRUE(reportsFileIn(folder_.at("first")));
  drain();
  const int before = calls_->value();
  ASSERT_EQ(::symlink("second", folder_.at("new").c_str()), 0);
  rename(folder_.at("new"), folder_.at("in"));
  ASSERT_TRUE(calls_->reaches(before + 1));
  EXPECT_TRUE(reportsFileIn(folder_.at("second")));
}

TEST_P(InotifyWatchesTest, ChangesThatComeWhileTheQueueIsBusyAreOneCall) {
  testing::makeFolder(folder_.at("in"));
  testing::makeFolder(folder_.at("other"));
  const auto made = watch(watches_, folder_.at("in"), calls_);
  auto otherCalls = std::make_shared<Count>();
  const auto otherQueue = LinuxSerialQueue::create("test.other");
  const auto other = watches_.makeWatch(folder_.at("other"), onto(otherQueue),
                                        [otherCalls] { otherCalls->raise(); });
  other->resume();
  auto entered = std::make_shared<Count>();
  auto leave = std::make_shared<Count>();
  queue_->post([entered, leave] {
    entered->raise();
    EXPECT_TRUE(leave->reaches(1));
  });
  ASSERT_TRUE(entered->reaches(1));
  // More than the reader takes at a time.
  for (int i = 0; i < 2000; ++i) testing::writeFile(folder_.at("in/" + std::to_string(i)), "x");
  // A thread reads it after all of the others, so those have been read, too. A queue that is busy
  // reads nothing.
  testing::writeFile(folder_.at("other/last"), "x");
  if (GetParam() == Reader::kThread) {
    ASSERT_TRUE(otherCalls->reaches(1));
  }
  leave->raise();
  ASSERT_TRUE(calls_->reaches(1));
  drain();
  EXPECT_EQ(calls_->value(), 1);
}

TEST_P(InotifyWatchesTest, OverflowOfTheKernelsQueueMeansAChange) {
  testing::makeFolder(folder_.at("in"));
  testing::makeFolder(folder_.at("quiet"));
  const auto quietCalls = std::make_shared<Count>();
  const auto quiet = watch(watches_, folder_.at("quiet"), quietCalls);
  // The reader stands still while the log takes its line, and the queue of events runs over.
  struct BlockingLog final : SystemLog {
    void write(std::string_view) noexcept override {
      entered.raise();
      leave.reaches(1);
    }
    Count entered;
    Count leave;
  } blocking;
  {
    InotifyWatches watches(blocking, newReader());
    const auto calls = std::make_shared<Count>();
    const auto overflowCalls = std::make_shared<Count>();
    const auto first = watch(watches, folder_.at("late"), calls);
    const auto unheard = watch(watches, folder_.at("quiet"), overflowCalls);
    const auto flooded = watch(watches, folder_.at("in"), calls);
    testing::makeFolder(folder_.at("late"));
    ASSERT_TRUE(blocking.entered.reaches(1));
    const std::string name = folder_.at("in/file");
    const std::string other = folder_.at("in/other");
    testing::writeFile(name, "x");
    for (int i = 0; i < 20'000; ++i) {
      ASSERT_EQ(::rename(name.c_str(), other.c_str()), 0);
      ASSERT_EQ(::rename(other.c_str(), name.c_str()), 0);
    }
    blocking.leave.raise();
    EXPECT_TRUE(overflowCalls->reaches(1));
  }
  EXPECT_EQ(quietCalls->value(), 0);
}

TEST_P(InotifyWatchesTest, WatchTheSystemRefusesIsToldOnceAndSetLater) {
  testing::makeFolder(folder_.at("in"));
  auto refuse = std::make_shared<std::atomic<bool>>(true);
  InotifyWatches watches(log_, newReader(), [refuse] {
    if (!*refuse) return ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    errno = EMFILE;
    return -1;
  });
  const auto made = watch(watches, folder_.at("in"), calls_);
  watches.retry();
  ASSERT_EQ(log_.lines().size(), 1U);
  EXPECT_TRUE(log_.lines()[0].starts_with("tallyhive: the folder " + folder_.at("in") +
                                          " cannot be watched: "))
      << log_.lines()[0];
  testing::writeFile(folder_.at("in/unseen"), "x");
  drain();
  EXPECT_EQ(calls_->value(), 0);
  *refuse = false;
  watches.retry();
  // What came meanwhile is looked for.
  ASSERT_TRUE(calls_->reaches(1));
  EXPECT_TRUE(reportsFileIn(folder_.at("in")));
  EXPECT_EQ(log_.lines().size(), 1U);
}

TEST_P(InotifyWatchesTest, RetryLeavesWatchesThatRunAlone) {
  testing::makeFolder(folder_.at("in"));
  const auto made = watch(watches_, folder_.at("in"), calls_);
  watches_.retry();
  drain();
  EXPECT_EQ(calls_->value(), 0);
}

TEST_P(InotifyWatchesTest, ManyWatchesTakeOneInstanceAndGiveAllBack) {
  testing::makeFolder(folder_.at("in"));
  const auto reader = newReader();
  const std::size_t before = testing::openDescriptors();
  {
    InotifyWatches watches(log_, reader);
    std::vector<std::unique_ptr<DirectoryWatch>> made;
    made.reserve(200);
    for (int i = 0; i < 200; ++i) made.push_back(watch(watches, folder_.at("in"), calls_));
    EXPECT_LE(testing::openDescriptors(), before + 2);
    made.clear();
    drain();
  }
  drain();
  // The reader may be in its last look at the instance.
  drain(reader);
  // A queue keeps what wakes it.
  EXPECT_LE(testing::openDescriptors(), before + (GetParam() == Reader::kThread ? 0 : 1));
}

TEST_P(InotifyWatchesTest, QueueThatHadNoMemoryForACallGetsTheNextOne) {
  testing::makeFolder(folder_.at("in"));
  auto refusals = std::make_shared<Count>();
  const auto made = watches_.makeWatch(
      folder_.at("in"),
      [refusals, post = onto(queue_)](std::function<void()> closure) {
        if (refusals->value() == 0) {
          refusals->raise();
          throw std::bad_alloc();
        }
        post(std::move(closure));
      },
      [calls = calls_] { calls->raise(); });
  made->resume();
  testing::writeFile(folder_.at("in/first"), "x");
  ASSERT_TRUE(refusals->reaches(1));
  EXPECT_TRUE(reportsFileIn(folder_.at("in")));
}

TEST_P(InotifyWatchesTest, StartAndStopManyTimesWhileFilesCome) {
  testing::makeFolder(folder_.at("in"));
  std::atomic<bool> stop = false;
  std::thread writer([&] {
    for (int i = 0; !stop; ++i) {
      testing::writeFile(folder_.at("in/file"), "x");
      ::unlink(folder_.at("in/file").c_str());
    }
  });
  for (int i = 0; i < 500; ++i) {
    const auto made = watch(watches_, folder_.at("in"), calls_);
    if (i % 2 == 0) made->cancel();
  }
  stop = true;
  writer.join();
  drain();
  const auto made = watch(watches_, folder_.at("in"), calls_);
  EXPECT_TRUE(reportsFileIn(folder_.at("in")));
}

TEST_P(InotifyWatchesTest, WatchResumedTwiceIsOneAndOneResumedAfterItsEndIsNone) {
  testing::makeFolder(folder_.at("in"));
  const auto twice = watch(watches_, folder_.at("in"), calls_);
  twice->resume();
  const auto ended =
      watches_.makeWatch(folder_.at("in"), onto(queue_), [calls = calls_] { calls->raise(); });
  ended->cancel();
  ended->resume();
  EXPECT_TRUE(reportsFileIn(folder_.at("in")));
  drain();
  EXPECT_EQ(calls_->value(), 1);
}

TEST_P(InotifyWatchesTest, WatchThatOutlivesTheWatchesStaysSilent) {
  testing::makeFolder(folder_.at("in"));
  const auto reader = newReader();
  auto watches = std::make_unique<InotifyWatches>(log_, reader);
  const auto early = watch(*watches, folder_.at("in"), calls_);
  const auto late = watches->makeWatch(folder_.at("in"), onto(queue_), [] {});
  watches.reset();
  late->resume();
  testing::writeFile(folder_.at("in/file"), "x");
  // The reader's last look comes after what it runs first.
  drain(reader);
  drain(reader);
  drain();
  EXPECT_EQ(calls_->value(), 0);
}

}  // namespace
}  // namespace thmp
