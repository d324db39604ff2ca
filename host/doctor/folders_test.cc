// SPDX-License-Identifier: Apache-2.0
//
// The checks on real folders. What only another user is refused is shown with the program itself.
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <fstream>

#include "base/plist.h"
#include "host/doctor/checks.h"
#include "host/index/Indexer.h"
#include "host/store/sqlite_connection.h"
#include "host/store/test_support.h"
#include "messaging/message_names.h"

namespace thmp::doctor {
namespace {

namespace fs = std::filesystem;
using Level = Finding::Level;

class DoctorFolders : public testing::Test {
 protected:
  void SetUp() override { fs::permissions(root_.path(), fs::perms::owner_all); }

  std::string at(const std::string& name) const { return root_ / name; }
  std::string makeFolder(const std::string& name, unsigned mode = 0700) const {
    fs::create_directories(at(name));
    fs::permissions(at(name), static_cast<fs::perms>(mode));
    return at(name);
  }
  XdgFolders xdg() const {
    XdgFolders folders;
    folders.home = root_.path();
    folders.data = at("data");
    folders.config = at("config");
    folders.cache = at("cache");
    folders.runtime = at("runtime");
    return folders;
  }
  static Date now() { return Date::fromUnixSeconds(static_cast<double>(std::time(nullptr))); }
  static Date later(double seconds) { return Date::fromUnixSeconds(now().unixSeconds() + seconds); }

  const testing_support::TemporaryFolder root_;
};

TEST_F(DoctorFolders, FolderIsAbsentPrivateOpenToOthersOrClosedToItsOwner) {
  EXPECT_EQ(checkFolder("x", at("none")), std::nullopt);
  EXPECT_EQ(checkFolder("x", makeFolder("own"))->level, Level::kOk);
  const auto open = checkFolder("x", makeFolder("open", 0750));
  EXPECT_EQ(open->level, Level::kWarn);
  EXPECT_TRUE(open->text.starts_with(at("open") + " has mode 0750; run chmod 700 '")) << open->text;
  EXPECT_EQ(checkFolder("x", makeFolder("closed", 0300))->level, Level::kFail);
  fs::create_symlink("nowhere", at("link"));
  EXPECT_EQ(checkFolder("x", at("link"))->level, Level::kFail);
  testing_support::writeFile(at("file"), "");
  EXPECT_EQ(checkFolder("x", at("file"))->level, Level::kFail);
  EXPECT_EQ(checkFolder("x", at("file/below"))->level, Level::kFail);
}

class DoctorExchange : public DoctorFolders {
 protected:
  void SetUp() override {
    DoctorFolders::SetUp();
    for (const char* name : {"", "/in", "/out"})
      makeFolder("data/Mail/Tallyhive" + std::string(name));
  }
  void put(const std::string& file, const char* name, const Dictionary& userInfo = {}) const {
    Dictionary message;
    message.set(kNameKey, Value(name));
    message.set(kUserInfoKey, Value(userInfo));
    testing_support::writeFile(at("data/Mail/Tallyhive/" + file),
                               writeBinaryPropertyList(Value(message)).value_or(""));
  }
  /// Of "in" or "out".
  Finding line(std::size_t which, bool serving, Date when) const {
    const Findings findings = checkExchange(xdg(), serving, when);
    EXPECT_EQ(findings.size(), 3U);
    return which < findings.size() ? findings[which] : Finding();
  }
  static constexpr std::size_t kIn = 1;
  static constexpr std::size_t kOut = 2;
};

TEST_F(DoctorExchange, RequestIsOnTheWayForAMinuteAndThenLeft) {
  put("in/a.plist", kConnectName);
  EXPECT_EQ(line(kIn, /*serving=*/true, later(50)).level, Level::kOk);
  EXPECT_EQ(line(kIn, /*serving=*/true, later(70)).level, Level::kWarn);
  EXPECT_EQ(line(kIn, /*serving=*/false, now()).level, Level::kWarn);
}

TEST_F(DoctorExchange, MessageIsOnTheWayForAMinuteAndThenLeftUnlessItIsForAll) {
  put("out/quit.plist", kPluginQuitName);
  EXPECT_EQ(line(kOut, /*serving=*/true, later(7200)).text, "nothing waits but 1 notice for all");
  put("out/a.plist", kQueryDidStartName);
  EXPECT_EQ(line(kOut, /*serving=*/true, later(50)).level, Level::kOk);
  const Finding left = line(kOut, /*serving=*/true, later(7200));
  EXPECT_EQ(left.level, Level::kWarn);
  EXPECT_TRUE(left.text.starts_with("1 message that no client took, the oldest 2 h old"))
      << left.text;
}

TEST_F(DoctorExchange, FolderOpenToOthersHasItsContentTooAndAClosedOneNot) {
  put("in/a.plist", kConnectName);
  makeFolder("data/Mail/Tallyhive/in", 0711);
  EXPECT_EQ(checkExchange(xdg(), /*serving=*/false, now()).size(), 4U);
  makeFolder("data/Mail/Tallyhive/in", 0500);
  EXPECT_EQ(checkExchange(xdg(), /*serving=*/false, now()).size(), 3U);
}

TEST_F(DoctorExchange, MissingFolderFailsOnlyWhileAHostServes) {
  fs::remove(at("data/Mail/Tallyhive/out"));
  EXPECT_EQ(line(kOut, /*serving=*/true, now()).level, Level::kFail);
  EXPECT_EQ(line(kOut, /*serving=*/false, now()).level, Level::kWarn);
}

using DoctorLeftOvers = DoctorFolders;

TEST_F(DoctorLeftOvers, RuntimeFolderOfAnotherIsRefused) {
  XdgFolders folders = xdg();
  folders.runtimeIsSubstitute = true;
  EXPECT_EQ(checkApplications(folders, /*serving=*/false)[0].level, Level::kOk);
  makeFolder("elsewhere");
  fs::create_symlink("elsewhere", at("runtime"));
  const Finding finding = checkApplications(folders, /*serving=*/false)[0];
  EXPECT_EQ(finding.level, Level::kFail);
  EXPECT_NE(finding.text.find("set XDG_RUNTIME_DIR to a folder of your own"), std::string::npos);
}

TEST_F(DoctorLeftOvers, PasteboardsAreInUseOrLeftOver) {
  makeFolder("cache/tallyhive");
  makeFolder("cache/tallyhive/pasteboards");
  EXPECT_EQ(checkPasteboards(xdg(), /*serving=*/false).text, "none");
  makeFolder("cache/tallyhive/pasteboards/a");
  EXPECT_EQ(checkPasteboards(xdg(), /*serving=*/true).level, Level::kOk);
  EXPECT_EQ(checkPasteboards(xdg(), /*serving=*/false).level, Level::kWarn);
}

class DoctorMail : public DoctorFolders {
 protected:
  void remember(std::string_view bytes) const {
    testing_support::writeFile(at("config/tallyhive-mailhost/defaults.plist"), bytes);
  }
};

TEST_F(DoctorMail, FoldersAreThoseOfTheUserDefaults) {
  EXPECT_TRUE(rememberedMailFolders(xdg())->empty());
  Dictionary values;
  values.set(kMailFoldersKey, Value(Array{Value("/a"), Value(1), Value("/b")}));
  remember(writeBinaryPropertyList(Value(values)).value_or(""));
  EXPECT_EQ(*rememberedMailFolders(xdg()), (std::vector<std::string>{"/a", "/b"}));
  remember("garbage");
  const auto damaged = rememberedMailFolders(xdg());
  ASSERT_FALSE(damaged);
  const MailLook look = checkMailFolders(damaged, nullptr);
  ASSERT_EQ(look.findings.size(), 1U);
  EXPECT_EQ(look.findings[0].level, Level::kFail);
}

TEST_F(DoctorMail, EveryFolderIsOneLineAndAllAreCounted) {
  makeFolder("a/cur");
  makeFolder("a/new");
  makeFolder("b");
  const MailLook look =
      checkMailFolders(std::vector<std::string>{at("a"), at("b"), at("none")}, nullptr);
  ASSERT_EQ(look.findings.size(), 3U);
  EXPECT_EQ(look.findings[0].level, Level::kOk);
  EXPECT_EQ(look.findings[1].level, Level::kWarn);
  EXPECT_EQ(look.findings[2].level, Level::kFail);
  EXPECT_EQ(look.folders, 4U);
}

TEST_F(DoctorMail, LimitsAreThoseThatTheSystemTells) {
  const auto told = [](const std::string& name) {
    std::uint64_t number = 0;
    std::ifstream("/proc/sys/fs/inotify/" + name) >> number;
    return number;
  };
  const WatchLimits limits = watchLimits();
  EXPECT_EQ(limits.watches.value_or(0), told("max_user_watches"));
  EXPECT_EQ(limits.instances.value_or(0), told("max_user_instances"));
}

class DoctorStores : public DoctorFolders {
 protected:
  void SetUp() override {
    DoctorFolders::SetUp();
    deliver("one");
  }
  void deliver(const std::string& name) const {
    makeFolder("mail/new");
    testing_support::writeFile(at("mail/cur/" + name), "Subject: " + name + "\n\nWords.\n");
  }
  void index() const {
    const auto library = Library::open(folders_.library, Library::Access::kReadWrite);
    const auto index = Index::open(folders_.index, Index::Access::kReadWrite);
    ASSERT_TRUE(library && index);
    Indexer indexer(**library, **index);
    indexer.setRoots({at("mail")});
    ASSERT_TRUE(indexer.update());
  }
  void change(const std::string& database, const char* statement) const {
    const auto connection = Connection::open(database, Connection::Mode::kReadWrite);
    ASSERT_TRUE(connection && (*connection)->execute(statement));
  }
  Findings check(bool inUse = false) const {
    return checkStores(folders_, {at("mail")}, inUse, now()).findings;
  }
  static std::vector<Level> levels(const Findings& findings) {
    std::vector<Level> all;
    for (const Finding& finding : findings) all.push_back(finding.level);
    return all;
  }

  const HostFolders folders_{xdg()};
};

TEST_F(DoctorStores, NothingIndexedYetIsSaidOnceAndNothingIsMade) {
  EXPECT_EQ(levels(check()), (std::vector{Level::kWarn, Level::kWarn}));
  EXPECT_FALSE(fs::exists(at("data")));
  EXPECT_FALSE(fs::exists(at("cache")));
}

TEST_F(DoctorStores, MailThatIsNotIndexedWaits) {
  index();
  EXPECT_EQ(levels(check()), (std::vector{Level::kOk, Level::kOk, Level::kOk}));
  deliver("two");
  const Findings findings = check();
  ASSERT_EQ(findings.size(), 3U);
  EXPECT_EQ(findings[2].level, Level::kWarn);
  EXPECT_TRUE(findings[2].text.starts_with("1 of 2 messages indexed, waiting 1, "))
      << findings[2].text;
  EXPECT_TRUE(check(/*inUse=*/true)[2].text.ends_with("; the host is at it"));
}

TEST_F(DoctorStores, EmptyFolderInThePlaceOfTheMailFails) {
  index();
  fs::rename(at("mail"), at("away"));
  makeFolder("mail");
  const StoreLook look = checkStores(folders_, {at("mail")}, /*inUse=*/false, now());
  const Findings findings =
      checkMailFolders(std::vector<std::string>{at("mail")}, look.library.get()).findings;
  ASSERT_EQ(levels(findings), std::vector{Level::kFail});
  EXPECT_NE(findings[0].text.find("is its file system mounted?"), std::string::npos);
}

TEST_F(DoctorStores, LookLeavesNoFileBeside) {
  index();
  const auto namesIn = [](const std::string& folder) {
    return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
  };
  for (const std::string& file : {folders_.library, folders_.index}) {
    change(file, "PRAGMA wal_checkpoint(TRUNCATE)");
    ASSERT_FALSE(fs::exists(file + "-wal"));
  }
  const auto library = namesIn(fs::path(folders_.library).parent_path());
  const auto cache = namesIn(folders_.caches);
  EXPECT_EQ(levels(check()), (std::vector{Level::kOk, Level::kOk, Level::kOk}));
  EXPECT_EQ(namesIn(fs::path(folders_.library).parent_path()), library);
  EXPECT_EQ(namesIn(folders_.caches), cache);
}

TEST_F(DoctorStores, WhatIsNoDatabaseIsDamaged) {
  index();
  for (const std::string& file : {folders_.library, folders_.index}) {
    // Else what the journal holds is taken for the file's.
    change(file, "PRAGMA wal_checkpoint(TRUNCATE)");
    testing_support::writeFile(file, std::string(9000, 'x'));
  }
  const Findings findings = check();
  EXPECT_EQ(levels(findings), (std::vector{Level::kFail, Level::kFail}));
  EXPECT_NE(findings[0].text.find("is damaged"), std::string::npos);
  EXPECT_NE(findings[1].text.find("is damaged"), std::string::npos);
}

TEST_F(DoctorStores, OtherVersionOfTheLibraryFailsAndOfTheIndexIsMadeAnew) {
  index();
  change(folders_.index, "PRAGMA user_version = 9999");
  EXPECT_EQ(levels(check()), (std::vector{Level::kOk, Level::kWarn}));
  change(folders_.library, "PRAGMA user_version = 9999");
  EXPECT_EQ(levels(check()), (std::vector{Level::kFail, Level::kWarn}));
}

TEST_F(DoctorStores, LostIndexIsAWarning) {
  index();
  fs::remove_all(folders_.caches);
  const Findings findings = check();
  EXPECT_EQ(levels(findings), (std::vector{Level::kOk, Level::kWarn}));
  EXPECT_NE(findings[1].text.find("is gone; tallyhive-mailhost index makes it anew"),
            std::string::npos);
}

}  // namespace
}  // namespace thmp::doctor
