// SPDX-License-Identifier: Apache-2.0
#include "host/store/ChangeFeed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mount.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>

#include "base/mutex.h"
#include "host/store/test_support.h"
#include "tests/support/child_process.h"

namespace thmp {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing_support::makeMaildir;
using testing_support::TemporaryFolder;
using testing_support::writeFile;

// Gathers what is told until something wanted is among it.
class Told {
 public:
  void add(const MailChanges& changes) {
    const Lock lock(mutex_);
    all_.everything |= changes.everything;
    all_.mailboxes.insert(changes.mailboxes.begin(), changes.mailboxes.end());
    for (const auto& [mailbox, files] : changes.files) {
      all_.mailboxes.insert(mailbox);
      all_.files[mailbox].insert(files.begin(), files.end());
    }
    all_.trees.insert(changes.trees.begin(), changes.trees.end());
    ++calls_;
    changed_.notify_all();
  }

  template <typename Wanted>
  bool until(const Wanted& wanted) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    const Lock lock(mutex_);
    while (!wanted(all_)) {
      if (changed_.wait_until(mutex_, end) == std::cv_status::timeout) return false;
    }
    return true;
  }
  bool untilMailbox(const std::string& path) {
    return until([&](const MailChanges& all) { return all.mailboxes.contains(path); });
  }
  bool untilTree(const std::string& path) {
    return until([&](const MailChanges& all) { return all.trees.contains(path); });
  }
  MailChanges take() {
    const Lock lock(mutex_);
    return std::exchange(all_, {});
  }
  int calls() {
    const Lock lock(mutex_);
    return calls_;
  }

 private:
  Mutex mutex_;
  ConditionVariable changed_;
  MailChanges all_ THMP_GUARDED_BY(mutex_);
  int calls_ THMP_GUARDED_BY(mutex_) = 0;
};

class FollowingMail : public ::testing::Test {
 protected:
  FollowingMail() { makeMaildir(root_); }

  void start(ChangeFeedOptions options = {}) {
    feed_ = std::make_unique<ChangeFeed>(
        std::vector<std::string>{root_}, [this](const MailChanges& changes) { told_.add(changes); },
        [this](std::string_view line) { lines_.emplace_back(line); }, options);
    feed_->start();
  }

  TemporaryFolder folder_;
  const std::string root_ = folder_ / "mail";
  Told told_;
  std::vector<std::string> lines_;
  std::unique_ptr<ChangeFeed> feed_;
};

TEST_F(FollowingMail, ADeliveryTellsItsMailboxAlone) {
  makeMaildir(root_ + "/.Work");
  start();
  writeFile(root_ + "/tmp/1.a", "x");
  fs::rename(root_ + "/tmp/1.a", root_ + "/.Work/new/1.a");
  ASSERT_TRUE(told_.untilMailbox(root_ + "/.Work"));
  const MailChanges all = told_.take();
  EXPECT_THAT(all.mailboxes, ElementsAre(root_ + "/.Work"));
  EXPECT_TRUE(all.trees.empty());
  EXPECT_FALSE(all.everything);
}

TEST_F(FollowingMail, RenamesAndRemovalsAreTold) {
  writeFile(root_ + "/new/1.a", "x");
  start();
  fs::rename(root_ + "/new/1.a", root_ + "/cur/1.a:2,S");
  ASSERT_TRUE(told_.untilMailbox(root_));
  told_.take();
  fs::remove(root_ + "/cur/1.a:2,S");
  EXPECT_TRUE(told_.untilMailbox(root_));
}

TEST_F(FollowingMail, ManyChangesAreToldInFewCalls) {
  start();
  for (int i = 0; i < 500; ++i) writeFile(root_ + "/new/" + std::to_string(i), "x");
  ASSERT_TRUE(told_.untilMailbox(root_));
  EXPECT_LT(told_.calls(), 500);
}

TEST_F(FollowingMail, ANewMailboxIsToldAndWatched) {
  start();
  makeMaildir(root_ + "/.New");
  ASSERT_TRUE(told_.untilTree(root_ + "/.New"));
  // Its watch stands before it is told.
  ASSERT_TRUE(told_.until([&](const MailChanges& all) { return !all.trees.empty(); }));
  told_.take();
  writeFile(root_ + "/.New/new/1.a", "x");
  EXPECT_TRUE(told_.until([&](const MailChanges& all) {
    return all.mailboxes.contains(root_ + "/.New") || all.trees.contains(root_ + "/.New");
  }));
}

TEST_F(FollowingMail, AMailboxThatGoesIsTold) {
  makeMaildir(root_ + "/.Old");
  start();
  fs::rename(root_ + "/.Old", folder_ / "elsewhere");
  EXPECT_TRUE(told_.untilTree(root_ + "/.Old"));
}

TEST_F(FollowingMail, TheFirstLooseMessageTellsItsFolder) {
  fs::create_directories(root_ + "/Saved");
  start();
  writeFile(root_ + "/Saved/a.eml", "x");
  ASSERT_TRUE(told_.untilTree(root_ + "/Saved"));
  told_.take();
  writeFile(root_ + "/Saved/b.eml", "x");
  EXPECT_TRUE(told_.untilMailbox(root_ + "/Saved"));
}

TEST_F(FollowingMail, AMailFolderThatGoesAndComesBackIsTold) {
  ChangeFeedOptions options;
  options.missingRootCheck = std::chrono::milliseconds(10);
  start(options);
  fs::rename(root_, folder_ / "away");
  ASSERT_TRUE(told_.untilTree(root_));
  told_.take();
  fs::rename(folder_ / "away", root_);
  ASSERT_TRUE(told_.untilTree(root_));
  told_.take();
  writeFile(root_ + "/new/1.a", "x");
  EXPECT_TRUE(told_.untilMailbox(root_));
}

TEST_F(FollowingMail, AMailFolderThatGoesWithAFolderAboveItIsTold) {
  ChangeFeedOptions options;
  options.missingRootCheck = std::chrono::milliseconds(10);
  const std::string deep = folder_ / "disk/home/mail";
  makeMaildir(deep);
  ChangeFeed feed(
      {deep}, [this](const MailChanges& changes) { told_.add(changes); }, {}, options);
  feed.start();
  fs::rename(folder_ / "disk", folder_ / "elsewhere");
  ASSERT_TRUE(told_.untilTree(deep));
  told_.take();
  fs::rename(folder_ / "elsewhere", folder_ / "disk");
  ASSERT_TRUE(told_.untilTree(deep));
  told_.take();
  // It is watched as before, and so is what is above it.
  writeFile(deep + "/new/1.a", "x");
  ASSERT_TRUE(told_.untilMailbox(deep));
  told_.take();
  fs::rename(folder_ / "disk", folder_ / "elsewhere");
  EXPECT_TRUE(told_.untilTree(deep));
}

TEST_F(FollowingMail, WhatHappensInAMailFolderThatWasMovedAwayIsNotTold) {
  makeMaildir(root_ + "/.Work");
  makeMaildir(folder_ / "next");
  ChangeFeedOptions options;
  options.missingRootCheck = std::chrono::milliseconds(10);
  start(options);
  fs::rename(root_, folder_ / "away");
  ASSERT_TRUE(told_.untilTree(root_));
  told_.take();
  fs::rename(folder_ / "next", root_);
  ASSERT_TRUE(told_.untilTree(root_));
  told_.take();
  writeFile(folder_ / "away/.Work/new/1.a", "x");
  writeFile(root_ + "/new/2.a", "x");
  ASSERT_TRUE(told_.untilMailbox(root_));
  EXPECT_FALSE(told_.take().mailboxes.contains(root_ + "/.Work"));
}

// Where the tests are root, who is refused nothing, the folder becomes that of another user.
int resultAsItsOwner(const std::string& folder, const std::function<int()>& body) {
  if (::geteuid() == 0) {
    EXPECT_EQ(::chown(folder.c_str(), testing::kNobody, testing::kNobody), 0);
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
      EXPECT_EQ(::chown(entry.path().c_str(), testing::kNobody, testing::kNobody), 0);
    }
  }
  return testing::resultAsNobody(body);
}

TEST_F(FollowingMail, AMailFolderThatMayNoLongerBeReadIsToldAndFollowedAgain) {
  enum Outcome : int { kToldTwice, kClosingNotTold, kOpeningNotTold };
  const int outcome = resultAsItsOwner(folder_.path(), [this]() -> int {
    ChangeFeedOptions options;
    options.missingRootCheck = std::chrono::milliseconds(10);
    start(options);
    fs::permissions(root_, fs::perms::none);
    if (!told_.untilTree(root_)) return kClosingNotTold;
    told_.take();
    fs::permissions(root_, fs::perms::owner_all);
    return told_.untilTree(root_) ? kToldTwice : kOpeningNotTold;
  });
  EXPECT_EQ(outcome, kToldTwice);
}

TEST_F(FollowingMail, AMailFolderInAnotherThatGoesWithAFolderBetweenThemIsFollowedAgain) {
  const std::string inner = root_ + "/disk/inner";
  makeMaildir(inner);
  ChangeFeedOptions options;
  options.missingRootCheck = std::chrono::milliseconds(10);
  ChangeFeed feed(
      {root_, inner}, [this](const MailChanges& changes) { told_.add(changes); }, {}, options);
  feed.start();
  fs::rename(root_ + "/disk", folder_ / "away");
  ASSERT_TRUE(told_.untilTree(inner));
  told_.take();
  fs::rename(folder_ / "away", root_ + "/disk");
  ASSERT_TRUE(told_.untilTree(root_ + "/disk"));
  told_.take();
  writeFile(inner + "/new/1.a", "x");
  EXPECT_TRUE(told_.untilMailbox(inner));
}

TEST_F(FollowingMail, RightsOfFoldersBesideAMailFolderAreOfNoConcern) {
  makeMaildir(folder_ / "beside");
  start();
  fs::permissions(folder_ / "beside", fs::perms::owner_all);
  fs::permissions(folder_ / "beside/new", fs::perms::owner_all);
  writeFile(folder_ / "beside/new/1.a", "x");
  writeFile(root_ + "/new/1.a", "x");
  ASSERT_TRUE(told_.untilMailbox(root_));
  feed_->stop();
  EXPECT_THAT(told_.take().mailboxes, ElementsAre(root_));
}

TEST_F(FollowingMail, AFileSystemThatComesAndGoesIsTold) {
  makeMaildir(folder_ / "disk");
  makeMaildir(root_ + "/.Work");
  testing::whereOneMayMount([this] {
    const auto mount = [&](const std::string& place) {
      return ::mount((folder_ / "disk").c_str(), place.c_str(), nullptr, MS_BIND, nullptr) == 0;
    };
    start();
    ASSERT_TRUE(mount(root_));
    EXPECT_TRUE(told_.untilTree(root_));
    told_.take();
    writeFile(folder_ / "disk/new/1.a", "x");
    EXPECT_TRUE(told_.untilMailbox(root_));
    told_.take();
    ASSERT_EQ(::umount2(root_.c_str(), MNT_DETACH), 0);
    EXPECT_TRUE(told_.untilTree(root_));
    told_.take();
    // One below it, too.
    ASSERT_TRUE(mount(root_ + "/.Work"));
    EXPECT_TRUE(told_.untilTree(root_ + "/.Work"));
    told_.take();
    writeFile(folder_ / "disk/new/2.a", "x");
    EXPECT_TRUE(told_.untilMailbox(root_ + "/.Work"));
    ASSERT_EQ(::umount2((root_ + "/.Work").c_str(), MNT_DETACH), 0);
    feed_->stop();
  });
}

TEST_F(FollowingMail, AMailboxWhoseRightsChangeIsTold) {
  const std::string nested = root_ + "/Work/Deep";
  makeMaildir(nested);
  start();
  fs::permissions(nested, fs::perms::owner_read);
  ASSERT_TRUE(told_.untilTree(nested));
  told_.take();
  fs::permissions(nested, fs::perms::owner_all);
  ASSERT_TRUE(told_.untilTree(nested));
  told_.take();
  fs::permissions(nested + "/cur", fs::perms::owner_read);
  ASSERT_TRUE(told_.untilTree(nested));
  fs::permissions(nested + "/cur", fs::perms::owner_all);
}

TEST_F(FollowingMail, WithoutEnoughWatchesEverythingIsToldAtAnIntervalAndSaidOnce) {
  for (int i = 0; i < 10; ++i) makeMaildir(root_ + "/.F" + std::to_string(i));
  ChangeFeedOptions options;
  options.maxWatches = 5;
  options.withoutWatches = std::chrono::milliseconds(20);
  start(options);
  ASSERT_TRUE(told_.until([](const MailChanges& all) { return all.everything; }));
  told_.take();
  ASSERT_TRUE(told_.until([](const MailChanges& all) { return all.everything; }));
  feed_->stop();
  ASSERT_EQ(lines_.size(), 1U);
  EXPECT_THAT(lines_[0], HasSubstr("cannot watch all mail folders"));
}

TEST_F(FollowingMail, LostEventsTellEverything) {
  // The thread is held in a call while more happens than the system keeps.
  Mutex mutex;
  ConditionVariable changed;
  bool held = false;
  bool go = false;
  bool everything = false;
  ChangeFeed feed({root_},
                  [&](const MailChanges& changes) {
                    const Lock lock(mutex);
                    held = true;
                    everything |= changes.everything;
                    changed.notify_all();
                    while (!go) changed.wait(mutex);
                  },
                  {}, {});
  feed.start();
  writeFile(root_ + "/new/first", "x");
  {
    const Lock lock(mutex);
    while (!held) changed.wait(mutex);
  }
  writeFile(root_ + "/new/a", "x");
  for (int i = 0; i < 6000; ++i) {
    fs::rename(root_ + "/new/a", root_ + "/cur/a");
    fs::rename(root_ + "/cur/a", root_ + "/new/a");
  }
  const Lock lock(mutex);
  go = true;
  changed.notify_all();
  while (!everything) changed.wait(mutex);
}

TEST_F(FollowingMail, StoppingWaitsAndMayBeRepeated) {
  start();
  feed_->stop();
  const int calls = told_.calls();
  writeFile(root_ + "/new/1.a", "x");
  feed_->stop();
  EXPECT_EQ(told_.calls(), calls);
}

TEST_F(FollowingMail, ItsThreadTakesNoSignals) {
  sigset_t blocked;
  sigemptyset(&blocked);
  Told done;
  ChangeFeed feed({root_},
                  [&](const MailChanges& changes) {
                    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
                    done.add(changes);
                  },
                  {}, {});
  feed.start();
  writeFile(root_ + "/new/1.a", "x");
  ASSERT_TRUE(done.untilMailbox(root_));
  feed.stop();
  EXPECT_EQ(sigismember(&blocked, SIGTERM), 1);
  EXPECT_EQ(sigismember(&blocked, SIGUSR1), 1);
  sigset_t ours;
  pthread_sigmask(SIG_SETMASK, nullptr, &ours);
  EXPECT_EQ(sigismember(&ours, SIGTERM), 0);
}

}  // namespace
}  // namespace thmp
