// SPDX-License-Identifier: Apache-2.0
#include "host/doctor/checks.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "platform/fake/FakeApplication.h"
#include "platform/fake/FakeIdentity.h"
#include "platform/fake/InMemoryFileSystem.h"
#include "platform/fake/RecordingLog.h"

namespace thmp::doctor {
namespace {

using Level = Finding::Level;

TEST(DoctorTexts, CountsAndAgesReadAsOneSaysThem) {
  EXPECT_EQ(counted(0, "file"), "0 files");
  EXPECT_EQ(counted(1, "file"), "1 file");
  EXPECT_EQ(counted(2, "mailbox"), "2 mailboxes");
  EXPECT_EQ(ageText(-3), "0 s");
  EXPECT_EQ(ageText(119), "119 s");
  EXPECT_EQ(ageText(120), "2 min");
  EXPECT_EQ(ageText(7200), "2 h");
  EXPECT_EQ(ageText(172'800), "2 days");
}

class Watches : public testing::Test {
 protected:
  static Finding check(const WatchLimits& limits, std::size_t folders, bool serving = false) {
    return checkWatches(limits, folders, serving);
  }
  static constexpr WatchLimits kUsual{8192, 128, true};
};

TEST_F(Watches, EnoughAreOk) {
  const Finding finding = check(kUsual, 12);
  EXPECT_EQ(finding.level, Level::kOk);
  EXPECT_EQ(finding.text, "12 folders of mail, the system watches 8192 for a user");
}

TEST_F(Watches, MoreFoldersThanWatchesAreAWarningWithTheNumberToSet) {
  const Finding finding = check(kUsual, 9000);
  EXPECT_EQ(finding.level, Level::kWarn);
  EXPECT_TRUE(finding.text.ends_with("sudo sysctl fs.inotify.max_user_watches=32768"))
      << finding.text;
  EXPECT_EQ(check({9100, 128, true}, 9000).level, Level::kOk);
}

TEST_F(Watches, NoInstanceLeftIsAFailureUnlessTheHostHasItsOwn) {
  WatchLimits limits = kUsual;
  limits.instancesLeft = false;
  const Finding finding = check(limits, 12);
  EXPECT_EQ(finding.level, Level::kFail);
  EXPECT_TRUE(finding.text.ends_with("sudo sysctl fs.inotify.max_user_instances=512"))
      << finding.text;
  EXPECT_EQ(check(limits, 12, /*serving=*/true).level, Level::kOk);
  EXPECT_EQ(check({8192, 2, true}, 12, /*serving=*/true).level, Level::kFail);
  EXPECT_EQ(check({8192, 3, true}, 12, /*serving=*/true).level, Level::kOk);
}

TEST_F(Watches, LimitsThatCannotBeReadAreAWarning) {
  EXPECT_EQ(check({std::nullopt, 128, true}, 12).level, Level::kWarn);
  EXPECT_EQ(check({8192, std::nullopt, true}, 12).level, Level::kWarn);
}

class ProtectedFolders : public testing::Test {
 protected:
  Findings check(const std::vector<std::string>& mailFolders) {
    return checkProtectedFolders(access_, mailFolders);
  }

  InMemoryFileSystem files_;
  FakeIdentity identity_;

 private:
  FakeApplication application_;
  RecordingLog log_;
  const THMPPathAdditions paths_{identity_};
  const FullDiskAccess access_{paths_, files_, identity_, application_, log_};
};

TEST_F(ProtectedFolders, ThoseInTheWayOfMailAreNamed) {
  identity_.setSystemVersion(2000);
  files_.makeFolder("/home/ada/Library/Mail");
  files_.failFromNowOn(FileOperation::kList, EPERM);
  const Findings findings = check({"/srv/mail", "/home/ada/Library/Mail/V10", "/home/ada"});
  ASSERT_EQ(findings.size(), 2U);
  EXPECT_EQ(findings[0].level, Level::kFail);
  EXPECT_EQ(findings[0].text,
            "the system withholds /home/ada/Library/Mail, which /home/ada/Library/Mail/V10 needs; "
            "grant this program Full Disk Access in the system settings");
  EXPECT_TRUE(findings[1].text.starts_with("the system withholds /home/ada/.Trash, which "));
}

TEST_F(ProtectedFolders, WithAccessOrWithoutTheControlNothingIsSaid) {
  EXPECT_TRUE(check({"/home/ada/Library/Mail"}).empty());
  identity_.setSystemVersion(2000);
  files_.makeFolder("/home/ada/Library/Mail");
  EXPECT_TRUE(check({"/home/ada/Library/Mail"}).empty());
}

TEST(DoctorOnTheHost, EachStateOfTheLockHasItsLine) {
  EXPECT_EQ(checkHost(std::nullopt).level, Level::kWarn);
  EXPECT_EQ(checkHost(HostLock::Holder{"serve", 7}).level, Level::kOk);
  const Finding indexing = checkHost(HostLock::Holder{"index", 7});
  EXPECT_EQ(indexing.level, Level::kWarn);
  EXPECT_NE(indexing.text.find("at work"), std::string::npos);
}

}  // namespace
}  // namespace thmp::doctor
