// SPDX-License-Identifier: Apache-2.0
//
// Protected folders on folders as each implementation of the boundary has them. The refusals that
// only a system with that control gives are played elsewhere.
#include <algorithm>
#include <deque>

#include "paths/FullDiskAccess.h"
#include "platform/fake/FakeApplication.h"
#include "platform/fake/FakeIdentity.h"
#include "platform/fake/ForwardingFiles.h"
#include "platform/fake/RecordingLog.h"
#include "tests/contract/fixtures.h"
#include "tests/support/child_process.h"

namespace thmp {
namespace {

using WorkList = std::deque<std::string>;

/// Something happens to a folder just when somebody asks whether it is one.
class FilesWithHook : public ForwardingFiles {
 public:
  using ForwardingFiles::ForwardingFiles;
  bool isDirectory(const std::string& path) override {
    if (hook) hook(path);
    return target().isDirectory(path);
  }
  std::function<void(const std::string& path)> hook;
};

class FullDiskAccessContract
    : public contract::ContractTest<contract::FilesFixture, &contract::Implementation::files> {
 protected:
  FullDiskAccessContract() {
    fixture().dropPrivileges();
    home_ = fixture().scene().freshFolder();
    identity.setProcessHome(home_);
  }

  contract::Scene& scene() { return fixture().scene(); }
  std::string at(const std::string& name) const { return home_ + "/" + name; }

  WorkList printed(WorkList folders) {
    access.thmp_printFDAFoldersUnderPaths(folders);
    std::sort(folders.begin(), folders.end());
    return folders;
  }

  FakeIdentity identity;
  FakeApplication application;
  RecordingLog log;
  FilesWithHook files{fixture().files()};
  const THMPPathAdditions paths{identity};
  const FullDiskAccess access{paths, files, identity, application, log};

 private:
  std::string home_;
};

THMP_RUN_CONTRACT(FullDiskAccessContract);

TEST_P(FullDiskAccessContract, WithoutProbeFoldersThereIsNoAccess) {
  EXPECT_FALSE(access.thmp_checkHasFullDiskAccess());
}

TEST_P(FullDiskAccessContract, FolderClosedByItsPermissionsIsNoRefusal) {
  scene().makeFolder(at("Library/Mail"));
  EXPECT_TRUE(access.thmp_checkHasFullDiskAccess());
  scene().makeUnreadable(at("Library/Mail"));
  EXPECT_TRUE(access.thmp_checkHasFullDiskAccess());
}

TEST_P(FullDiskAccessContract, LinkIntoAProtectedFolderIsJudgedByItsTarget) {
  scene().makeFolder(at("Library/Mail/V10"));
  scene().makeLink(at("letters"), "Library/Mail");
  scene().makeLink(at("lost"), at("letters/none"));

  std::string location;
  EXPECT_TRUE(access.thmp_isDescendantOfKnownFullDiskAccessLocation(at("letters/V10"), &location));
  EXPECT_EQ(location, at("Library/Mail"));
  EXPECT_TRUE(access.thmp_isDescendantOfKnownFullDiskAccessLocation(at("lost")));
  EXPECT_FALSE(access.thmp_isDescendantOfKnownFullDiskAccessLocation(at("letters/../..")));
}

TEST_P(FullDiskAccessContract, LoopOfLinksEndsAndLeadsNowhere) {
  scene().makeLink(at("one"), at("two"));
  scene().makeLink(at("two"), "one/deeper");
  EXPECT_FALSE(access.thmp_isDescendantOfKnownFullDiskAccessLocation(at("one/x")));
  EXPECT_FALSE(access.thmp_isAncestorOfKnownFullDiskAccessLocation(at("two")));
  EXPECT_EQ(printed({at("one")}), WorkList());
}

TEST_P(FullDiskAccessContract, FolderClosedByItsPermissionsIsNeitherReportedNorAdded) {
  scene().makeFolder(at("closed/inner"));
  scene().makeFolder(at("open"));
  scene().makeUnreadable(at("closed"));
  EXPECT_EQ(printed({at("")}), WorkList{at("open")});
  EXPECT_TRUE(log.lines().empty());
}

TEST_P(FullDiskAccessContract, FolderThatItsOwnerMightReadAndWeCannotIsReported) {
  testing::whereOneMayMount([this] {
    scene().makeAnothers(at("theirs"));
    scene().makeFolder(at("open"));
    EXPECT_EQ(printed({at("")}), WorkList{at("open")});
    EXPECT_EQ(log.lines(), std::vector<std::string>{"FDA protected: " + at("theirs")});
  });
}

TEST_P(FullDiskAccessContract, AnothersFolderIsNoRefusalOfTheSystem) {
  testing::whereOneMayMount([this] {
    scene().makeAnothers(at("Library/Mail"));
    EXPECT_TRUE(access.thmp_checkHasFullDiskAccess());
  });
}

TEST_P(FullDiskAccessContract, FoldersBehindLinksAreNotAdded) {
  scene().makeFolder(at("real/x"));
  scene().makeLink(at("way"), at("real"));
  scene().makeLink(at("real/back"), at(""));
  EXPECT_EQ(printed({at("way")}), WorkList());
  EXPECT_EQ(printed({at("real")}), WorkList{at("real/x")});
}

TEST_P(FullDiskAccessContract, DeepTreeIsSeenToItsEndInOneStep) {
  std::string deepest = at("d");
  for (int i = 1; i < 1000; ++i) deepest += "/d";
  scene().makeFolder(deepest);
  const WorkList left = printed({at("")});
  EXPECT_EQ(left.size(), 1000U);
  EXPECT_EQ(left.back(), deepest);
}

TEST_P(FullDiskAccessContract, FolderThatGoesWhileItIsLookedAtIsPassedOver) {
  scene().makeFolder(at("going/inner"));
  scene().makeFolder(at("staying"));
  files.hook = [&](const std::string& path) {
    if (path == at("going")) scene().erase(path);
  };
  EXPECT_EQ(printed({at("")}), WorkList{at("staying")});
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace thmp
