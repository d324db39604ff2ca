// SPDX-License-Identifier: Apache-2.0
#include "client/Wakeups.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>

namespace thmp::client {
namespace {

class FolderWakeups : public testing::Test {
 protected:
  void SetUp() override {
    ::sigprocmask(SIG_BLOCK, nullptr, &mask_);
    ASSERT_NE(::mkdtemp(folder_.data()), nullptr);
    wakeups_ = *Wakeups::open();
  }
  void TearDown() override {
    wakeups_.reset();
    ::sigprocmask(SIG_SETMASK, &mask_, nullptr);
    std::filesystem::remove_all(folder_);
  }

  void make(const std::string& name) { std::ofstream(folder_ + "/" + name) << "x"; }
  void move(const std::string& from, const std::string& to) {
    std::filesystem::rename(folder_ + "/" + from, folder_ + "/" + to);
  }
  Wake wait() { return wakeups_->wait(std::chrono::steady_clock::now() + std::chrono::minutes(1)); }

  std::string folder_ = std::filesystem::temp_directory_path() / "thmp-wakeups-XXXXXX";
  std::unique_ptr<Wakeups> wakeups_;
  sigset_t mask_{};
};

TEST_F(FolderWakeups, AnEntryThatComesWakes) {
  ASSERT_TRUE(wakeups_->watchEntries(folder_, Entries::kCome));
  make("a");
  EXPECT_EQ(wait(), Wake::kFolder);
}

TEST_F(FolderWakeups, AnEntryThatGetsAnotherNameWakes) {
  make("a");
  ASSERT_TRUE(wakeups_->watchEntries(folder_, Entries::kCome));
  move("a", "b");
  EXPECT_EQ(wait(), Wake::kFolder);
}

TEST_F(FolderWakeups, AnEntryThatGoesWakes) {
  make("a");
  ASSERT_TRUE(wakeups_->watchEntries(folder_, Entries::kGo));
  std::filesystem::remove(folder_ + "/a");
  EXPECT_EQ(wait(), Wake::kFolder);
}

TEST_F(FolderWakeups, WhatEndsACommandComesFirst) {
  ASSERT_TRUE(wakeups_->watchEntries(folder_, Entries::kCome));
  make("a");
  ::raise(SIGTERM);
  EXPECT_EQ(wait(), Wake::kSignal);
  EXPECT_EQ(wakeups_->signal(), SIGTERM);
  EXPECT_EQ(wait(), Wake::kFolder);
}

TEST_F(FolderWakeups, AFolderThatGoesItselfWakesWhoWatchesAll) {
  make("a");
  ASSERT_TRUE(wakeups_->watch(folder_));
  std::filesystem::remove_all(folder_);
  EXPECT_EQ(wait(), Wake::kFolder);
}

TEST_F(FolderWakeups, AMissingFolderCannotBeWatched) {
  EXPECT_FALSE(wakeups_->watch(folder_ + "/none"));
  EXPECT_FALSE(wakeups_->watchEntries(folder_ + "/none", Entries::kCome));
}

}  // namespace
}  // namespace thmp::client
