// SPDX-License-Identifier: Apache-2.0
#include "client/whole_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace thmp::client {
namespace {

namespace fs = std::filesystem;

class WholeFile : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "whole_file.XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
  }
  void TearDown() override { fs::remove_all(folder_); }

  std::string contentOf(const std::string& name) {
    std::ifstream file(folder_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::size_t entries() {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(folder_), fs::directory_iterator()));
  }
  std::string why(const fs::path& path) {
    const Result<void> written = writeWhole(path.native(), "new");
    return written ? "" : written.error().description;
  }

  fs::path folder_;
};

TEST_F(WholeFile, IsForItsUserAlone) {
  ASSERT_EQ(why(folder_ / "a"), "");
  struct stat status {};
  ASSERT_EQ(::stat((folder_ / "a").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  EXPECT_EQ(contentOf("a"), "new");
  EXPECT_EQ(entries(), 1U);
}

TEST_F(WholeFile, TakesThePlaceOfOneThatIsThere) {
  std::ofstream(folder_ / "a") << "an older and longer text";
  ASSERT_EQ(why(folder_ / "a"), "");
  EXPECT_EQ(contentOf("a"), "new");
}

TEST_F(WholeFile, IsWrittenWhereALinkPoints) {
  std::ofstream(folder_ / "a") << "old";
  fs::create_symlink(folder_ / "a", folder_ / "link");
  ASSERT_EQ(why(folder_ / "link"), "");
  EXPECT_TRUE(fs::is_symlink(folder_ / "link"));
  EXPECT_EQ(contentOf("a"), "new");
}

TEST_F(WholeFile, RefusesWhatIsNoFileAndSaysWhy) {
  EXPECT_NE(why(folder_ / "missing" / "a").find("there is no folder"), std::string::npos);
  EXPECT_NE(why(folder_).find("a folder stands there"), std::string::npos);
  EXPECT_NE(why("").find("it names no file"), std::string::npos);
  EXPECT_NE(why("/dev/null").find("no ordinary file stands there"), std::string::npos);
  EXPECT_EQ(entries(), 0U);
}

}  // namespace
}  // namespace thmp::client
