// SPDX-License-Identifier: Apache-2.0
//
// That something is not called is shown beside a second watch which is: once that one has been
// called for a change, the first one's call for it would stand in the queue before.
#include <thread>

#include "tests/contract/fixtures.h"

namespace thmp {
namespace {

using contract::Counter;

class WatchContract : public contract::ContractTest<contract::ExecutionFixture,
                                                    &contract::Implementation::execution> {
 protected:
  contract::Scene& scene() { return fixture().scene(); }
  const std::string& folder() const { return folder_; }
  std::string at(const std::string& name) const { return folder_ + "/" + name; }
  const std::shared_ptr<SerialQueue>& queue() const { return queue_; }

  /// A watch whose calls raise the counter.
  std::unique_ptr<DirectoryWatch> makeWatch(const std::string& directory,
                                            const std::shared_ptr<Counter>& calls) {
    auto watch =
        fixture().execution().makeDirectoryWatch(directory, queue_, [calls] { calls->raise(); });
    EXPECT_NE(watch, nullptr);
    return watch;
  }

  bool called(Counter& calls, int least = 1) { return fixture().waitFor(calls, least); }

  /// Waits until all that was posted to the queue has run.
  void drainQueue() {
    auto drained = std::make_shared<Counter>();
    queue_->post([drained] { drained->raise(); });
    EXPECT_TRUE(fixture().waitFor(*drained, 1));
  }

  const std::shared_ptr<Counter> calls_ = std::make_shared<Counter>();

 private:
  const std::string folder_ = fixture().scene().freshFolder();
  const std::shared_ptr<SerialQueue> queue_ = fixture().execution().makeSerialQueue("test.watch");
};

THMP_RUN_CONTRACT(WatchContract);

TEST_P(WatchContract, AddedEntryIsReported) {
  const auto watch = makeWatch(folder(), calls_);
  watch->resume();
  scene().writeFile(at("new"), "x");

  EXPECT_TRUE(called(*calls_));
}

TEST_P(WatchContract, RemovedEntryIsReported) {
  scene().writeFile(at("old"), "x");
  const auto watch = makeWatch(folder(), calls_);
  watch->resume();
  scene().erase(at("old"));

  EXPECT_TRUE(called(*calls_));
}

TEST_P(WatchContract, RenamedEntryIsReported) {
  scene().writeFile(at("old"), "x");
  const auto watch = makeWatch(folder(), calls_);
  watch->resume();
  scene().rename(at("old"), at("new"));

  EXPECT_TRUE(called(*calls_));
}

TEST_P(WatchContract, EntryMovedInOrOutIsReported) {
  const std::string other = scene().freshFolder();
  scene().writeFile(other + "/file", "x");
  const auto watch = makeWatch(folder(), calls_);
  watch->resume();
  scene().rename(other + "/file", at("file"));
  ASSERT_TRUE(called(*calls_));
  drainQueue();
  const int before = calls_->count();
  scene().rename(at("file"), other + "/file");

  EXPECT_TRUE(called(*calls_, before + 1));
}

TEST_P(WatchContract, SubFolderIsAnEntryToo) {
  const auto watch = makeWatch(folder(), calls_);
  watch->resume();
  scene().makeFolder(at("sub"));

  EXPECT_TRUE(called(*calls_));
}

TEST_P(WatchContract, EveryChangeIsFollowedByACall) {
  const auto watch = makeWatch(folder(), calls_);
  watch->resume();
  for (int i = 1; i <= 20; ++i) {
    const int before = calls_->count();
    scene().writeFile(at(std::to_string(i)), "x");
    ASSERT_TRUE(called(*calls_, before + 1)) << i;
    drainQueue();
  }
}

TEST_P(WatchContract, CallSeesAllThatCameBeforeIt) {
  // What the reader relies on: the listing made in the last call is complete.
  constexpr int kFiles = 50;
  auto complete = std::make_shared<Counter>();
  const auto watch = fixture().execution().makeDirectoryWatch(
      folder(), queue(), [complete, &scene = scene(), folder = folder()] {
        if (scene.entries(folder).size() == kFiles) complete->raise();
      });
  watch->resume();
  std::thread writer([&] {
    for (int i = 0; i < kFiles; ++i) scene().writeFile(at(std::to_string(i)), "x");
  });
  writer.join();

  EXPECT_TRUE(fixture().waitFor(*complete, 1));
  watch->cancel();
  drainQueue();
}

TEST_P(WatchContract, CallsComeOnTheQueue) {
  auto onQueue = std::make_shared<Counter>();
  const auto watch =
      fixture().execution().makeDirectoryWatch(folder(), queue(), [onQueue, queue = queue()] {
        if (queue->isCurrent()) onQueue->raise();
      });
  watch->resume();
  scene().writeFile(at("new"), "x");

  EXPECT_TRUE(called(*onQueue));
}

TEST_P(WatchContract, ItNeverScansByItself) {
  scene().writeFile(at("old"), "x");
  const std::string other = scene().freshFolder();
  auto sentinelCalls = std::make_shared<Counter>();
  const auto watch = makeWatch(folder(), calls_);
  const auto sentinel = makeWatch(other, sentinelCalls);
  watch->resume();
  sentinel->resume();
  scene().writeFile(other + "/new", "x");

  ASSERT_TRUE(called(*sentinelCalls));
  drainQueue();
  EXPECT_EQ(calls_->count(), 0);
}

TEST_P(WatchContract, ChangesBelowASubFolderAreNotReported) {
  scene().makeFolder(at("sub"));
  auto sentinelCalls = std::make_shared<Counter>();
  const auto watch = makeWatch(folder(), calls_);
  const auto sentinel = makeWatch(at("sub"), sentinelCalls);
  watch->resume();
  sentinel->resume();
  scene().writeFile(at("sub/new"), "x");

  ASSERT_TRUE(called(*sentinelCalls));
  drainQueue();
  EXPECT_EQ(calls_->count(), 0);
}

TEST_P(WatchContract, NothingIsReportedBeforeResume) {
  auto sentinelCalls = std::make_shared<Counter>();
  const auto watch = makeWatch(folder(), calls_);
  const auto sentinel = makeWatch(folder(), sentinelCalls);
  sentinel->resume();
  scene().writeFile(at("new"), "x");

  ASSERT_TRUE(called(*sentinelCalls));
  drainQueue();
  EXPECT_EQ(calls_->count(), 0);
}

TEST_P(WatchContract, TwoWatchesOnOneFolderAreBothCalled) {
  auto otherCalls = std::make_shared<Counter>();
  const auto watch = makeWatch(folder(), calls_);
  const auto other = makeWatch(folder(), otherCalls);
  watch->resume();
  other->resume();
  scene().writeFile(at("new"), "x");

  EXPECT_TRUE(called(*calls_));
  EXPECT_TRUE(called(*otherCalls));
}

TEST_P(WatchContract, NoCallBeginsAfterCancel) {
  auto sentinelCalls = std::make_shared<Counter>();
  const auto watch = makeWatch(folder(), calls_);
  const auto sentinel = makeWatch(folder(), sentinelCalls);
  watch->resume();
  sentinel->resume();
  watch->cancel();
  scene().writeFile(at("new"), "x");

  ASSERT_TRUE(called(*sentinelCalls));
  drainQueue();
  EXPECT_EQ(calls_->count(), 0);
}

TEST_P(WatchContract, NoCallBeginsAfterDestruction) {
  auto sentinelCalls = std::make_shared<Counter>();
  auto watch = makeWatch(folder(), calls_);
  const auto sentinel = makeWatch(folder(), sentinelCalls);
  watch->resume();
  sentinel->resume();
  watch.reset();
  scene().writeFile(at("new"), "x");

  ASSERT_TRUE(called(*sentinelCalls));
  drainQueue();
  EXPECT_EQ(calls_->count(), 0);
}

TEST_P(WatchContract, CallThatStillWaitsInTheQueueDoesNotBeginAfterCancel) {
  const auto watch = makeWatch(folder(), calls_);
  watch->resume();
  auto cancelled = std::make_shared<Counter>();
  // The call for the change can only wait behind what is posted before it.
  queue()->post([&, cancelled] {
    queue()->post([&, cancelled] {
      watch->cancel();
      cancelled->raise();
    });
    scene().writeFile(at("new"), "x");
  });

  ASSERT_TRUE(fixture().waitFor(*cancelled, 1));
  drainQueue();
  EXPECT_EQ(calls_->count(), 0);
}

TEST_P(WatchContract, CancelMayBeRepeatedAndMayComeBeforeResume) {
  const auto resumed = makeWatch(folder(), calls_);
  resumed->resume();
  resumed->cancel();
  resumed->cancel();
  const auto never = makeWatch(folder(), calls_);
  never->cancel();
  drainQueue();

  EXPECT_EQ(calls_->count(), 0);
}

TEST_P(WatchContract, CancelFromInsideTheCallLetsItFinish) {
  struct Shared {
    std::unique_ptr<DirectoryWatch> watch;
    Counter finished;
  };
  auto shared = std::make_shared<Shared>();
  shared->watch = fixture().execution().makeDirectoryWatch(folder(), queue(),
                                                           [weak = std::weak_ptr<Shared>(shared)] {
                                                             const auto self = weak.lock();
                                                             if (!self) return;
                                                             self->watch.reset();
                                                             self->finished.raise();
                                                           });
  // On the queue, where the call cannot meet a watch that is not stored yet.
  auto resumed = std::make_shared<Counter>();
  queue()->post([shared, resumed] {
    shared->watch->resume();
    resumed->raise();
  });
  ASSERT_TRUE(fixture().waitFor(*resumed, 1));
  scene().writeFile(at("new"), "x");

  EXPECT_TRUE(called(shared->finished));
  drainQueue();
}

TEST_P(WatchContract, WatchHoldsItsCallbackUntilItEnds) {
  auto released = std::make_shared<Counter>();
  auto watch = fixture().execution().makeDirectoryWatch(
      folder(), queue(), [held = contract::onDestruction([released] { released->raise(); })] {});
  watch->resume();
  drainQueue();
  EXPECT_EQ(released->count(), 0);
  watch->cancel();

  EXPECT_TRUE(fixture().waitFor(*released, 1));
}

TEST_P(WatchContract, FolderThatIsNotThereGivesASilentWatch) {
  auto sentinelCalls = std::make_shared<Counter>();
  scene().writeFile(at("file"), "x");
  const auto missing = makeWatch(at("none"), calls_);
  const auto file = makeWatch(at("file"), calls_);
  const auto sentinel = makeWatch(folder(), sentinelCalls);
  missing->resume();
  file->resume();
  sentinel->resume();
  scene().writeFile(at("new"), "x");

  ASSERT_TRUE(called(*sentinelCalls));
  drainQueue();
  EXPECT_EQ(calls_->count(), 0);
}

TEST_P(WatchContract, WatchedFolderReplacedIsWatchedAgain) {
  scene().makeFolder(at("in"));
  const auto watch = makeWatch(at("in"), calls_);
  watch->resume();
  scene().erase(at("in"));
  scene().makeFolder(at("in"));
  ASSERT_TRUE(called(*calls_));
  drainQueue();
  const int before = calls_->count();
  scene().writeFile(at("in/new"), "x");

  EXPECT_TRUE(called(*calls_, before + 1));
}

TEST_P(WatchContract, WatchedFolderMovedAwayAndMadeAnewIsWatchedAgain) {
  scene().makeFolder(at("in"));
  const auto watch = makeWatch(at("in"), calls_);
  watch->resume();
  scene().rename(at("in"), at("aside"));
  scene().makeFolder(at("in"));
  ASSERT_TRUE(called(*calls_));
  drainQueue();
  const int before = calls_->count();
  scene().writeFile(at("in/new"), "x");

  EXPECT_TRUE(called(*calls_, before + 1));
}

TEST_P(WatchContract, FolderPutInPlaceOfTheWatchedOneIsReported) {
  scene().makeFolder(at("in"));
  scene().writeFile(at("other/waiting"), "x");
  const auto watch = makeWatch(at("in"), calls_);
  watch->resume();
  scene().rename(at("in"), at("aside"));
  scene().rename(at("other"), at("in"));

  EXPECT_TRUE(called(*calls_));
}

}  // namespace
}  // namespace thmp
