// SPDX-License-Identifier: Apache-2.0
#include "paths/THMPPathAdditions.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/fake/FakeIdentity.h"

namespace thmp {
namespace {

class PathAdditions : public testing::Test {
 protected:
  bool hasPrefix(const std::string& path, const std::string& prefix) const {
    return paths.thmp_hasPathPrefix(path, prefix);
  }
  bool hasStrictPrefix(const std::string& path, const std::string& prefix) const {
    return paths.thmp_hasPathPrefix(path, prefix, /*strict=*/true);
  }
  std::string expanded(const std::string& path) const {
    return paths.thmp_stringByExpandingTildeInPath(path);
  }
  std::string abbreviated(const std::string& path) const {
    return paths.thmp_stringByAbbreviatingWithTildeInPath(path);
  }

  FakeIdentity identity;
  const THMPPathAdditions paths{identity};
};

using PathPrefix = PathAdditions;

TEST_F(PathPrefix, FolderAboveIsAPrefixBothWaysWhateverSlashEndsIt) {
  EXPECT_TRUE(hasPrefix("/Users/a/Library", "/Users/a/"));
  EXPECT_TRUE(hasStrictPrefix("/Users/a/Library", "/Users/a/"));
  EXPECT_TRUE(hasPrefix("/Users/a/Library/", "/Users/a"));
  EXPECT_TRUE(hasStrictPrefix("/Users/a/Library/", "/Users/a"));
}

TEST_F(PathPrefix, PathIsItsOwnPrefixButNeverItsStrictOne) {
  EXPECT_TRUE(hasPrefix("/Users/a", "/Users/a"));
  EXPECT_FALSE(hasStrictPrefix("/Users/a", "/Users/a"));
  EXPECT_FALSE(hasStrictPrefix("/Users/a/", "/Users/a"));
}

TEST_F(PathPrefix, ComponentsAreComparedNotCharacters) {
  EXPECT_FALSE(hasPrefix("/Users/ab", "/Users/a"));
}

TEST_F(PathPrefix, CaseCounts) { EXPECT_FALSE(hasPrefix("/Users/A/x", "/Users/a")); }

TEST_F(PathPrefix, PathsAreStandardizedFirst) {
  EXPECT_TRUE(hasPrefix("/Users/a/./b/../c", "/Users/a/c"));
  EXPECT_FALSE(hasStrictPrefix("/Users/a/./b/../c", "/Users/a/c"));
  EXPECT_TRUE(hasPrefix("/Users//a", "/Users/a/"));
}

TEST_F(PathPrefix, LongerPathIsNoPrefix) { EXPECT_FALSE(hasPrefix("/Users", "/Users/a")); }

TEST_F(PathPrefix, RootIsAStrictPrefixOfEveryOtherAbsolutePath) {
  EXPECT_TRUE(hasPrefix("/", "/"));
  EXPECT_FALSE(hasStrictPrefix("/", "/"));
  EXPECT_TRUE(hasStrictPrefix("/a", "/"));
  EXPECT_FALSE(hasPrefix("a", "/"));
}

TEST_F(PathPrefix, EmptyPrefixIsAPrefixOfEveryPathAndAStrictOneOfEveryNonEmptyPath) {
  EXPECT_TRUE(hasPrefix("/a", ""));
  EXPECT_TRUE(hasPrefix("", ""));
  EXPECT_TRUE(hasStrictPrefix("a", ""));
  EXPECT_FALSE(hasStrictPrefix("", ""));
}

TEST_F(PathPrefix, TildeInEitherPathMeansTheProcesssHome) {
  identity.setProcessHome("/containers/mail");
  EXPECT_TRUE(hasPrefix("/containers/mail/Library", "~"));
  EXPECT_FALSE(hasPrefix("/home/ada/Library", "~"));
  EXPECT_TRUE(hasPrefix("~/Library", "/containers/mail"));
}

using CommonAncestor = PathAdditions;

TEST_F(CommonAncestor, DeepestSharedFolderIsFound) {
  EXPECT_EQ(paths.thmp_commonAncestorWithPath("/Users/a/x", "/Users/a/y"), "/Users/a");
  EXPECT_EQ(paths.thmp_commonAncestorWithPath("/Users/a/x", "/Users/a"), "/Users/a");
  EXPECT_EQ(paths.thmp_commonAncestorWithPath("/Users/a", "/Users/a/x/"), "/Users/a");
  EXPECT_EQ(paths.thmp_commonAncestorWithPath("a/b/c", "a/b/d"), "a/b");
}

TEST_F(CommonAncestor, AbsolutePathsShareAtLeastTheRoot) {
  EXPECT_EQ(paths.thmp_commonAncestorWithPath("/a", "/b"), "/");
  EXPECT_EQ(paths.thmp_commonAncestorWithPath("/a", "/A"), "/");
}

TEST_F(CommonAncestor, RelativeAndAbsolutePathShareNothing) {
  EXPECT_EQ(paths.thmp_commonAncestorWithPath("a/b", "/a/b"), std::nullopt);
  EXPECT_EQ(paths.thmp_commonAncestorWithPath("a", "b"), std::nullopt);
  EXPECT_EQ(paths.thmp_commonAncestorWithPath("", ""), std::nullopt);
}

TEST_F(CommonAncestor, PathsAreStandardizedFirst) {
  EXPECT_EQ(paths.thmp_commonAncestorWithPath("/a/b/../c/d", "/a//c/e"), "/a/c");
}

using TildeExpansion = PathAdditions;

TEST_F(TildeExpansion, TildeAloneAndBeforeASlashIsTheRealHome) {
  identity.setProcessHome("/containers/mail");
  EXPECT_EQ(expanded("~/Library"), "/home/ada/Library");
  EXPECT_EQ(expanded("~"), "/home/ada");
}

TEST_F(TildeExpansion, TildeBehindTheFirstComponentIsLeftAlone) {
  EXPECT_EQ(expanded("/tmp/~"), "/tmp/~");
  EXPECT_EQ(expanded("a~b"), "a~b");
  EXPECT_EQ(expanded(""), "");
}

TEST_F(TildeExpansion, NamedUsersHomeIsTakenAsTheRecordHasIt) {
  identity.addUser({"other", "/srv/./other"});
  EXPECT_EQ(expanded("~other/Documents"), "/srv/./other/Documents");
  EXPECT_EQ(expanded("~other"), "/srv/./other");
}

TEST_F(TildeExpansion, UnknownUserLeavesThePathUnchanged) {
  EXPECT_EQ(expanded("~nobody/Documents/"), "~nobody/Documents/");
}

TEST_F(TildeExpansion, HomeThatIsNoTextLeavesThePathUnchanged) {
  identity.addUser({"odd", std::nullopt});
  EXPECT_EQ(expanded("~odd/x"), "~odd/x");
  identity.setCurrentUser(UserRecord{"ada", std::nullopt});
  EXPECT_EQ(expanded("~/x"), "~/x");
}

TEST_F(TildeExpansion, RestOfThePathIsNotStandardized) {
  EXPECT_EQ(expanded("~/a/../b"), "/home/ada/a/../b");
}

using TildeAbbreviation = PathAdditions;

TEST_F(TildeAbbreviation, HomeItselfIsATilde) {
  EXPECT_EQ(abbreviated("/home/ada"), "~");
  EXPECT_EQ(abbreviated("/home/ada/"), "~");
}

TEST_F(TildeAbbreviation, HomeInFrontBecomesATilde) {
  EXPECT_EQ(abbreviated("/home/ada/Library/Mail"), "~/Library/Mail");
}

TEST_F(TildeAbbreviation, PathOutsideTheHomeIsUnchanged) {
  EXPECT_EQ(abbreviated("/home/adalbert/x/"), "/home/adalbert/x/");
  EXPECT_EQ(abbreviated("/tmp"), "/tmp");
  EXPECT_EQ(abbreviated("relative"), "relative");
}

TEST_F(TildeAbbreviation, CutFallsByCountWhereThePathIsNotStandardized) {
  EXPECT_EQ(abbreviated("/home/./ada/x"), "~/ada/x");
  EXPECT_EQ(abbreviated("/home//ada/x"), "~/ada/x");
  EXPECT_EQ(abbreviated("/srv/../home/ada/x"), "~/home/ada/x");
}

TEST_F(TildeAbbreviation, WithoutAHomeThePathIsUnchanged) {
  identity.setCurrentUser(std::nullopt);
  EXPECT_EQ(abbreviated("/home/ada/x"), "/home/ada/x");
}

using PathString = PathAdditions;

TEST_F(PathString, BeginsWithATildeOrHasASlash) {
  EXPECT_TRUE(paths.thmp_isPathString("~x"));
  EXPECT_TRUE(paths.thmp_isPathString("~"));
  EXPECT_TRUE(paths.thmp_isPathString("a/b"));
  EXPECT_TRUE(paths.thmp_isPathString("/"));
  EXPECT_FALSE(paths.thmp_isPathString(""));
  EXPECT_FALSE(paths.thmp_isPathString("Documents"));
  EXPECT_FALSE(paths.thmp_isPathString("a~b"));
}

using Standardizing = PathAdditions;

TEST_F(Standardizing, DotsEmptyComponentsAndEndSlashGo) {
  EXPECT_EQ(paths.stringByStandardizingPath("/a/./b//c/"), "/a/b/c");
  EXPECT_EQ(paths.stringByStandardizingPath("//a"), "/a");
  EXPECT_EQ(paths.stringByStandardizingPath("a/./b/"), "a/b");
  EXPECT_EQ(paths.stringByStandardizingPath("/"), "/");
  EXPECT_EQ(paths.stringByStandardizingPath(""), "");
}

TEST_F(Standardizing, DoubleDotTakesTheComponentBeforeItInAnAbsolutePathOnly) {
  EXPECT_EQ(paths.stringByStandardizingPath("/a/b/../../c"), "/c");
  EXPECT_EQ(paths.stringByStandardizingPath("/../../a"), "/a");
  EXPECT_EQ(paths.stringByStandardizingPath("/a/.."), "/");
  EXPECT_EQ(paths.stringByStandardizingPath("a/../b"), "a/../b");
}

TEST_F(Standardizing, TildeIsTheProcesssHomeEvenInASandbox) {
  identity.setHostSandboxed(true);
  identity.setProcessHome("/containers/mail/");
  identity.addUser({"other", "/srv/other"});
  EXPECT_EQ(paths.stringByStandardizingPath("~/x/"), "/containers/mail/x");
  EXPECT_EQ(paths.stringByStandardizingPath("~other/x/.."), "/srv/other");
  EXPECT_EQ(paths.stringByStandardizingPath("~nobody/x"), "~nobody/x");
}

using HomeAndSandbox = PathAdditions;

TEST_F(HomeAndSandbox, HomeIsTheUserRecordsStandardized) {
  identity.setProcessHome("/containers/mail");
  identity.setCurrentUser(UserRecord{"ada", "/home/../srv//ada/"});
  EXPECT_EQ(paths.processPaths().THMPUserHomeDirectory(), "/srv/ada");
}

TEST_F(HomeAndSandbox, HomeIsLookedUpOnce) {
  EXPECT_EQ(paths.processPaths().THMPUserHomeDirectory(), "/home/ada");
  identity.setCurrentUser(UserRecord{"eve", "/home/eve"});
  EXPECT_EQ(paths.processPaths().THMPUserHomeDirectory(), "/home/ada");
}

TEST_F(HomeAndSandbox, NoUserRecordMeansNoHome) {
  identity.setCurrentUser(std::nullopt);
  EXPECT_EQ(paths.processPaths().THMPUserHomeDirectory(), "");
  EXPECT_EQ(expanded("~/x"), "~/x");
}

TEST_F(HomeAndSandbox, UnsandboxedHostYieldsFalse) {
  EXPECT_FALSE(paths.processPaths().THMPApplicationSandboxed());
}

TEST_F(HomeAndSandbox, SandboxIsFoundOutAtTheFirstQuestionAndNeverAgain) {
  EXPECT_EQ(identity.sandboxedCount(), 0);
  identity.setHostSandboxed(true);
  EXPECT_TRUE(paths.processPaths().THMPApplicationSandboxed());
  identity.setHostSandboxed(false);
  EXPECT_TRUE(paths.processPaths().THMPApplicationSandboxed());
  EXPECT_EQ(identity.sandboxedCount(), 1);
}

TEST_F(HomeAndSandbox, ThreadsThatAskFirstTogetherGetOneAnswer) {
  identity.setHostSandboxed(true);
  std::atomic<int> right = 0;
  std::vector<std::jthread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      const bool sandboxed = paths.processPaths().THMPApplicationSandboxed();
      if (sandboxed && paths.processPaths().THMPUserHomeDirectory() == "/home/ada") ++right;
    });
  }
  threads.clear();
  EXPECT_EQ(right, 8);
  EXPECT_EQ(identity.sandboxedCount(), 1);
}

}  // namespace
}  // namespace thmp
