// SPDX-License-Identifier: Apache-2.0
//
// Messages that change their flags, and go from "new" to "cur", while their mailbox is read: a
// folder's listing may show such a file under both names, or under none.
#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "host/index/Indexer.h"
#include "host/store/test_support.h"
#include "tests/storm/storm_size.h"

namespace thmp::storm {
namespace {

namespace fs = std::filesystem;

constexpr int kRenamesInASync = 100;

/// Renames messages of a Maildir, so many for each sync that has begun, on a thread of its own.
class Renamer {
 public:
  explicit Renamer(std::vector<std::string> paths)
      : paths_(std::move(paths)), thread_([this] { run(); }) {}
  ~Renamer() {
    {
      const Lock lock(mutex_);
      ended_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }

  void syncBegins() {
    {
      const Lock lock(mutex_);
      due_ += kRenamesInASync;
    }
    changed_.notify_all();
  }
  /// Until all that are due are done. How many there were.
  int finish() {
    const Lock lock(mutex_);
    while (due_ > 0) changed_.wait(mutex_);
    return done_;
  }

 private:
  void run() {
    for (;;) {
      {
        const Lock lock(mutex_);
        while (due_ == 0 && !ended_) changed_.wait(mutex_);
        if (ended_) return;
      }
      renameOne();
      const Lock lock(mutex_);
      ++done_;
      if (--due_ == 0) changed_.notify_all();
    }
  }

  void renameOne() {
    static constexpr const char* kFlags[] = {"", "S", "F", "FS", "RS"};
    std::string& path = paths_[chance_() % paths_.size()];
    const fs::path before(path);
    const std::string name = before.filename().string();
    path = (before.parent_path().parent_path() / "cur" / (name.substr(0, name.find(':')) + ":2,"))
               .string() +
           kFlags[chance_() % std::size(kFlags)];
    fs::rename(before, path);
  }

  std::mt19937 chance_{1};
  std::vector<std::string> paths_;
  Mutex mutex_;
  ConditionVariable changed_;
  int due_ THMP_GUARDED_BY(mutex_) = 0;
  int done_ THMP_GUARDED_BY(mutex_) = 0;
  bool ended_ THMP_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

class RenameStorm : public ::testing::Test {
 protected:
  void SetUp() override {
    testing_support::makeMaildir(mail_);
    auto library = Library::open(folder_ / "library.sqlite", Library::Access::kReadWrite);
    auto index = Index::open(folder_ / "index.sqlite", Index::Access::kReadWrite);
    ASSERT_TRUE(library && index);
    library_ = std::move(*library);
    index_ = std::move(*index);
    indexer_ = std::make_unique<Indexer>(*library_, *index_);
    indexer_->setRoots({mail_});
  }

  std::string deliver(int number) {
    const std::string path = mail_ + "/new/" + std::to_string(1'700'000'000 + number) + ".M.world";
    testing_support::writeFile(path, testing_support::mailText(std::to_string(number)));
    return path;
  }

  /// Library ID to path.
  std::map<std::int64_t, std::string> found() {
    std::map<std::int64_t, std::string> paths;
    EXPECT_TRUE(index_->forEachDescending([&](const IndexedMessage& message) {
      paths[message.id()] = library_->pathOfMessage(message.id()).value_or("none");
      return true;
    }));
    return paths;
  }

  const testing_support::TemporaryFolder folder_;
  const std::string mail_ = folder_ / "mail";
  std::unique_ptr<Library> library_;
  std::unique_ptr<Index> index_;
  std::unique_ptr<Indexer> indexer_;
};

std::string stable(const std::string& path) {
  const std::string name = fs::path(path).filename().string();
  return name.substr(0, name.find(':'));
}

TEST_F(RenameStorm, NoMessageIsTakenForGoneOrNewAndAllAreWhereTheyAreAfterwards) {
  const int messages = storm(1'000, 5'000);
  const int syncs = storm(20, 100);
  std::vector<std::string> paths;
  for (int number = 0; number < messages; ++number) paths.push_back(deliver(number));
  ASSERT_TRUE(indexer_->update());
  const auto before = found();
  ASSERT_EQ(before.size(), paths.size());

  std::size_t added = 0;
  std::size_t removed = 0;
  index_->addListener([&](const IndexChange& change) {
    added += change.added.size();
    removed += change.removed.size();
  });
  MailChanges changes;
  changes.addMailbox(mail_);
  int renames = 0;
  {
    Renamer renamer(paths);
    for (int sync = 0; sync < syncs; ++sync) {
      renamer.syncBegins();
      ASSERT_TRUE(sync % 2 == 0 ? indexer_->update() : indexer_->update(changes));
    }
    renames = renamer.finish();
  }
  EXPECT_EQ(removed, 0u);
  EXPECT_EQ(added, 0u);
  ASSERT_TRUE(indexer_->update());
  const auto after = found();
  std::set<std::string> onDisk;
  for (const char* part : {"/new", "/cur"}) {
    for (const auto& entry : fs::directory_iterator(mail_ + part)) onDisk.insert(entry.path());
  }
  std::set<std::string> inLibrary;
  for (const auto& [id, path] : after) {
    inLibrary.insert(path);
    EXPECT_EQ(stable(path), stable(before.at(id)));
  }
  EXPECT_EQ(inLibrary, onDisk);
  EXPECT_EQ(after.size(), before.size());
  std::cout << "[          ] " << renames << " renames, " << syncs << " syncs, " << messages
            << " messages\n";
}

}  // namespace
}  // namespace thmp::storm
