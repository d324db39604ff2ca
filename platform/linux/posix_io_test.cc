// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/posix_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/TemporaryFile.h"
#include "platform/linux/testing.h"
#include "tests/support/child_process.h"

namespace thmp {
namespace {

using testing::TemporaryFolder;

class PosixIo : public ::testing::Test {
 protected:
  Descriptor open() const { return openAt(AT_FDCWD, folder_.path(), O_RDONLY | O_DIRECTORY); }
  const TemporaryFolder folder_;
};

TEST_F(PosixIo, DescriptorsAreNotInherited) {
  const Descriptor folder = open();
  EXPECT_EQ(::fcntl(folder.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(PosixIo, PathWithANulIsRefusedAndNotCut) {
  testing::writeFile(folder_.at("a"), "x");
  EXPECT_FALSE(openAt(AT_FDCWD, folder_.at("a") + std::string("\0b", 2), O_RDONLY));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(createFolders(folder_.at("new") + std::string("\0b", 2)));
  EXPECT_FALSE(testing::exists(folder_.at("new")));
}

TEST_F(PosixIo, FoldersAndFilesArePrivateWhateverTheUmask) {
  for (const mode_t mask : {mode_t{0}, mode_t{0777}}) {
    const std::string name = "made-" + std::to_string(mask);
    const mode_t before = ::umask(mask);
    const bool made = createFolders(folder_.at(name + "/below"));
    const Descriptor inner = open();
    auto file = TemporaryFile::make(inner.get(), "temporary");
    const bool linked =
        file && file->write("x") && file->finish() && file->linkAs(inner.get(), name + ".file");
    ::umask(before);
    EXPECT_TRUE(made && linked);
    EXPECT_EQ(testing::modeOf(folder_.at(name)), 0700U);
    EXPECT_EQ(testing::modeOf(folder_.at(name + "/below")), 0700U);
    EXPECT_EQ(testing::modeOf(folder_.at(name + ".file")), 0600U);
  }
}

TEST_F(PosixIo, FileLongerThanItsSizeSaysIsReadWhole) {
  // Files of the kernel have the size 0.
  const Descriptor file = openAt(AT_FDCWD, "/proc/self/status", O_RDONLY);
  const auto bytes = readRegularFile(file.get(), 1 << 20);
  ASSERT_TRUE(bytes);
  EXPECT_GT(bytes->size(), 100U);
  const Descriptor again = openAt(AT_FDCWD, "/proc/self/status", O_RDONLY);
  EXPECT_FALSE(readRegularFile(again.get(), 100));
  EXPECT_EQ(errno, EFBIG);
}

TEST_F(PosixIo, VeryDeepFolderIsRemovedWithFewDescriptors) {
  constexpr int kDepth = 1500;
  Descriptor at = open();
  ASSERT_EQ(::mkdirat(at.get(), "deep", 0700), 0);
  at = openAt(at.get(), "deep", O_RDONLY | O_DIRECTORY);
  for (int i = 0; i < kDepth; ++i) {
    ASSERT_EQ(::mkdirat(at.get(), "d", 0700), 0);
    at = openAt(at.get(), "d", O_RDONLY | O_DIRECTORY);
  }
  at.reset();
  EXPECT_TRUE(removeTree(open().get(), "deep"));
  EXPECT_TRUE(testing::namesIn(folder_.path()).empty());
}

TEST_F(PosixIo, WhatCannotBeRemovedFailsAndStays) {
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
  testing::makeFolder(folder_.at("closed"));
  testing::writeFile(folder_.at("closed/file"), "x");
  ASSERT_EQ(::chmod(folder_.at("closed").c_str(), 0555), 0);
  const int result = testing::resultAsNobody([&] {
    const bool removed = removeTree(open().get(), "closed");
    return removed ? 0 : errno;
  });
  EXPECT_EQ(result, EACCES);
  EXPECT_TRUE(testing::exists(folder_.at("closed/file")));
}

TEST_F(PosixIo, NamedTemporaryGetsItsNameOnlyWhereNothingStands) {
  const Descriptor folder = open();
  {
    auto file = TemporaryFile::makeNamed(folder.get(), "temporary");
    ASSERT_TRUE(file && file->write("new") && file->finish());
    testing::writeFile(folder_.at("taken"), "old");
    EXPECT_FALSE(file->linkAs(folder.get(), "taken"));
    EXPECT_EQ(errno, EEXIST);
    EXPECT_TRUE(file->linkAs(folder.get(), "free"));
  }
  EXPECT_EQ(testing::readFile(folder_.at("taken")), "old");
  EXPECT_EQ(testing::readFile(folder_.at("free")), "new");
  EXPECT_EQ(testing::namesIn(folder_.path()), (std::vector<std::string>{"free", "taken"}));
}

TEST_F(PosixIo, NamedTemporaryThatIsDroppedLeavesNothing) {
  const Descriptor folder = open();
  { const auto file = TemporaryFile::makeNamed(folder.get(), "temporary"); }
  EXPECT_TRUE(testing::namesIn(folder_.path()).empty());
}

TEST_F(PosixIo, OwnFolderOfAnotherModeIsSetRight) {
  for (const mode_t mode : {mode_t{0755}, mode_t{0}, mode_t{0777}}) {
    const Descriptor folder = open();
    ::mkdirat(folder.get(), "own", 0700);
    ASSERT_EQ(::chmod(folder_.at("own").c_str(), mode), 0);
    EXPECT_TRUE(openOwnFolder(folder.get(), "own", /*create=*/false));
    EXPECT_EQ(testing::modeOf(folder_.at("own")), 0700U);
  }
}

TEST_F(PosixIo, MissingOwnFolderIsMadeOnlyWhenAsked) {
  const Descriptor folder = open();
  EXPECT_FALSE(openOwnFolder(folder.get(), "own", /*create=*/false));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(openOwnFolder(folder.get(), "own", /*create=*/true));
  EXPECT_EQ(testing::modeOf(folder_.at("own")), 0700U);
}

TEST_F(PosixIo, EntryNamesAreOneComponent) {
  for (const char* name : {"a", ".a", "..a", "a b", "\xff"}) EXPECT_TRUE(isEntryName(name)) << name;
  for (const char* name : {"", ".", "..", "a/b", "/"}) EXPECT_FALSE(isEntryName(name)) << name;
  EXPECT_FALSE(isEntryName(std::string_view("a\0b", 3)));
}

TEST(RandomHex, HasTwoDigitsAByteAndNeverRepeats) {
  EXPECT_EQ(randomHex(16).size(), 32U);
  EXPECT_EQ(randomHex(16).find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_NE(randomHex(16), randomHex(16));
}

}  // namespace
}  // namespace thmp
