// SPDX-License-Identifier: Apache-2.0
#include "host/store/MountTable.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>

#include "host/store/test_support.h"
#include "tests/support/child_process.h"

namespace thmp {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing_support::TemporaryFolder;

class MountingFolders : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(other_);
    fs::create_directories(place_);
  }
  void TearDown() override { ::umount(place_.c_str()); }

  bool mountOther() {
    return ::mount(other_.c_str(), place_.c_str(), nullptr, MS_BIND, nullptr) == 0;
  }
  static bool isTold(const MountTable& table) {
    pollfd file{table.descriptor(), POLLPRI, 0};
    return ::poll(&file, 1, 0) == 1;
  }

  TemporaryFolder folder_;
  const std::string other_ = folder_ / "other";
  const std::string place_ = folder_ / "a disk/mail";
};

TEST_F(MountingFolders, WhatComesAndGoesUponAFolderIsTold) {
  testing::whereOneMayMount([this] {
    MountTable table({place_});
    ASSERT_TRUE(mountOther());
    EXPECT_TRUE(isTold(table));
    EXPECT_THAT(table.changes(), ElementsAre(place_));
    EXPECT_THAT(table.changes(), IsEmpty());
    ASSERT_EQ(::umount(place_.c_str()), 0);
    EXPECT_TRUE(isTold(table));
    EXPECT_THAT(table.changes(), ElementsAre(place_));
  });
}

TEST_F(MountingFolders, WhatIsMountedAboveOrBelowIsToldToo) {
  testing::whereOneMayMount([this] {
    MountTable above({place_ + "/below"});
    MountTable below({folder_ / "a disk"});
    ASSERT_TRUE(mountOther());
    EXPECT_THAT(above.changes(), ElementsAre(place_));
    EXPECT_THAT(below.changes(), ElementsAre(place_));
  });
}

TEST_F(MountingFolders, WhatIsMountedElsewhereIsNotTold) {
  testing::whereOneMayMount([this] {
    MountTable table({folder_ / "a disk/mail2", folder_ / "quiet"});
    ASSERT_TRUE(mountOther());
    EXPECT_THAT(table.changes(), IsEmpty());
  });
}

TEST_F(MountingFolders, AnotherMountInTheSamePlaceIsTold) {
  testing::whereOneMayMount([this] {
    ASSERT_TRUE(mountOther());
    MountTable table({place_});
    // While it is held, the first keeps its number, and the second gets another.
    const int first = ::open(place_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(first, 0);
    ASSERT_EQ(::umount2(place_.c_str(), MNT_DETACH), 0);
    ASSERT_TRUE(mountOther());
    EXPECT_THAT(table.changes(), ElementsAre(place_));
    ::close(first);
  });
}

}  // namespace
}  // namespace thmp
