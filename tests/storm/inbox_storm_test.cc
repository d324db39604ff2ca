// SPDX-License-Identifier: Apache-2.0
//
// Very many messages, and messages that come while a center starts: real files, real inotify, real
// queues.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "messaging/messaging_test_support.h"
#include "platform/fake/ForwardingFiles.h"
#include "platform/linux/LinuxExecution.h"
#include "platform/linux/LinuxFiles.h"
#include "platform/linux/testing.h"
#include "tests/storm/storm_size.h"

namespace thmp::storm {
namespace {

using thmp::testing::CollectingLog;
using thmp::testing::Count;
using thmp::testing::namesIn;
using thmp::testing::TemporaryFolder;

constexpr char kName[] = " a name";
constexpr char kBlock[] = " block";

/// Counts how often "in" is listed.
class ListedFiles final : public ForwardingFiles {
 public:
  using ForwardingFiles::ForwardingFiles;
  std::optional<std::vector<std::string>> list(const std::string& directory,
                                               Error* error) override {
    if (directory.ends_with("/in")) ++listings;
    return ForwardingFiles::list(directory, error);
  }
  std::atomic<int> listings = 0;
};

/// How often each message came, by its number.
class Counting {
 public:
  explicit Counting(int messages) : times_(static_cast<std::size_t>(messages)) {}

  void received(const Value& message) {
    const auto number = (*(*message.asDictionary())["userInfo"].asDictionary())["n"].asInteger();
    ++times_.at(static_cast<std::size_t>(number.value_or(-1)));
    received_.raise();
  }
  void block(const Value& /*message*/) {
    blocked.raise();
    release.reaches(1);
  }
  bool hasReceived(int messages) { return received_.reaches(messages); }
  /// Of messages that did not come just once.
  int wrong() const {
    return static_cast<int>(std::ranges::count_if(times_, [](int times) { return times != 1; }));
  }

  Count blocked;
  Count release;

 private:
  std::vector<std::atomic<int>> times_;
  Count received_;
};

class InboxStorm : public ::testing::Test {
 protected:
  std::shared_ptr<ReceivingCenter> start(const std::shared_ptr<Counting>& observer) {
    auto center = ReceivingCenter::create(class_);
    center->addObserver(observer, &Counting::received, kName);
    center->addObserver(observer, &Counting::block, kBlock);
    inbox_ = center->communicationInboxURL().path();
    return center;
  }

  void send(const std::string& name, int number) {
    const auto bytes = writeBinaryPropertyList(
        Dictionary{{"name", name}, {"userInfo", Dictionary{{"n", number}}}}, nullptr);
    const auto file = real_.prepareFile(
        inbox_, name.substr(1, 1) + std::to_string(number) + ".plist", *bytes, nullptr);
    ASSERT_TRUE(file && file->publish(nullptr));
  }

  /// All that stands in the exchange's queue has run.
  void drain() {
    Count drained;
    class_.messageCenterQueue()->post([&] { drained.raise(); });
    EXPECT_TRUE(drained.reaches(1));
  }

  const TemporaryFolder folder_;
  CollectingLog log_;
  LinuxExecution execution_{log_};
  LinuxFiles real_{folder_.path()};
  ListedFiles files_{real_};
  FakePlatform fake_;
  Platform platform_ = fake_.platform({.files = &files_, .execution = &execution_});
  const THMPPathAdditions paths_{fake_.identity};
  THMPCommunicationCenterClass class_{platform_, paths_};
  std::string inbox_;
};

TEST_F(InboxStorm, FilesThatComeWhileTheQueueIsBlockedAreEachHandledOnceInTwoScans) {
  // More than the kernel's queue of events holds.
  const int files = storm(20'000, 100'000);
  const auto observer = std::make_shared<Counting>(files);
  const auto center = start(observer);
  center->startObserving(center->communicationInboxURL());
  send(kBlock, 0);
  // The queue, which reads the events, stands still from here on.
  ASSERT_TRUE(observer->blocked.reaches(1));
  for (int number = 0; number < files; ++number) send(kName, number);

  const int before = files_.listings;
  observer->release.raise();
  EXPECT_TRUE(observer->hasReceived(files));
  // With the look that follows it, which tells that the files are gone, and the scan of that.
  for (int pass = 0; pass < 3; ++pass) drain();
  const int scans = files_.listings - before;
  center->stopObservingDirectory();
  drain();
  EXPECT_EQ(observer->wrong(), 0);
  EXPECT_GE(scans, 1);
  EXPECT_LE(scans, 2);
  EXPECT_TRUE(namesIn(inbox_).empty());
  std::cout << "[          ] " << files << " files in " << scans << " scans\n";
}

TEST_F(InboxStorm, MessagesThatWaitForAStartAndComeDuringItAreEachHandledOnce) {
  constexpr int kWaiting = 50;
  constexpr int kComing = 10;
  const int starts = storm(50, 1'000);
  for (int number = 0; number < starts; ++number) {
    SCOPED_TRACE("start " + std::to_string(number));
    const auto observer = std::make_shared<Counting>(kWaiting + kComing);
    const auto center = start(observer);
    for (int each = 0; each < kWaiting; ++each) send(kName, each);
    std::atomic<bool> go = false;
    std::thread coming([&] {
      while (!go) std::this_thread::yield();
      for (int each = 0; each < kComing; ++each) send(kName, kWaiting + each);
    });
    go = true;
    center->startObserving(center->communicationInboxURL());
    coming.join();
    EXPECT_TRUE(observer->hasReceived(kWaiting + kComing));
    drain();
    center->stopObservingDirectory();
    drain();
    ASSERT_EQ(observer->wrong(), 0);
    ASSERT_TRUE(namesIn(inbox_).empty());
  }
  std::cout << "[          ] " << starts << " starts, " << starts * (kWaiting + kComing)
            << " messages\n";
}

}  // namespace
}  // namespace thmp::storm
