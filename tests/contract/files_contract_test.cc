// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cerrno>

#include "tests/contract/fixtures.h"

namespace thmp {
namespace {

class FilesContract
    : public contract::ContractTest<contract::FilesFixture, &contract::Implementation::files> {
 protected:
  Files& files() { return fixture().files(); }
  contract::Scene& scene() { return fixture().scene(); }
  const std::string& folder() const { return folder_; }
  std::string at(const std::string& name) const { return folder_ + "/" + name; }

  std::unique_ptr<PreparedFile> prepared(const std::string& name, std::string_view bytes) {
    Error error;
    auto file = files().prepareFile(folder_, name, bytes, &error);
    EXPECT_NE(file, nullptr) << error.text();
    return file;
  }

  /// The number of the operating system's error under `error`; 0 when it is not of that kind.
  static std::int64_t systemError(const Error& error) {
    return error.underlying && error.underlying->domain == kPosixErrorDomain
               ? error.underlying->code
               : 0;
  }

  static std::vector<std::string> sorted(std::vector<std::string> names) {
    std::sort(names.begin(), names.end());
    return names;
  }

  std::vector<std::string> walked(const std::string& directory) {
    std::vector<std::string> entries;
    files().walk(directory, [&](const std::string& entry) { entries.push_back(entry); });
    return entries;
  }

  std::vector<std::string> listed(const std::string& directory) {
    auto names = files().list(directory).value_or(std::vector<std::string>{"(no listing)"});
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  const std::string folder_ = fixture().scene().freshFolder();
};

THMP_RUN_CONTRACT(FilesContract);

TEST_P(FilesContract, NothingExistsWhereNothingStands) {
  EXPECT_FALSE(files().exists(at("none")));
  EXPECT_FALSE(files().isDirectory(at("none")));
  EXPECT_FALSE(files().isWritable(at("none")));
}

TEST_P(FilesContract, FolderAndFileAreToldApart) {
  scene().makeFolder(at("folder"));
  scene().writeFile(at("file"), "x");

  EXPECT_TRUE(files().exists(at("folder")));
  EXPECT_TRUE(files().isDirectory(at("folder")));
  EXPECT_TRUE(files().exists(at("file")));
  EXPECT_FALSE(files().isDirectory(at("file")));
}

TEST_P(FilesContract, LinksAreFollowedWhenAskingWhatStandsThere) {
  scene().makeFolder(at("folder"));
  scene().makeLink(at("link"), at("folder"));
  scene().makeLink(at("lost"), at("none"));

  EXPECT_TRUE(files().exists(at("link")));
  EXPECT_TRUE(files().isDirectory(at("link")));
  EXPECT_FALSE(files().exists(at("lost")));
}

TEST_P(FilesContract, FolderWithoutTheRightIsNotWritable) {
  fixture().dropPrivileges();
  const std::string closed = scene().freshFolder();
  ASSERT_TRUE(files().isWritable(closed));
  scene().makeUnwritable(closed);

  EXPECT_FALSE(files().isWritable(closed));
}

TEST_P(FilesContract, NothingIsPublishedInAFolderWithoutTheRight) {
  fixture().dropPrivileges();
  const std::string closed = scene().freshFolder();
  scene().makeUnwritable(closed);

  Error error;
  const auto file = files().prepareFile(closed, "a", "x", &error);
  EXPECT_FALSE(file && file->publish(&error));
  EXPECT_TRUE(error.isSet());
  EXPECT_TRUE(scene().entries(closed).empty());
}

TEST_P(FilesContract, NothingIsRemovedFromAFolderWithoutTheRight) {
  fixture().dropPrivileges();
  const std::string closed = scene().freshFolder();
  scene().writeFile(closed + "/a", "x");
  scene().makeUnwritable(closed);

  Error error;
  EXPECT_FALSE(files().removeEntry(closed, "a", &error));
  EXPECT_TRUE(error.isSet());
  EXPECT_TRUE(scene().hasEntry(closed + "/a"));
}

TEST_P(FilesContract, NoFolderIsMadeInAFolderWithoutTheRight) {
  fixture().dropPrivileges();
  const std::string closed = scene().freshFolder();
  scene().makeUnwritable(closed);

  Error error;
  EXPECT_FALSE(files().createDirectories(closed + "/a/b", &error));
  EXPECT_TRUE(error.isSet());
}

TEST_P(FilesContract, ListHasHiddenEntriesLinksAndFoldersButNotWhatLiesInThem) {
  scene().writeFile(at("file"), "");
  scene().writeFile(at(".hidden"), "");
  scene().writeFile(at("sub/inner"), "");
  scene().makeLink(at("lost"), at("none"));

  EXPECT_EQ(listed(folder()), (std::vector<std::string>{".hidden", "file", "lost", "sub"}));
}

TEST_P(FilesContract, ListOfAnEmptyFolderIsEmptyAndNoFailure) {
  EXPECT_EQ(files().list(folder()), std::vector<std::string>());
}

TEST_P(FilesContract, ListFollowsALinkToAFolder) {
  scene().writeFile(at("sub/inner"), "");
  scene().makeLink(at("link"), at("sub"));

  EXPECT_EQ(listed(at("link")), std::vector<std::string>{"inner"});
}

TEST_P(FilesContract, ListOfWhatIsNoFolderFails) {
  scene().writeFile(at("file"), "");

  Error missing;
  EXPECT_EQ(files().list(at("none"), &missing), std::nullopt);
  EXPECT_EQ(systemError(missing), ENOENT);
  Error file;
  EXPECT_EQ(files().list(at("file"), &file), std::nullopt);
  EXPECT_EQ(systemError(file), ENOTDIR);
  EXPECT_EQ(files().list(at("none")), std::nullopt);
}

TEST_P(FilesContract, FolderWithoutTheRightIsNeitherReadableNorListed) {
  fixture().dropPrivileges();
  const std::string closed = scene().freshFolder();
  ASSERT_TRUE(files().isReadable(closed));
  scene().makeUnreadable(closed);

  EXPECT_FALSE(files().isReadable(closed));
  EXPECT_TRUE(files().isDirectory(closed));
  EXPECT_EQ(files().permissions(closed), 0300U);
  Error error;
  EXPECT_EQ(files().list(closed, &error), std::nullopt);
  EXPECT_EQ(systemError(error), EACCES);
}

TEST_P(FilesContract, ReadabilityAndPermissionsFollowLinks) {
  scene().makeFolder(at("folder"));
  scene().makeLink(at("link"), at("folder"));
  scene().makeLink(at("lost"), at("none"));

  EXPECT_TRUE(files().isReadable(at("link")));
  EXPECT_EQ(files().permissions(at("link")), files().permissions(at("folder")));
  EXPECT_TRUE(files().permissions(at("link")).value_or(0) & 0400U);
  for (const std::string& path : {at("lost"), at("none")}) {
    EXPECT_FALSE(files().isReadable(path));
    EXPECT_EQ(files().permissions(path), std::nullopt);
  }
}

TEST_P(FilesContract, LinkTellsItsTargetAsItSaysIt) {
  scene().makeFolder(at("folder"));
  scene().makeLink(at("link"), "./folder/../none");
  scene().makeLink(at("folder/inner"), at("link"));

  EXPECT_EQ(files().linkTarget(at("link")), "./folder/../none");
  EXPECT_EQ(files().linkTarget(at("folder/inner")), at("link"));
  EXPECT_EQ(files().linkTarget(at("folder")), std::nullopt);
  EXPECT_EQ(files().linkTarget(at("none")), std::nullopt);
}

TEST_P(FilesContract, WalkTellsEveryEntryAtAnyDepthFoldersFirst) {
  scene().writeFile(at("a/b/file"), "");
  scene().writeFile(at("a/.hidden"), "");
  scene().makeFolder(at("empty"));

  const std::vector<std::string> told = walked(folder());
  EXPECT_EQ(sorted(told), (std::vector<std::string>{"a", "a/.hidden", "a/b", "a/b/file", "empty"}));
  EXPECT_LT(std::find(told.begin(), told.end(), "a"), std::find(told.begin(), told.end(), "a/b"));
  EXPECT_LT(std::find(told.begin(), told.end(), "a/b"),
            std::find(told.begin(), told.end(), "a/b/file"));
}

TEST_P(FilesContract, WalkFollowsALinkAtItsBeginningOnly) {
  scene().makeFolder(at("real/sub"));
  scene().makeLink(at("real/loop"), at("real"));
  scene().makeLink(at("way"), at("real"));

  EXPECT_EQ(sorted(walked(at("way"))), (std::vector<std::string>{"loop", "sub"}));
  EXPECT_EQ(sorted(walked(at("way/loop"))), (std::vector<std::string>{"loop", "sub"}));
}

TEST_P(FilesContract, WalkOfWhatIsNoFolderTellsNothing) {
  scene().writeFile(at("file"), "");
  scene().makeLink(at("one"), at("two"));
  scene().makeLink(at("two"), at("one"));

  for (const char* name : {"none", "file", "one"}) EXPECT_TRUE(walked(at(name)).empty()) << name;
}

TEST_P(FilesContract, WalkTellsAClosedFolderAndNothingInIt) {
  fixture().dropPrivileges();
  const std::string top = scene().freshFolder();
  scene().makeFolder(top + "/closed/inner");
  scene().makeFolder(top + "/open/inner");
  scene().makeUnreadable(top + "/closed");

  EXPECT_EQ(sorted(walked(top)), (std::vector<std::string>{"closed", "open", "open/inner"}));
}

TEST_P(FilesContract, WalkPassesOverAFolderThatGoesMeanwhile) {
  scene().makeFolder(at("a/inner"));
  scene().makeFolder(at("b/inner"));
  std::vector<std::string> told;
  files().walk(folder(), [&](const std::string& entry) {
    told.push_back(entry);
    if (entry == "a") scene().erase(at("a"));
  });

  EXPECT_EQ(sorted(told), (std::vector<std::string>{"a", "b", "b/inner"}));
}

TEST_P(FilesContract, WalkReachesTheEndOfADeepTree) {
  constexpr std::size_t kDepth = 1000;
  std::string path = folder();
  for (std::size_t i = 0; i < kDepth; ++i) path += "/d";
  scene().makeFolder(path);

  const std::vector<std::string> told = walked(folder());
  ASSERT_EQ(told.size(), kDepth);
  EXPECT_EQ(at(told.back()), path);
}

TEST_P(FilesContract, CreateDirectoriesMakesAllThatAreMissing) {
  ASSERT_TRUE(files().createDirectories(at("a/b/c")));

  EXPECT_TRUE(files().isDirectory(at("a/b/c")));
}

TEST_P(FilesContract, CreatedFoldersArePrivate) {
  ASSERT_TRUE(files().createDirectories(at("a/b")));

  for (const std::string& path : {at("a"), at("a/b")}) {
    EXPECT_EQ(scene().mode(path).value_or(0700), 0700U) << path;
  }
}

TEST_P(FilesContract, ExistingFolderIsSuccess) {
  scene().writeFile(at("a/kept"), "x");

  EXPECT_TRUE(files().createDirectories(at("a")));
  EXPECT_TRUE(scene().hasEntry(at("a/kept")));
}

TEST_P(FilesContract, CreateDirectoriesFollowsALinkToAFolder) {
  scene().makeFolder(at("real"));
  scene().makeLink(at("link"), at("real"));

  EXPECT_TRUE(files().createDirectories(at("link")));
  ASSERT_TRUE(files().createDirectories(at("link/sub")));
  EXPECT_TRUE(files().isDirectory(at("real/sub")));
}

TEST_P(FilesContract, CreateDirectoriesFailsWhereAFileStands) {
  scene().writeFile(at("file"), "x");

  Error error;
  EXPECT_FALSE(files().createDirectories(at("file"), &error));
  EXPECT_TRUE(error.isSet());
  EXPECT_FALSE(files().createDirectories(at("file/below")));
  EXPECT_EQ(scene().contents(at("file")), "x");
}

TEST_P(FilesContract, ReadGivesTheBytesAsTheyAre) {
  const std::string bytes("a\0b\n\xff", 5);
  scene().writeFile(at("file"), bytes);
  scene().writeFile(at("empty"), "");

  EXPECT_EQ(files().readFile(at("file"), 100), bytes);
  EXPECT_EQ(files().readFile(at("empty"), 100), "");
}

TEST_P(FilesContract, ReadFollowsALink) {
  scene().writeFile(at("file"), "x");
  scene().makeLink(at("link"), at("file"));

  EXPECT_EQ(files().readFile(at("link"), 100), "x");
}

TEST_P(FilesContract, ReadTakesTheMostBytesAndNotOneMore) {
  scene().writeFile(at("file"), "12345");

  EXPECT_EQ(files().readFile(at("file"), 5), "12345");
  Error error;
  EXPECT_EQ(files().readFile(at("file"), 4, &error), std::nullopt);
  EXPECT_TRUE(error.isSet());
}

TEST_P(FilesContract, ReadRefusesAFolder) {
  Error error;
  EXPECT_EQ(files().readFile(folder(), 100, &error), std::nullopt);
  EXPECT_TRUE(error.isSet());
}

TEST_P(FilesContract, ReadRefusesAFifoWithoutWaiting) {
  scene().makeFifo(at("fifo"));
  scene().makeLink(at("link"), at("fifo"));

  Error error;
  EXPECT_EQ(files().readFile(at("fifo"), 100, &error), std::nullopt);
  EXPECT_TRUE(error.isSet());
  EXPECT_EQ(files().readFile(at("link"), 100), std::nullopt);
}

TEST_P(FilesContract, ReadOfAMissingFileSaysSo) {
  scene().makeLink(at("lost"), at("none"));

  Error error;
  EXPECT_EQ(files().readFile(at("none"), 100, &error), std::nullopt);
  EXPECT_EQ(error.domain, kPosixErrorDomain);
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_EQ(files().readFile(at("lost"), 100), std::nullopt);
}

TEST_P(FilesContract, PublishedFileIsWholeUnderItsName) {
  const std::string bytes(200'000, 'b');
  const auto file = prepared("message.plist", bytes);
  ASSERT_NE(file, nullptr);

  Error error;
  ASSERT_TRUE(file->publish(&error)) << error.text();
  EXPECT_EQ(scene().contents(at("message.plist")), bytes);
  EXPECT_EQ(scene().entries(folder()), std::vector<std::string>{"message.plist"});
}

TEST_P(FilesContract, PublishedFileIsPrivate) {
  const auto file = prepared("message.plist", "x");
  ASSERT_TRUE(file && file->publish());

  EXPECT_EQ(scene().mode(at("message.plist")).value_or(0600), 0600U);
}

TEST_P(FilesContract, PublishedFileStaysWhenItsObjectGoes) {
  auto file = prepared("message.plist", "x");
  ASSERT_TRUE(file && file->publish());
  file.reset();

  EXPECT_EQ(scene().contents(at("message.plist")), "x");
}

TEST_P(FilesContract, PreparedFileHasNoVisibleName) {
  const auto file = prepared("message.plist", "x");

  EXPECT_FALSE(files().exists(at("message.plist")));
  for (const std::string& name : scene().entries(folder())) {
    EXPECT_TRUE(name.starts_with('.') && !name.ends_with(".plist")) << name;
  }
}

TEST_P(FilesContract, PreparedFileDroppedLeavesNothing) {
  auto file = prepared("message.plist", "x");
  file.reset();

  EXPECT_TRUE(scene().entries(folder()).empty());
}

TEST_P(FilesContract, PublishNeverOverwrites) {
  const auto file = prepared("name", "new");
  scene().writeFile(at("name"), "old");

  Error error;
  ASSERT_NE(file, nullptr);
  EXPECT_FALSE(file->publish(&error));
  EXPECT_EQ(error.code, EEXIST);
  EXPECT_EQ(scene().contents(at("name")), "old");
}

TEST_P(FilesContract, PublishDoesNotFollowALinkOfItsName) {
  const auto file = prepared("name", "new");
  scene().makeLink(at("name"), at("elsewhere"));

  ASSERT_NE(file, nullptr);
  EXPECT_FALSE(file->publish());
  EXPECT_FALSE(scene().hasEntry(at("elsewhere")));
}

TEST_P(FilesContract, PreparedFileThatCouldNotBePublishedLeavesNothing) {
  auto file = prepared("name", "new");
  scene().writeFile(at("name"), "old");
  ASSERT_FALSE(file->publish());
  file.reset();

  EXPECT_EQ(scene().entries(folder()), std::vector<std::string>{"name"});
}

TEST_P(FilesContract, PublishFailsWhenTheFolderHasGone) {
  scene().makeFolder(at("sub"));
  const auto file = files().prepareFile(at("sub"), "name", "x");
  ASSERT_NE(file, nullptr);
  scene().erase(at("sub"));

  Error error;
  EXPECT_FALSE(file->publish(&error));
  EXPECT_TRUE(error.isSet());
}

TEST_P(FilesContract, PrepareFailsWithoutAFolder) {
  Error error;
  EXPECT_EQ(files().prepareFile(at("none"), "name", "x", &error), nullptr);
  EXPECT_EQ(error.code, ENOENT);
}

TEST_P(FilesContract, OfManyThreadsOnePublishesAName) {
  constexpr int kThreads = 8;
  contract::Counter published;
  contract::runOnThreads(kThreads, [&](int i) {
    const auto own = files().prepareFile(folder(), "own-" + std::to_string(i), "x");
    const auto shared = files().prepareFile(folder(), "shared", std::to_string(i));
    EXPECT_TRUE(own && own->publish());
    if (shared && shared->publish()) published.raise();
  });

  EXPECT_EQ(published.count(), 1);
  EXPECT_EQ(scene().entries(folder()).size(), kThreads + 1U);
}

TEST_P(FilesContract, RemovedFileIsGoneAndOthersStay) {
  scene().writeFile(at("a"), "");
  scene().writeFile(at("b"), "");

  EXPECT_TRUE(files().removeEntry(folder(), "a"));
  EXPECT_EQ(scene().entries(folder()), std::vector<std::string>{"b"});
}

TEST_P(FilesContract, RemovingALinkKeepsItsTarget) {
  scene().writeFile(at("folder/kept"), "x");
  scene().writeFile(at("file"), "x");
  scene().makeLink(at("toFolder"), at("folder"));
  scene().makeLink(at("toFile"), at("file"));

  EXPECT_TRUE(files().removeEntry(folder(), "toFolder"));
  EXPECT_TRUE(files().removeEntry(folder(), "toFile"));
  EXPECT_FALSE(scene().hasEntry(at("toFolder")));
  EXPECT_FALSE(scene().hasEntry(at("toFile")));
  EXPECT_TRUE(scene().hasEntry(at("folder/kept")));
  EXPECT_TRUE(scene().hasEntry(at("file")));
}

TEST_P(FilesContract, RemovingAFolderTakesAllItHoldsAndNothingBehindItsLinks) {
  scene().writeFile(at("outside/kept"), "x");
  scene().writeFile(at("folder/a/b/c"), "x");
  scene().makeFolder(at("folder/empty"));
  scene().makeFifo(at("folder/fifo"));
  scene().makeLink(at("folder/a/link"), at("outside"));

  Error error;
  EXPECT_TRUE(files().removeEntry(folder(), "folder", &error)) << error.text();
  EXPECT_FALSE(scene().hasEntry(at("folder")));
  EXPECT_TRUE(scene().hasEntry(at("outside/kept")));
}

TEST_P(FilesContract, RemovingWhatIsNotThereIsSuccess) {
  EXPECT_TRUE(files().removeEntry(folder(), "none"));
}

TEST_P(FilesContract, RemovingFollowsALinkToTheFolderItself) {
  scene().writeFile(at("real/a"), "x");
  scene().makeLink(at("link"), at("real"));

  EXPECT_TRUE(files().removeEntry(at("link"), "a"));
  EXPECT_FALSE(scene().hasEntry(at("real/a")));
  EXPECT_TRUE(scene().hasEntry(at("link")));
}

TEST_P(FilesContract, OnlyAnEntryOfTheFolderIsWrittenOrRemoved) {
  scene().writeFile(at("outside"), "x");
  scene().writeFile(at("sub/inside"), "x");

  for (const char* name : {"", ".", "..", "../outside", "/"}) {
    EXPECT_FALSE(files().removeEntry(at("sub"), name)) << name;
    const auto file = files().prepareFile(at("sub"), name, "x");
    EXPECT_FALSE(file && file->publish()) << name;
  }
  EXPECT_TRUE(scene().hasEntry(at("outside")));
  EXPECT_EQ(scene().entries(at("sub")), std::vector<std::string>{"inside"});
}

TEST_P(FilesContract, DisplayNameIsTheLastComponent) {
  scene().writeFile(at("Letter.eml"), "");

  EXPECT_EQ(files().displayName(at("Letter.eml")), "Letter.eml");
  EXPECT_EQ(files().displayName("/not/there.eml"), "there.eml");
}

TEST_P(FilesContract, ApplicationSupportIsAnAbsolutePathAndARelativeOne) {
  EXPECT_TRUE(files().applicationSupportDirectory().starts_with('/'));
  EXPECT_FALSE(files().applicationSupportBelowHome().empty());
  EXPECT_FALSE(files().applicationSupportBelowHome().starts_with('/'));
}

}  // namespace
}  // namespace thmp
