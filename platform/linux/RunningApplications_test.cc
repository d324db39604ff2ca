// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/RunningApplications.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/linux/posix_io.h"
#include "platform/linux/testing.h"
#include "tests/support/child_process.h"

namespace thmp {
namespace {

using testing::Child;
using testing::TemporaryFolder;

constexpr char kClient[] = "com.example.client";

class RunningApplicationsTest : public ::testing::Test {
 protected:
  RunningApplicationsTest() { testing::makeFolder(applications_); }

  std::string fileOf(const std::string& bundle, pid_t process) const {
    return applications_ + "/" + bundle + "." + std::to_string(process);
  }

  /// An application that makes its file, locks it and stays.
  std::unique_ptr<Child> application(const std::string& bundle = kClient) const {
    auto child = std::make_unique<Child>([&] {
      Descriptor file =
          openAt(AT_FDCWD, fileOf(bundle, ::getpid()), O_RDWR | O_CREAT | O_EXCL, 0600);
      const bool locked = ::flock(file.get(), LOCK_EX | LOCK_NB) == 0;
      static_cast<void>(file.release());
      return std::string(locked ? "ready" : "failed");
    });
    EXPECT_EQ(child->report(), "ready");
    return child;
  }

  void start() {
    running_ = std::make_unique<RunningApplications>(applications_, execution_,
                                                     [this](const std::string& bundleIdentifier) {
                                                       quit_.push_back(bundleIdentifier);
                                                       loop().stop();
                                                     });
    running_->start();
  }

  /// Runs the loop until the next notice.
  bool nextQuit() { return testing::runUntilStopped(loop()); }
  /// Runs the loop until it has seen all that has happened so far in the folder.
  void settle() {
    const std::string marker = "com.example.marker";
    const auto child = application(marker);
    // Its file must be known before it goes.
    for (int i = 0; i < 2; ++i) {
      auto watch = execution_.watches().makeWatch(
          applications_, [this](std::function<void()> closure) { loop().post(std::move(closure)); },
          [this] { loop().post([this] { loop().stop(); }); });
      watch->resume();
      testing::writeFile(applications_ + "/stray", "x");
      ASSERT_TRUE(testing::runUntilStopped(loop()));
      ::unlink((applications_ + "/stray").c_str());
    }
    child->kill();
    while (quit_.empty() || quit_.back() != marker) ASSERT_TRUE(nextQuit());
    quit_.pop_back();
  }

  bool isRunning(const std::string& bundle = kClient) const {
    return RunningApplications::isRunning(applications_, bundle);
  }

  MainLoop& loop() { return execution_.mainQueue(); }

  const TemporaryFolder folder_;
  const std::string applications_ = folder_.at("applications");
  testing::CollectingLog log_;
  LinuxExecution execution_{log_};
  std::vector<std::string> quit_;
  std::unique_ptr<RunningApplications> running_;
};

TEST_F(RunningApplicationsTest, KilledApplicationIsNoticedAndItsFileRemoved) {
  const auto client = application();
  start();
  EXPECT_TRUE(isRunning());
  client->kill();
  ASSERT_TRUE(nextQuit());
  EXPECT_EQ(quit_, std::vector<std::string>{kClient});
  EXPECT_FALSE(isRunning());
  EXPECT_TRUE(testing::namesIn(applications_).empty());
}

TEST_F(RunningApplicationsTest, KilledApplicationThatNobodyHasWaitedForHasQuit) {
  const auto client = application();
  start();
  client->kill(/*collect=*/false);
  ASSERT_TRUE(nextQuit());
  EXPECT_EQ(quit_, std::vector<std::string>{kClient});
  EXPECT_FALSE(isRunning());
}

TEST_F(RunningApplicationsTest, ApplicationThatComesLaterIsSeen) {
  start();
  const auto client = application();
  settle();
  EXPECT_TRUE(isRunning());
  client->kill();
  ASSERT_TRUE(nextQuit());
  EXPECT_EQ(quit_, std::vector<std::string>{kClient});
}

TEST_F(RunningApplicationsTest, RemovedFileMeansQuitThoughTheProcessLives) {
  const auto client = application();
  start();
  ASSERT_EQ(::unlink(fileOf(kClient, client->process()).c_str()), 0);
  ASSERT_TRUE(nextQuit());
  EXPECT_EQ(quit_, std::vector<std::string>{kClient});
  EXPECT_FALSE(isRunning());
  client->kill();
  settle();
  EXPECT_EQ(quit_.size(), 1U) << "told once only";
}

TEST_F(RunningApplicationsTest, OneThatCameAndWentWhileTheMainThreadWasBusyHasQuit) {
  start();
  const std::string file = fileOf(kClient, ::getpid());
  for (int i = 0; i < 2; ++i) {
    testing::writeFile(file, "");
    ASSERT_EQ(::unlink(file.c_str()), 0);
    ASSERT_TRUE(nextQuit());
    EXPECT_EQ(quit_, std::vector<std::string>(static_cast<std::size_t>(i) + 1, kClient));
  }
  // And one that was seen, also by its removal.
  const auto client = application();
  settle();
  client->kill();
  ASSERT_TRUE(nextQuit());
  settle();
  EXPECT_EQ(quit_, std::vector<std::string>(3, kClient)) << "each is told once";
}

TEST_F(RunningApplicationsTest, OneOfTwoInstancesQuits) {
  const auto first = application();
  const auto second = application();
  const auto other = application("com.example.other");
  start();
  first->kill();
  ASSERT_TRUE(nextQuit());
  EXPECT_EQ(quit_, std::vector<std::string>{kClient});
  EXPECT_TRUE(isRunning());
  EXPECT_TRUE(testing::exists(fileOf(kClient, second->process())));
  second->kill();
  ASSERT_TRUE(nextQuit());
  EXPECT_FALSE(isRunning());
  EXPECT_TRUE(isRunning("com.example.other"));
}

TEST_F(RunningApplicationsTest, FileWithoutALockRunsWhileItsProcessLives) {
  const Child client([&] {
    testing::writeFile(fileOf(kClient, ::getpid()), "");
    return std::string("ready");
  });
  start();
  settle();
  EXPECT_TRUE(quit_.empty());
  EXPECT_TRUE(isRunning());
  const_cast<Child&>(client).kill();
  ASSERT_TRUE(nextQuit());
  EXPECT_FALSE(testing::exists(fileOf(kClient, client.process())));
}

TEST_F(RunningApplicationsTest, LockThatSomebodyStillHoldsKeepsItRunning) {
  // The descriptor is shared with a child that lives on.
  const auto client = application();
  const std::string file = fileOf(kClient, client->process());
  client->kill();
  Descriptor holder = openAt(AT_FDCWD, file, O_RDWR);
  ASSERT_EQ(::flock(holder.get(), LOCK_EX | LOCK_NB), 0);
  start();
  settle();
  EXPECT_TRUE(isRunning());
  EXPECT_TRUE(quit_.empty());
  EXPECT_TRUE(testing::exists(file));
  holder.reset();
  ASSERT_TRUE(nextQuit());
  EXPECT_EQ(quit_, std::vector<std::string>{kClient});
  EXPECT_FALSE(testing::exists(file));
}

TEST_F(RunningApplicationsTest, ApplicationGivenADeadOnesNumberIsNotTakenForIt) {
  // Between the end of the first and our look a second one has locked the same file.
  const auto client = application();
  const std::string file = fileOf(kClient, client->process());
  start();
  client->kill();
  const Descriptor second = openAt(AT_FDCWD, file, O_RDWR);
  ASSERT_EQ(::flock(second.get(), LOCK_EX | LOCK_NB), 0);
  settle();
  EXPECT_TRUE(quit_.empty());
  EXPECT_TRUE(testing::exists(file));
}

TEST_F(RunningApplicationsTest, ProcessYoungerThanTheFileIsAnother) {
  // What a crash leaves when the number has been given out again: this process has it now.
  const std::string file = fileOf(kClient, ::getpid());
  testing::writeFile(file, "");
  const timespec longAgo[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), longAgo, 0), 0);
  EXPECT_FALSE(isRunning());
  start();
  EXPECT_FALSE(testing::exists(file));
  EXPECT_TRUE(quit_.empty());
}

TEST_F(RunningApplicationsTest, OldFileThatIsHeldIsRunning) {
  const std::string file = fileOf(kClient, ::getpid());
  testing::writeFile(file, "");
  const Descriptor holder = openAt(AT_FDCWD, file, O_RDWR);
  ASSERT_EQ(::flock(holder.get(), LOCK_EX | LOCK_NB), 0);
  const timespec longAgo[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), longAgo, 0), 0);
  EXPECT_TRUE(isRunning());
  start();
  EXPECT_TRUE(testing::exists(file));
}

TEST_F(RunningApplicationsTest, WhatHadQuitBeforeIsRemovedWithoutANotice) {
  const auto client = application();
  client->kill();
  start();
  EXPECT_TRUE(testing::namesIn(applications_).empty());
  settle();
  EXPECT_TRUE(quit_.empty());
}

TEST_F(RunningApplicationsTest, LockOfALivingApplicationIsNeverInItsWay) {
  // An application that makes its file and locks it a moment later always gets its lock.
  start();
  for (int i = 0; i < 50; ++i) {
    const auto client = application();
    EXPECT_TRUE(isRunning());
    client->kill();
    ASSERT_TRUE(nextQuit());
  }
}

TEST_F(RunningApplicationsTest, StrangeEntriesAreLeftAlone) {
  testing::writeFile(applications_ + "/readme", "x");
  testing::writeFile(applications_ + "/com.example.client", "x");
  testing::writeFile(applications_ + "/.1", "x");
  testing::writeFile(applications_ + "/com.example.-5", "x");
  testing::writeFile(applications_ + "/com.example.99999999999999999999", "x");
  testing::makeFolder(fileOf("folder", ::getpid()));
  ASSERT_EQ(::mkfifo(fileOf("fifo", ::getpid()).c_str(), 0600), 0);
  ASSERT_EQ(::symlink("/etc/passwd", fileOf("link", ::getpid()).c_str()), 0);
  const auto before = testing::namesIn(applications_);
  start();
  settle();
  EXPECT_EQ(testing::namesIn(applications_), before);
  for (const char* bundle : {"folder", "fifo", "link", "", "com.example"}) {
    EXPECT_FALSE(isRunning(bundle)) << bundle;
  }
  EXPECT_TRUE(quit_.empty());
}

TEST_F(RunningApplicationsTest, FileOfAnotherUserIsLeftAlone) {
  const std::string path = fileOf("other", ::getpid());
  testing::writeFile(path, "");
  testing::whereOneMayMount([&] {
    testing::giveAway(path);
    EXPECT_FALSE(isRunning("other"));
    start();
    settle();
    EXPECT_TRUE(testing::exists(path));
    EXPECT_TRUE(quit_.empty());
  });
}

TEST_F(RunningApplicationsTest, FileThatIsReplacedWhileItsProcessLivesIsNoQuit) {
  const auto client = application();
  start();
  const std::string path = fileOf(kClient, client->process());
  ASSERT_EQ(::unlink(path.c_str()), 0);
  testing::writeFile(path, "");
  settle();
  EXPECT_TRUE(isRunning());
  EXPECT_TRUE(quit_.empty());
  client->kill();
  ASSERT_TRUE(nextQuit());
  EXPECT_EQ(quit_, std::vector<std::string>{kClient});
}

TEST_F(RunningApplicationsTest, FileThatIsReplacedAgainAndAgainIsNoQuit) {
  const auto client = application();
  start();
  const std::string path = fileOf(kClient, client->process());
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(::unlink(path.c_str()), 0);
    testing::writeFile(path, "");
  }
  settle();
  EXPECT_TRUE(isRunning());
  EXPECT_TRUE(quit_.empty());
}

TEST_F(RunningApplicationsTest, FileInThePlaceOfTheFolderEndsAll) {
  const auto client = application();
  start();
  std::filesystem::remove_all(applications_);
  testing::writeFile(applications_, "");
  ASSERT_TRUE(nextQuit());
  EXPECT_EQ(quit_, std::vector<std::string>{kClient});
}

TEST_F(RunningApplicationsTest, ChangeThatComesAfterItsEndIsNotLookedAt) {
  auto client = application();
  start();
  testing::writeFile(applications_ + "/stray", "x");
  client->kill();
  running_.reset();
  loop().post([this] { loop().stop(); });
  EXPECT_TRUE(testing::runUntilStopped(loop()));
  EXPECT_TRUE(quit_.empty());
}

TEST_F(RunningApplicationsTest, FolderThatIsRemovedEndsAllAndIsWatchedAgain) {
  const auto client = application();
  start();
  std::filesystem::remove_all(applications_);
  ASSERT_TRUE(nextQuit());
  EXPECT_EQ(quit_, std::vector<std::string>{kClient});
  quit_.clear();
  testing::makeFolder(applications_);
  const auto again = application();
  settle();
  again->kill();
  ASSERT_TRUE(nextQuit());
  EXPECT_EQ(quit_, std::vector<std::string>{kClient});
}

TEST_F(RunningApplicationsTest, LookTellsWhoRunsAndWhoLeftAFileAndRemovesNothing) {
  const std::string own = "com.example.living." + std::to_string(::getpid());
  testing::makeFolder(applications_);
  testing::writeFile(applications_ + "/" + own, "");
  testing::writeFile(applications_ + "/com.example.gone.2147483647", "");
  testing::writeFile(applications_ + "/strange", "");
  std::map<std::string, bool> running;
  for (const auto& found : RunningApplications::look(applications_)) {
    running[found.name.bundleIdentifier] = found.running;
  }
  EXPECT_EQ(running, (std::map<std::string, bool>{{"com.example.living", true},
                                                  {"com.example.gone", false}}));
  EXPECT_EQ(testing::namesIn(applications_).size(), 3U);
  EXPECT_TRUE(RunningApplications::look(applications_ + "/none").empty());
}

TEST_F(RunningApplicationsTest, NamesAreABundleIdentifierAndAProcess) {
  const auto parsed = RunningApplications::parse("com.example.client.123");
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->bundleIdentifier, "com.example.client");
  EXPECT_EQ(parsed->process, 123);
  for (const char* name : {"", ".", "1", ".1", "a", "a.", "a.0", "a.-1", "a.1x", "a.+1", "a. 1"}) {
    EXPECT_FALSE(RunningApplications::parse(name)) << name;
  }
}

TEST_F(RunningApplicationsTest, DescriptorsAreGivenBack) {
  const std::size_t before = testing::openDescriptors();
  {
    const auto first = application();
    const auto second = application("com.example.other");
    start();
    first->kill();
    ASSERT_TRUE(nextQuit());
    running_.reset();
  }
  // The watch's own instance stays for other watches.
  EXPECT_LE(testing::openDescriptors(), before + 2);
}

}  // namespace
}  // namespace thmp
