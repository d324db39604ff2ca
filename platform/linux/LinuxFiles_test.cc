// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxFiles.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/testing.h"
#include "tests/support/child_process.h"

namespace thmp {
namespace {

using testing::TemporaryFolder;

class LinuxFilesTest : public ::testing::Test {
 protected:
  const TemporaryFolder folder_;
  LinuxFiles files_{folder_.at("share")};
};

TEST_F(LinuxFilesTest, ApplicationSupportIsTheDataFolder) {
  EXPECT_EQ(files_.applicationSupportDirectory(), folder_.at("share"));
  EXPECT_EQ(files_.applicationSupportBelowHome(), ".local/share");
}

TEST_F(LinuxFilesTest, DisplayNameIsTheLastComponentOfAnyPath) {
  EXPECT_EQ(files_.displayName("/a/b.eml"), "b.eml");
  EXPECT_EQ(files_.displayName("/a/b/"), "b");
  EXPECT_EQ(files_.displayName("b"), "b");
  EXPECT_EQ(files_.displayName("/"), "/");
  EXPECT_EQ(files_.displayName(""), "");
}

TEST_F(LinuxFilesTest, DeviceIsNoFileToRead) {
  Error error;
  EXPECT_FALSE(files_.readFile("/dev/zero", 100, &error));
  EXPECT_EQ(error.code, EINVAL);
}

TEST_F(LinuxFilesTest, RelativeFolderIsNotMade) {
  Error error;
  EXPECT_FALSE(files_.createDirectories("relative/folder", &error));
  EXPECT_EQ(error.code, EINVAL);
  EXPECT_FALSE(files_.createDirectories("", nullptr));
}

TEST_F(LinuxFilesTest, FullDiskLeavesNeitherFileNorTemporary) {
  // A limit on the size of files stands in for the full disk; it must not reach other tests.
  const int result = testing::resultInChild([&] {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {4096, 4096};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    Error error;
    const auto file = files_.prepareFile(folder_.path(), "a.plist", std::string(8192, 'x'), &error);
    return file == nullptr && error.code == EFBIG ? 0 : 1;
  });
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(testing::namesIn(folder_.path()).empty());
}

TEST_F(LinuxFilesTest, ListAndReadFailWithoutDescriptorsAndSayWhy) {
  testing::writeFile(folder_.at("a"), "x");
  const int result = testing::resultInChild([&] {
    const rlimit limit = {0, 0};
    ::setrlimit(RLIMIT_NOFILE, &limit);
    Error list;
    Error read;
    Error prepare;
    const bool failed = !files_.list(folder_.path(), &list) &&
                        !files_.readFile(folder_.at("a"), 10, &read) &&
                        files_.prepareFile(folder_.path(), "b", "x", &prepare) == nullptr;
    return failed && list.underlying && list.underlying->code == EMFILE && read.code == EMFILE &&
                   prepare.code == EMFILE
               ? 0
               : 1;
  });
  EXPECT_EQ(result, 0);
}

TEST_F(LinuxFilesTest, NoOperationKeepsADescriptor) {
  testing::makeFolder(folder_.at("sub/inner"));
  const std::size_t before = testing::openDescriptors();
  for (int i = 0; i < 10; ++i) {
    static_cast<void>(files_.list(folder_.path(), nullptr));
    static_cast<void>(files_.list(folder_.at("none"), nullptr));
    static_cast<void>(files_.readFile(folder_.path(), 10, nullptr));
    const auto file = files_.prepareFile(folder_.path(), "a", "x", nullptr);
    EXPECT_TRUE(file->publish());
    const auto again = files_.prepareFile(folder_.path(), "a", "x", nullptr);
    EXPECT_FALSE(again->publish());
    EXPECT_TRUE(files_.removeEntry(folder_.path(), "a", nullptr));
    EXPECT_TRUE(files_.createDirectories(folder_.at("sub/inner"), nullptr));
  }
  EXPECT_TRUE(files_.removeEntry(folder_.path(), "sub", nullptr));
  EXPECT_EQ(testing::openDescriptors(), before);
}

TEST_F(LinuxFilesTest, UnfinishedFilesOfADeadProcessAreRemovedAndOthersStay) {
  testing::writeFile(folder_.at(".x.tmp-0123"), "x");
  testing::writeFile(folder_.at("a.plist"), "x");
  testing::writeFile(folder_.at(".hidden"), "x");
  LinuxFiles::removeTemporaryFiles(folder_.path());
  LinuxFiles::removeTemporaryFiles(folder_.at("none"));
  EXPECT_EQ(testing::namesIn(folder_.path()), (std::vector<std::string>{".hidden", "a.plist"}));
}

TEST_F(LinuxFilesTest, WritabilityIsThatOfTheProcess) {
  testing::makeFolder(folder_.at("closed"));
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(folder_.at("closed").c_str(), 0755), 0);
  EXPECT_TRUE(files_.isWritable(folder_.at("closed")));
  ASSERT_EQ(::chmod(folder_.at("closed").c_str(), 0555), 0);
  const int result = testing::resultAsNobody([&] {
    Error error;
    const bool refused = !files_.isWritable(folder_.at("closed")) &&
                         !files_.createDirectories(folder_.at("closed/new"), &error) &&
                         error.code == EACCES &&
                         files_.prepareFile(folder_.at("closed"), "a", "x", &error) == nullptr &&
                         error.code == EACCES;
    return refused ? 0 : 1;
  });
  EXPECT_EQ(result, 0);
}

}  // namespace
}  // namespace thmp
