// SPDX-License-Identifier: Apache-2.0
#include "paths/FullDiskAccess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <functional>
#include <latch>
#include <memory>
#include <thread>
#include <utility>

#include "paths/full_disk_access_lists.h"
#include "platform/fake/FakeApplication.h"
#include "platform/fake/FakeIdentity.h"
#include "platform/fake/ForwardingFiles.h"
#include "platform/fake/InMemoryFileSystem.h"
#include "platform/fake/RecordingLog.h"

namespace thmp {
namespace {

using Paths = std::vector<std::string>;

constexpr double kEarlier = 1671.4;
constexpr double kCurrent = 1672.0;

/// Lists no folder, and says why as another system would.
class FilesWithOtherErrors : public ForwardingFiles {
 public:
  FilesWithOtherErrors(Files& target, Error error)
      : ForwardingFiles(target), error_(std::move(error)) {}
  std::optional<Paths> list(const std::string& /*directory*/, Error* error) override {
    fail(error, error_);
    return std::nullopt;
  }

 private:
  const Error error_;
};

class CountingIdentity : public FakeIdentity {
 public:
  std::string processHome() override {
    ++homes;
    return FakeIdentity::processHome();
  }
  std::atomic<std::size_t> homes = 0;
};

/// Of one kind, in the table of what the system withholds.
Paths golden(const std::string& kind) {
  std::ifstream table(THMP_SOURCE_DIR "/tests/data/full_disk_access_golden.tsv");
  Paths all;
  for (std::string line; std::getline(table, line);) {
    if (line.starts_with(kind + "\t")) all.push_back(line.substr(kind.size() + 1));
  }
  return all;
}

/// Runs `body` on eight threads that begin together.
void together(const std::function<void()>& body) {
  constexpr int kThreads = 8;
  std::latch begin(kThreads);
  std::vector<std::jthread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      begin.arrive_and_wait();
      body();
    });
  }
}

class FullDiskAccessTest : public testing::Test {
 protected:
  const FullDiskAccess& access() const { return access_; }
  const Paths& locations() const { return access_.thmp_knownFullDiskAccessLocations(); }
  bool isAncestor(const std::string& path) {
    location = "untouched";
    return access_.thmp_isAncestorOfKnownFullDiskAccessLocation(path, &location);
  }
  bool isDescendant(const std::string& path) {
    location = "untouched";
    return access_.thmp_isDescendantOfKnownFullDiskAccessLocation(path, &location);
  }
  static std::string home(const std::string& below) { return "/home/ada/" + below; }
  void protect(const std::string& folder) {
    files.failFromNowOn(FileOperation::kList, EPERM, folder);
  }
  std::size_t listings() const { return files.count(FileOperation::kList); }

  std::deque<std::string> printed(std::deque<std::string> paths) {
    access_.thmp_printFDAFoldersUnderPaths(paths);
    return paths;
  }
  /// A folder that the process cannot read, whatever its permissions say.
  void makeUnreadable(const std::string& folder, unsigned permissions) {
    files.makeFolder(folder);
    files.setReadable(folder, false);
    files.setPermissions(folder, permissions);
  }

  InMemoryFileSystem files;
  FakeIdentity identity;
  FakeApplication application;
  RecordingLog log;
  std::string location;

 private:
  const THMPPathAdditions paths_{identity};
  const FullDiskAccess access_{paths_, files, identity, application, log};
};

using KnownLocations = FullDiskAccessTest;

TEST_F(KnownLocations, EarlierSystemsHaveTheEarlierListAndBothLibrariesAsPrefixes) {
  identity.setSystemVersion(kEarlier);
  ASSERT_EQ(locations().size(), 32U);
  EXPECT_EQ(locations()[0], "/Library/Application Support/com.apple.TCC");
  EXPECT_EQ(locations()[1], home("Library/Application Support/CallHistoryDB"));
  EXPECT_EQ(locations()[25], home("Library/Preferences/com.apple.TimeMachine.plist"));
  EXPECT_EQ(locations()[31], home("Library/Suggestions"));
  EXPECT_EQ(access().thmp_knownFullDiskAccessPathPrefixes(), (Paths{home("Library"), "/Library"}));
}

TEST_F(KnownLocations, CurrentSystemsHaveTheCurrentListAndNoPrefixes) {
  identity.setSystemVersion(kCurrent);
  ASSERT_EQ(locations().size(), 36U);
  EXPECT_EQ(locations()[0], home(".Trash"));
  EXPECT_EQ(locations()[26], home("Library/Mail"));
  EXPECT_EQ(locations()[35], home("Library/Suggestions"));
  EXPECT_EQ(access().thmp_knownFullDiskAccessPathPrefixes(), std::nullopt);
}

TEST_F(KnownLocations, WithoutPrefixesEveryLocationIsLookedAt) {
  identity.setSystemVersion(kCurrent);
  EXPECT_TRUE(isDescendant(home(".Trash/letter")));
  EXPECT_EQ(location, home(".Trash"));
}

TEST_F(KnownLocations, SystemWithoutAVersionNumberCountsAsCurrent) {
  EXPECT_EQ(locations().size(), kCurrentFullDiskAccessLocations.size());
  EXPECT_EQ(access().thmp_knownFullDiskAccessPathPrefixes(), std::nullopt);
}

TEST_F(KnownLocations, AreStandardizedInStoredOrder) {
  identity.setSystemVersion(kEarlier);
  for (std::size_t i = 0; i < locations().size(); ++i) {
    std::string stored(kEarlierFullDiskAccessLocations[i]);
    if (stored.starts_with("~")) stored.replace(0, 1, "/home/ada");
    if (stored.ends_with('/')) stored.pop_back();
    EXPECT_EQ(locations()[i], stored);
  }
}

TEST_F(KnownLocations, TildeIsTheProcesssHomeNotTheUsers) {
  identity.setProcessHome("/containers/mail");
  identity.setSystemVersion(kEarlier);
  EXPECT_EQ(locations()[20], "/containers/mail/Library/Mail");
  EXPECT_EQ(access().thmp_knownFullDiskAccessPathPrefixes(),
            (Paths{"/containers/mail/Library", "/Library"}));
}

TEST_F(KnownLocations, NeverChangeOnceAskedFor) {
  identity.setSystemVersion(kEarlier);
  const Paths before = locations();
  const auto prefixes = access().thmp_knownFullDiskAccessPathPrefixes();
  identity.setSystemVersion(kCurrent);
  identity.setProcessHome("/elsewhere");
  EXPECT_EQ(locations(), before);
  EXPECT_EQ(access().thmp_knownFullDiskAccessPathPrefixes(), prefixes);
}

TEST_F(KnownLocations, ThreadsThatAskFirstTogetherGetOneList) {
  identity.setSystemVersion(kEarlier);
  files.makeFolder(home("Library/Mail"));
  std::atomic<int> right = 0;
  together([&] {
    const bool lists =
        access().thmp_knownFullDiskAccessPathPrefixes().has_value() && locations().size() == 32;
    if (lists && access().thmp_hasFullDiskAccess()) ++right;
  });
  EXPECT_EQ(right, 8);
  EXPECT_EQ(application.didBecomeActiveObservers(), 1U);
}

TEST_F(KnownLocations, AreMadeOnceHoweverManyAskAtOnce) {
  CountingIdentity counting;
  counting.setSystemVersion(kEarlier);
  const THMPPathAdditions paths(counting);
  const FullDiskAccess shared(paths, files, counting, application, log);
  std::atomic<std::size_t> others = 0;
  const auto ask = [&] {
    const auto* locations = &shared.thmp_knownFullDiskAccessLocations();
    const auto* prefixes = &shared.thmp_knownFullDiskAccessPathPrefixes();
    if (locations->size() != 32 || !prefixes->has_value()) ++others;
    if (shared.thmp_checkHasFullDiskAccess()) ++others;
  };
  together(ask);
  // Each text with a tilde once: all but one of the list, one of the prefixes, all probe folders.
  EXPECT_EQ(counting.homes, 31U + 1U + 8U);
  ask();
  EXPECT_EQ(counting.homes, 40U);
  EXPECT_EQ(others, 0U);
}

TEST_F(KnownLocations, StoredTextsAreTheSystemsToTheLetter) {
  const auto texts = [](const auto& stored) { return Paths(stored.begin(), stored.end()); };
  EXPECT_EQ(texts(kCurrentFullDiskAccessLocations), golden("current"));
  EXPECT_EQ(texts(kEarlierFullDiskAccessLocations), golden("earlier"));
  EXPECT_EQ(texts(kFullDiskAccessProbeFolders), golden("probe"));
}

using AncestorOfKnownLocation = FullDiskAccessTest;

TEST_F(AncestorOfKnownLocation, UsersLibraryIsAboveTheFirstLocationInItAndInsideNone) {
  identity.setSystemVersion(kCurrent);
  EXPECT_TRUE(isAncestor(home("Library")));
  EXPECT_EQ(location, home("Library/Application Support/CallHistoryDB"));
  EXPECT_FALSE(isDescendant(home("Library")));
  EXPECT_EQ(location, "untouched");
}

TEST_F(AncestorOfKnownLocation, FirstLocationInListOrderIsTold) {
  EXPECT_TRUE(isAncestor("/"));
  EXPECT_EQ(location, home(".Trash"));
  EXPECT_TRUE(isAncestor(home("Library/Metadata")));
  EXPECT_EQ(location, home("Library/Metadata/CoreSpotlight"));
}

TEST_F(AncestorOfKnownLocation, LocationItselfCountsForBothTests) {
  EXPECT_TRUE(isAncestor(home("Library/Mail/")));
  EXPECT_EQ(location, home("Library/Mail"));
  EXPECT_TRUE(isDescendant(home("Library/Mail/")));
  EXPECT_EQ(location, home("Library/Mail"));
}

TEST_F(AncestorOfKnownLocation, MissLeavesTheLocationAlone) {
  EXPECT_FALSE(isAncestor(home("Documents")));
  EXPECT_EQ(location, "untouched");
  EXPECT_FALSE(isAncestor(home("Library/Mail/V10")));
  EXPECT_EQ(location, "untouched");
}

TEST_F(AncestorOfKnownLocation, WholeComponentsAreCompared) {
  EXPECT_FALSE(isAncestor(home("Library/Met")));
  EXPECT_FALSE(isAncestor(home("Libr")));
}

TEST_F(AncestorOfKnownLocation, LocationNeedNotBeAskedFor) {
  EXPECT_TRUE(access().thmp_isAncestorOfKnownFullDiskAccessLocation("/home"));
  EXPECT_TRUE(access().thmp_isDescendantOfKnownFullDiskAccessLocation(home("Library/Mail/V10")));
}

TEST_F(AncestorOfKnownLocation, EmptyPathIsAboveEverything) {
  EXPECT_TRUE(isAncestor(""));
  EXPECT_EQ(location, home(".Trash"));
}

using DescendantOfKnownLocation = FullDiskAccessTest;

TEST_F(DescendantOfKnownLocation, PathInsideTheMailFolderIsOneAndMailDataIsNot) {
  EXPECT_TRUE(isDescendant(home("Library/Mail/V10/INBOX.mbox/1.emlx")));
  EXPECT_EQ(location, home("Library/Mail"));
  EXPECT_FALSE(isDescendant(home("Library/MailData")));
  EXPECT_EQ(location, "untouched");
}

TEST_F(DescendantOfKnownLocation, SameHoldsWithPrefixes) {
  identity.setSystemVersion(kEarlier);
  EXPECT_TRUE(isDescendant(home("Library/Mail/V10")));
  EXPECT_EQ(location, home("Library/Mail"));
  EXPECT_TRUE(isDescendant("/Library/Application Support/com.apple.TCC/TCC.db"));
  EXPECT_FALSE(isDescendant(home("Library/MailData")));
  EXPECT_FALSE(isDescendant(home("Documents")));
  EXPECT_EQ(location, "untouched");
}

TEST_F(DescendantOfKnownLocation, FileInTheListIsALocationToo) {
  identity.setSystemVersion(kEarlier);
  EXPECT_TRUE(isDescendant(home("Library/Preferences/com.apple.TimeMachine.plist")));
}

TEST_F(DescendantOfKnownLocation, LinkIntoAProtectedFolderIsJudgedByItsTarget) {
  files.makeFolder(home("Library/Mail/V10"));
  files.makeLink(home("letters"), home("Library/Mail/V10"));
  EXPECT_TRUE(isDescendant(home("letters/INBOX.mbox")));
  EXPECT_EQ(location, home("Library/Mail"));
  files.makeLink(home("relative"), "./Library/../Library/Mail");
  EXPECT_TRUE(isDescendant(home("relative")));
  EXPECT_TRUE(isAncestor(home("relative")));
}

TEST_F(DescendantOfKnownLocation, LinkOutOfAProtectedFolderIsJudgedByItsTargetToo) {
  files.makeLink(home("Library/Mail/outside"), "/srv/mail");
  EXPECT_FALSE(isDescendant(home("Library/Mail/outside/1.eml")));
}

TEST_F(DescendantOfKnownLocation, LinkLeadsThereEvenWhenItsTargetHidesOrIsMissing) {
  files.makeLink(home("letters"), home("Library/Mail/V10/missing"));
  EXPECT_TRUE(isDescendant(home("letters")));
  files.failFromNowOn(FileOperation::kLinkTarget, EPERM, home("Library/Mail/V10"));
  EXPECT_TRUE(isDescendant(home("letters/below")));
}

TEST_F(DescendantOfKnownLocation, DoubleDotBehindALinkLeavesTheFolderItLedTo) {
  files.makeFolder(home("Library/Mail/V10"));
  files.makeLink(home("letters"), home("Library/Mail/V10"));
  EXPECT_TRUE(isDescendant(home("letters/..")));
  EXPECT_FALSE(isDescendant(home("letters/../..")));
}

TEST_F(DescendantOfKnownLocation, LoopOfLinksIsTakenAsItStands) {
  files.makeLink(home("one"), home("two"));
  files.makeLink(home("two"), home("one"));
  EXPECT_FALSE(isDescendant(home("one")));
  files.makeFolder(home("Library/Mail"));
  files.makeLink(home("Library/Mail/loop"), "loop");
  EXPECT_TRUE(isDescendant(home("Library/Mail/loop")));
}

TEST_F(DescendantOfKnownLocation, LeadingTildeIsExpanded) {
  EXPECT_TRUE(isDescendant("~/Library/Mail"));
  EXPECT_FALSE(isDescendant("Library/Mail"));
}

using AccessCheck = FullDiskAccessTest;

TEST_F(AccessCheck, WithoutAnyProbeFolderThereIsNoAccess) {
  EXPECT_FALSE(access().thmp_checkHasFullDiskAccess());
  EXPECT_EQ(listings(), 0U);
}

TEST_F(AccessCheck, OneReadableProbeFolderIsAccess) {
  files.makeFolder(home("Library/Safari"));
  EXPECT_TRUE(access().thmp_checkHasFullDiskAccess());
}

TEST_F(AccessCheck, OneRefusalDecidesBeforeOrAfterOtherSuccesses) {
  files.makeFolder(home("Library/Mail"));
  files.makeFolder(home("Library/Application Support/com.apple.TCC"));
  ASSERT_TRUE(access().thmp_checkHasFullDiskAccess());

  protect(home("Library/Application Support/com.apple.TCC"));
  EXPECT_FALSE(access().thmp_checkHasFullDiskAccess());
  files.stopFailing();
  protect(home("Library/Mail"));
  EXPECT_FALSE(access().thmp_checkHasFullDiskAccess());
}

TEST_F(AccessCheck, NothingIsListedAfterARefusal) {
  files.makeFolder(home("Library/Mail"));
  files.makeFolder(home("Library/Application Support/com.apple.TCC"));
  protect(home("Library/Application Support/com.apple.TCC"));
  EXPECT_FALSE(access().thmp_checkHasFullDiskAccess());
  EXPECT_EQ(listings(), 1U);
}

TEST_F(AccessCheck, AnyOtherFailureCountsAsAccess) {
  files.makeFolder(home("Library/Mail"));
  for (const int number : {EACCES, EIO, ENOENT, EMFILE}) {
    files.failOnce(FileOperation::kList, number);
    EXPECT_TRUE(access().thmp_checkHasFullDiskAccess()) << number;
  }
}

TEST_F(AccessCheck, OnlyTheErrorUnderTheErrorIsARefusal) {
  files.makeFolder(home("Library/Mail"));
  const auto answer = [&](const Error& error) {
    FilesWithOtherErrors others(files, error);
    const THMPPathAdditions paths(identity);
    return FullDiskAccess(paths, others, identity, application, log).thmp_checkHasFullDiskAccess();
  };
  const Error refused = Error::posix(EPERM, "refused");
  EXPECT_FALSE(answer(Error{"Cocoa", 257, "", std::make_shared<const Error>(refused)}));
  EXPECT_TRUE(answer(refused));
  const Error otherDomain{"Mach", 1, "", nullptr};
  EXPECT_TRUE(answer(Error{"Cocoa", 257, "", std::make_shared<const Error>(otherDomain)}));
}

TEST_F(AccessCheck, FileInThePlaceOfAProbeFolderIsPassedOver) {
  files.writeFile(home("Library/Mail"), "");
  EXPECT_FALSE(access().thmp_checkHasFullDiskAccess());
  EXPECT_EQ(listings(), 0U);
}

TEST_F(AccessCheck, ProbeFoldersAreTriedInTheirOrder) {
  for (const std::string_view stored : kFullDiskAccessProbeFolders) {
    files.makeFolder(home(std::string(stored.substr(2))));
  }
  EXPECT_TRUE(access().thmp_checkHasFullDiskAccess());
  EXPECT_EQ(
      files.paths(FileOperation::kList),
      (Paths{home("Library/Application Support/com.apple.TCC"),
             home("Library/Containers/com.apple.mail"), home("Library/Containers/com.apple.Safari"),
             home("Library/Cookies"), home("Library/Mail"), home("Library/Messages"),
             home("Library/Metadata/CoreSpotlight"), home("Library/Safari")}));
}

TEST_F(AccessCheck, IsMadeAfreshEachTime) {
  files.makeFolder(home("Library/Mail"));
  EXPECT_TRUE(access().thmp_checkHasFullDiskAccess());
  protect(home("Library/Mail"));
  EXPECT_FALSE(access().thmp_checkHasFullDiskAccess());
}

class CachedAccess : public FullDiskAccessTest {
 protected:
  void SetUp() override {
    identity.setSystemVersion(kCurrent);
    files.makeFolder(home("Library/Mail"));
  }
  bool hasAccess() { return access().thmp_hasFullDiskAccess(); }
};

TEST_F(CachedAccess, AskedTwiceWithoutAnActivationProbesOnce) {
  EXPECT_TRUE(hasAccess());
  EXPECT_TRUE(hasAccess());
  EXPECT_EQ(listings(), 1U);
}

TEST_F(CachedAccess, RefusalIsKeptToo) {
  protect(home("Library/Mail"));
  EXPECT_FALSE(hasAccess());
  files.stopFailing();
  EXPECT_FALSE(hasAccess());
  EXPECT_EQ(listings(), 1U);
}

TEST_F(CachedAccess, GrantIsSeenAtTheNextActivation) {
  protect(home("Library/Mail"));
  EXPECT_FALSE(hasAccess());
  files.stopFailing();
  application.didBecomeActive();
  EXPECT_EQ(listings(), 1U);
  EXPECT_TRUE(hasAccess());
  EXPECT_TRUE(hasAccess());
  EXPECT_EQ(listings(), 2U);
}

TEST_F(CachedAccess, ActivationDuringTheProbeMakesTheAnswerStale) {
  files.before(FileOperation::kList, [&](const std::string&) { application.didBecomeActive(); });
  protect(home("Library/Mail"));
  EXPECT_FALSE(hasAccess());
  files.before(FileOperation::kList, nullptr);
  files.stopFailing();
  EXPECT_TRUE(hasAccess());
}

TEST_F(CachedAccess, ActivationsMayComeWhileThreadsAsk) {
  std::atomic<int> right = 0;
  together([&] {
    if (hasAccess()) ++right;
    application.didBecomeActive();
    if (hasAccess()) ++right;
  });
  EXPECT_EQ(right, 16);
  protect(home("Library/Mail"));
  application.didBecomeActive();
  EXPECT_FALSE(hasAccess());
}

TEST_F(CachedAccess, ObserverIsRegisteredAtTheFirstQuestionOnceAndStays) {
  EXPECT_EQ(application.didBecomeActiveObservers(), 0U);
  static_cast<void>(access().thmp_checkHasFullDiskAccess());
  EXPECT_EQ(application.didBecomeActiveObservers(), 0U);
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(hasAccess());
    application.didBecomeActive();
  }
  EXPECT_EQ(application.didBecomeActiveObservers(), 1U);
}

TEST_F(CachedAccess, SystemsWithoutTheControlGrantItUnasked) {
  protect(home("Library/Mail"));
  for (const std::optional<double> version : {std::optional(1561.9), std::optional(900.0), {}}) {
    identity.setSystemVersion(version);
    EXPECT_TRUE(hasAccess());
  }
  EXPECT_EQ(listings(), 0U);
  EXPECT_EQ(application.didBecomeActiveObservers(), 0U);
  identity.setSystemVersion(1562.0);
  EXPECT_FALSE(hasAccess());
}

TEST_F(CachedAccess, NoticeMayComeWhenTheObjectIsGone) {
  {
    const THMPPathAdditions paths(identity);
    const FullDiskAccess other(paths, files, identity, application, log);
    EXPECT_TRUE(other.thmp_hasFullDiskAccess());
  }
  application.didBecomeActive();
  EXPECT_EQ(application.didBecomeActiveObservers(), 0U);
}

using ProtectedFolderReport = FullDiskAccessTest;
using WorkList = std::deque<std::string>;

TEST_F(ProtectedFolderReport, EmptyListDoesNothing) {
  EXPECT_EQ(printed({}), WorkList());
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(files.accesses().empty());
}

TEST_F(ProtectedFolderReport, TakesTheFirstFolderAndAddsTheReadableOnesBelowAtTheEnd) {
  files.makeFolder("/a/x/deep");
  files.makeFolder("/b/y");
  files.writeFile("/a/file", "");
  EXPECT_EQ(printed({"/a", "/b"}), (WorkList{"/b", "/a/x", "/a/x/deep"}));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ProtectedFolderReport, UnreadableFolderThatItsOwnerMightReadIsReported) {
  makeUnreadable("/a/closed", 0700);
  EXPECT_EQ(printed({"/a"}), WorkList());
  EXPECT_EQ(log.lines(), Paths{"FDA protected: /a/closed"});
}

TEST_F(ProtectedFolderReport, FolderClosedByItsOwnPermissionsIsNotReported) {
  makeUnreadable("/a/closed", 0377);
  EXPECT_EQ(printed({"/a"}), WorkList());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ProtectedFolderReport, WithoutPermissionsToReadThereIsNoLine) {
  makeUnreadable("/a/closed", 0700);
  files.failOnce(FileOperation::kPermissions, EPERM);
  EXPECT_EQ(printed({"/a"}), WorkList());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ProtectedFolderReport, ReadableFolderInAContainersLibraryIsNeitherReportedNorAdded) {
  files.makeFolder("/a/box/Data/Library/Caches/inner");
  EXPECT_EQ(printed({"/a"}), (WorkList{"/a/box", "/a/box/Data", "/a/box/Data/Library"}));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ProtectedFolderReport, UnreadableFolderInAContainersLibraryIsReported) {
  makeUnreadable("/a/box/Data/Library/Mail", 0700);
  printed({"/a"});
  EXPECT_EQ(log.lines(), Paths{"FDA protected: /a/box/Data/Library/Mail"});
}

TEST_F(ProtectedFolderReport, FolderBehindALinkIsNotAdded) {
  files.makeFolder("/real/x");
  files.makeLink("/a/link", "/real");
  EXPECT_EQ(printed({"/a"}), WorkList());
  files.makeLink("/way", "/real");
  EXPECT_EQ(printed({"/way"}), WorkList());
  EXPECT_EQ(printed({"/real"}), WorkList{"/real/x"});
}

TEST_F(ProtectedFolderReport, UnreadableFolderBehindALinkIsReported) {
  makeUnreadable("/real/closed", 0700);
  files.makeLink("/way", "/real");
  printed({"/way"});
  EXPECT_EQ(log.lines(), Paths{"FDA protected: /way/closed"});
}

TEST_F(ProtectedFolderReport, MissingFolderIsTakenOffAndNothingElseHappens) {
  EXPECT_EQ(printed({"/none", "/b"}), WorkList{"/b"});
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ProtectedFolderReport, FolderThatGoesWhileItIsWalkedIsPassedOver) {
  files.makeFolder("/a/x/deep");
  files.makeFolder("/a/y");
  files.before(FileOperation::kWalk, [&](const std::string& path) {
    if (path == "/a/x") files.erase("/a/x");
  });
  const WorkList left = printed({"/a"});
  EXPECT_EQ(std::count(left.begin(), left.end(), "/a/x/deep"), 0);
  EXPECT_EQ(std::count(left.begin(), left.end(), "/a/y"), 1);
}

TEST_F(ProtectedFolderReport, SlashAtTheEndAndTheRootMakeNoDoubledSlash) {
  files.makeFolder("/a/x");
  EXPECT_EQ(printed({"/a/"}), WorkList{"/a/x"});
  EXPECT_EQ(printed({"/"}), (WorkList{"/a", "/a/x"}));
}

TEST_F(ProtectedFolderReport, OneStepLooksAtOneFolderOfTheList) {
  makeUnreadable("/a/closed", 0700);
  makeUnreadable("/b/closed", 0700);
  WorkList paths = printed({"/a", "/b"});
  EXPECT_EQ(log.lines(), Paths{"FDA protected: /a/closed"});
  EXPECT_EQ(printed(paths), WorkList());
  EXPECT_EQ(log.lines(), (Paths{"FDA protected: /a/closed", "FDA protected: /b/closed"}));
}

}  // namespace
}  // namespace thmp
