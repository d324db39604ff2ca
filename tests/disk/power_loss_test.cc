// SPDX-License-Identifier: Apache-2.0
//
// The power goes while something is written, at any moment: the next start finds what was promised
// to last, and of the rest the old or the new, whole. All moments and some disks for each with
// THMP_EVERY_CALL, a part without.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <optional>
#include <set>

#include "base/plist.h"
#include "platform/linux/LinuxPreferences.h"
#include "platform/linux/PasteboardStore.h"
#include "platform/linux/testing.h"
#include "tests/disk/IndexedMail.h"
#include "tests/disk/PowerLoss.h"
#include "tests/disk/RealCenter.h"
#include "tests/disk/next_start.h"

namespace thmp::disk {
namespace {

namespace fs = std::filesystem;
using thmp::testing::CollectingLog;
using thmp::testing::namesIn;
using thmp::testing::TemporaryFolder;

bool everyMoment() { return std::getenv("THMP_EVERY_CALL") != nullptr; }

/// Each strictest disk there was, and at each `stride`th moment some others. `check` is given how
/// many changes were made before the power went.
void atEachMoment(const PowerLoss& disk, std::size_t stride,
                  const std::function<void(std::size_t changes)>& check) {
  int disks = 0;
  const auto look = [&](std::size_t count, std::optional<unsigned> seed) {
    SCOPED_TRACE("after " + std::to_string(count) + " changes, " +
                 (seed ? "seed " + std::to_string(*seed) : "the strictest disk"));
    disk.restore(count, seed);
    check(count);
    ++disks;
  };
  for (std::size_t count = 0; count <= disk.changes(); ++count) {
    if (count == 0 || disk.isSync(count)) look(count, std::nullopt);
    const unsigned seeds = everyMoment() ? 3 : count % stride == 0 ? 1 : 0;
    for (unsigned seed = 0; seed < seeds; ++seed) look(count, seed);
    if (::testing::Test::HasFailure()) break;
  }
  std::cout << "[          ] " << disk.changes() << " changes, " << disks << " disks\n";
}

TEST(PowerLoss, UserDefaultsAreWholeAndThoseThatWereWrittenStay) {
  const TemporaryFolder folder;
  const std::string place = folder.at("tallyhive-mailhost");
  const std::string first(3'000, 'a');
  const std::string second(5'000, 'b');
  CollectingLog log;
  PowerLoss disk(folder.path());
  std::size_t firstWritten = 0;
  std::size_t secondWritten = 0;
  {
    LinuxPreferences preferences(place, log);
    preferences.set("text", first);
    EXPECT_TRUE(preferences.flush());
    firstWritten = disk.changes();
    preferences.set("text", second);
    EXPECT_TRUE(preferences.flush());
    secondWritten = disk.changes();
  }
  disk.stop();
  atEachMoment(disk, 1, [&](std::size_t changes) {
    LinuxPreferences preferences(place, log);
    const std::string text(preferences.get("text").asText().value_or(""));
    const std::set<std::string> allowed = changes >= secondWritten ? std::set{second}
                                          : changes >= firstWritten
                                              ? std::set{first, second}
                                              : std::set{std::string(), first};
    EXPECT_TRUE(allowed.contains(text)) << text.substr(0, 10);
    checkDefaultsGoOn(preferences, place, log);
  });
}

TEST(PowerLoss, MessageIsReadWholeOrNotAtAll) {
  const TemporaryFolder folder;
  const Dictionary payload{{"text", std::string(20'000, 'x')}};
  PowerLoss disk(folder.path());
  std::string outbox;
  {
    RealCenter center(folder.path());
    outbox = center.outbox();
    EXPECT_TRUE(center.post(" one", payload));
    EXPECT_TRUE(center.post(" two", payload));
  }
  disk.stop();
  atEachMoment(disk, 1, [&](std::size_t) {
    if (!thmp::testing::exists(outbox)) return;
    for (const std::string& name : namesIn(outbox)) {
      const auto root =
          readPropertyList(thmp::testing::readFile(outbox + "/" + name), kMessageLimits, nullptr);
      EXPECT_TRUE(!root || Value::identical((*root->asDictionary())["userInfo"], Value(payload)));
    }
  });
}

TEST(PowerLoss, PasteboardsAreGoneAfterTheNextStart) {
  const TemporaryFolder folder;
  CollectingLog log;
  PowerLoss disk(folder.path());
  {
    PasteboardStore store(folder.path(), log);
    const auto board = store.makeUnique(nullptr);
    ASSERT_TRUE(board);
    EXPECT_TRUE(board->setPropertyList(Dictionary{{"a", std::string(5'000, 'x')}}, "t", nullptr));
    board->clearContents();
    EXPECT_TRUE(board->setPropertyList(Dictionary{{"b", 1}}, "t", nullptr));
  }
  disk.stop();
  atEachMoment(disk, 1, [&](std::size_t) { checkPasteboardsAreGone(folder.path()); });
}

class IndexAfterPowerLoss : public ::testing::Test {
 protected:
  IndexAfterPowerLoss() { fs::create_directory(mail_.state()); }

  using Operation = void (IndexedMail::*)(const IndexedMail::Told& told);

  void losePowerDuring(Operation operation) {
    const KnownIDs before = fs::is_empty(mail_.state()) ? KnownIDs() : mail_.idsOfNow();
    struct Told {
      std::size_t changes;
      std::string subject;
      std::int64_t id;
    };
    std::vector<Told> told;
    PowerLoss disk(mail_.state());
    (mail_.*operation)([&](const std::string& subject, std::int64_t id) {
      told.push_back({disk.changes(), subject, id});
    });
    disk.stop();
    EXPECT_FALSE(told.empty());
    atEachMoment(disk, 8, [&](std::size_t changes) {
      KnownIDs known = before;
      for (const Told& one : told) {
        if (one.changes <= changes) known[one.subject] = one.id;
      }
      mail_.checkNextStart(known);
    });
  }

  IndexedMail mail_;
};

TEST_F(IndexAfterPowerLoss, FirstBuildIsGoneOnWith) {
  mail_.makeNewMail();
  losePowerDuring(&IndexedMail::update);
}

TEST_F(IndexAfterPowerLoss, ChangesAreMadeGood) {
  mail_.makeChangedMail();
  losePowerDuring(&IndexedMail::follow);
}

TEST_F(IndexAfterPowerLoss, IndexThatIsMadeAnewIsWholeUnderTheIDsOfBefore) {
  mail_.makeStaleIndex();
  losePowerDuring(&IndexedMail::makeAnew);
}

}  // namespace
}  // namespace thmp::disk
