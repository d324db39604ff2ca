// SPDX-License-Identifier: Apache-2.0
#include "tests/disk/IndexedMail.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <memory>
#include <set>
#include <utility>

namespace thmp::disk {

namespace fs = std::filesystem;

namespace {

constexpr int kBoxes = 2;

std::string subjectOf(int number) { return "message-" + std::to_string(number); }

std::string stableName(int number) { return std::to_string(1'700'000'000 + number) + ".M.world"; }

std::string subject(const IndexedMessage& message) {
  return std::string(message.value("kMDItemSubject").asText().value_or(""));
}

// A mailbox takes two transactions and more.
IndexerOptions inSmallSteps() {
  IndexerOptions options;
  options.batchSize = 3;
  return options;
}

std::string integrity(const std::string& path) {
  sqlite3* database = nullptr;
  std::string answer = "cannot be opened";
  if (::sqlite3_open(path.c_str(), &database) == SQLITE_OK) {
    ::sqlite3_exec(
        database, "PRAGMA integrity_check",
        [](void* into, int, char** values, char**) {
          *static_cast<std::string*>(into) = values[0];
          return 0;
        },
        &answer, nullptr);
  }
  ::sqlite3_close(database);
  return answer;
}

}  // namespace

struct IndexedMail::Opened {
  std::unique_ptr<Library> library;
  std::unique_ptr<Index> index;
  std::unique_ptr<Indexer> indexer;
};

IndexedMail::IndexedMail() {
  for (int number = 0; number < kBoxes; ++number) testing_support::makeMaildir(box(number));
}

std::string IndexedMail::box(int number) const {
  return folder_ / ("mail/box" + std::to_string(number % kBoxes));
}

void IndexedMail::deliver(int number) {
  const std::string file = "new/" + stableName(number);
  paths_[number] = box(number) + "/" + file;
  testing_support::writeFile(paths_[number], testing_support::mailText(subjectOf(number)));
  changes_.addFile(box(number), file);
}

void IndexedMail::flag(int number) {
  const fs::path before = paths_.at(number);
  changes_.addFile(box(number), before.lexically_relative(box(number)).string());
  const std::string file = "cur/" + stableName(number) + ":2,F";
  paths_[number] = box(number) + "/" + file;
  fs::rename(before, paths_[number]);
  changes_.addFile(box(number), file);
}

void IndexedMail::remove(int number) {
  const fs::path before = paths_.at(number);
  changes_.addFile(box(number), before.lexically_relative(box(number)).string());
  fs::remove(before);
  paths_.erase(number);
}

void IndexedMail::makeNewMail() {
  for (int number = 0; number < 10; ++number) deliver(number);
}

void IndexedMail::makeChangedMail() {
  makeNewMail();
  update();
  changes_ = {};
  deliver(10);
  deliver(11);
  flag(2);
  flag(3);
  remove(5);
}

void IndexedMail::makeStaleIndex() {
  makeNewMail();
  update();
  for (int number = 0; number < 7; ++number) remove(number);
  update();
}

IndexedMail::Opened IndexedMail::open(IndexerOptions options, const Told& told) {
  Opened opened;
  auto library = Library::open(state() + "/data/library.sqlite", Library::Access::kReadWrite);
  EXPECT_TRUE(library) << library.error().text();
  auto index = Index::open(state() + "/cache/index.sqlite", Index::Access::kReadWrite);
  EXPECT_TRUE(index) << index.error().text();
  if (!library || !index) return opened;
  opened.library = std::move(*library);
  opened.index = std::move(*index);
  opened.indexer = std::make_unique<Indexer>(*opened.library, *opened.index, std::move(options));
  opened.indexer->setRoots({folder_ / "mail"});
  if (told) {
    opened.index->addListener([told, &of = *opened.index](const IndexChange& change) {
      for (const std::int64_t id : change.added) {
        if (const auto message = of.get(id)) told(subject(*message), id);
      }
    });
  }
  return opened;
}

void IndexedMail::update(const Told& told) {
  const Opened opened = open(inSmallSteps(), told);
  if (!opened.indexer) return;
  EXPECT_TRUE(opened.indexer->update());
}

void IndexedMail::follow(const Told& told) {
  const Opened opened = open({}, told);
  if (!opened.indexer) return;
  EXPECT_TRUE(opened.indexer->update(changes_));
}

void IndexedMail::makeAnew(const Told& told) {
  IndexerOptions options = inSmallSteps();
  options.mostStale = 0;
  const Opened opened = open(options, told);
  if (!opened.indexer) return;
  EXPECT_TRUE(opened.indexer->update());
}

KnownIDs IndexedMail::idsOfNow() {
  KnownIDs ids;
  const Opened opened = open({}, {});
  if (!opened.index) return ids;
  EXPECT_TRUE(opened.index->forEachDescending([&](const IndexedMessage& message) {
    ids[subject(message)] = message.id();
    return true;
  }));
  return ids;
}

void IndexedMail::checkNextStart(KnownIDs known) {
  {
    const Opened opened = open({}, {});
    ASSERT_TRUE(opened.indexer);
    for (const auto& [number, path] : paths_) {
      const auto id = known.find(subjectOf(number));
      if (id == known.end()) continue;
      EXPECT_EQ(opened.library->pathOfMessage(id->second).value_or("forgotten"), path);
    }
    // What clients can see before the first update is true, too.
    EXPECT_TRUE(opened.index->forEachDescending([&](const IndexedMessage& message) {
      const auto [place, isNew] = known.try_emplace(subject(message), message.id());
      EXPECT_EQ(place->second, message.id()) << subject(message);
      return true;
    }));
    EXPECT_TRUE(opened.indexer->update());
    std::map<std::int64_t, int> found;
    EXPECT_TRUE(opened.index->forEachDescending([&](const IndexedMessage& message) {
      ++found[message.id()];
      EXPECT_EQ(opened.library->pathOfMessage(message.id()).value_or(""), [&] {
        for (const auto& [number, path] : paths_) {
          if (subjectOf(number) == subject(message)) return path;
        }
        return std::string("none");
      }());
      const bool isFlagged = message.value("com_apple_mail_flagged") == Value(true);
      EXPECT_EQ(isFlagged, opened.library->pathOfMessage(message.id())->ends_with("F"));
      const auto [place, isNew] = known.try_emplace(subject(message), message.id());
      EXPECT_EQ(place->second, message.id()) << subject(message);
      return true;
    }));
    EXPECT_EQ(found.size(), paths_.size());
    EXPECT_EQ(*opened.library->messageCount(), paths_.size());
    std::set<std::int64_t> numbers;
    for (const auto& [name, id] : known) {
      EXPECT_TRUE(numbers.insert(id).second) << "an ID of two: " << name;
    }
  }
  const std::set<std::string> lasting = {"data",
                                         "cache",
                                         "library.sqlite",
                                         "library.sqlite-wal",
                                         "library.sqlite-shm",
                                         "index.sqlite",
                                         "index.sqlite-wal",
                                         "index.sqlite-shm",
                                         "index.sqlite-columns"};
  for (const auto& entry : fs::recursive_directory_iterator(state())) {
    EXPECT_TRUE(lasting.contains(entry.path().filename().string())) << entry.path();
  }
  EXPECT_EQ(integrity(state() + "/data/library.sqlite"), "ok");
  EXPECT_EQ(integrity(state() + "/cache/index.sqlite"), "ok");
}

}  // namespace thmp::disk
