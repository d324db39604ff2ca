// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/XdgFolders.h"

#include <sys/stat.h>
#include <unistd.h>

#include <map>

#include "platform/linux/testing.h"
#include "platform/linux/user_records.h"
#include "tests/support/child_process.h"

namespace thmp {
namespace {

using testing::TemporaryFolder;

XdgFolders foldersWith(const std::map<std::string, std::string>& variables,
                       const std::string& temporary = "/tmp") {
  return XdgFolders::from(
      [&](const char* name) -> const char* {
        const auto found = variables.find(name);
        return found == variables.end() ? nullptr : found->second.c_str();
      },
      temporary);
}

TEST(XdgFolders, AreWhatTheVariablesSay) {
  const XdgFolders folders = foldersWith({{"HOME", "/h"},
                                          {"XDG_DATA_HOME", "/d"},
                                          {"XDG_CONFIG_HOME", "/c"},
                                          {"XDG_CACHE_HOME", "/k"},
                                          {"XDG_RUNTIME_DIR", "/r"}});
  EXPECT_EQ(folders.home, "/h");
  EXPECT_EQ(folders.data, "/d");
  EXPECT_EQ(folders.config, "/c");
  EXPECT_EQ(folders.cache, "/k");
  EXPECT_EQ(folders.runtime, "/r");
  EXPECT_FALSE(folders.runtimeIsSubstitute);
}

TEST(XdgFolders, LieBelowTheHomeWithoutVariables) {
  const XdgFolders folders = foldersWith({{"HOME", "/h"}}, "/t");
  EXPECT_EQ(folders.data, "/h/.local/share");
  EXPECT_EQ(folders.config, "/h/.config");
  EXPECT_EQ(folders.cache, "/h/.cache");
  EXPECT_EQ(folders.runtime, "/t/tallyhive-" + std::to_string(::geteuid()));
  EXPECT_TRUE(folders.runtimeIsSubstitute);
}

TEST(XdgFolders, RelativeAndEmptyValuesCountAsAbsent) {
  const XdgFolders folders = foldersWith({{"HOME", "/h"},
                                          {"XDG_DATA_HOME", "d"},
                                          {"XDG_CACHE_HOME", ""},
                                          {"XDG_CONFIG_HOME", "./c"},
                                          {"XDG_RUNTIME_DIR", "run"}});
  EXPECT_EQ(folders.data, "/h/.local/share");
  EXPECT_EQ(folders.config, "/h/.config");
  EXPECT_EQ(folders.cache, "/h/.cache");
  EXPECT_TRUE(folders.runtimeIsSubstitute);
}

TEST(XdgFolders, WithoutHomeTheUserRecordTells) {
  const auto record = userRecordOf(::getuid());
  const std::string expected = record && record->home ? *record->home : "/";
  EXPECT_EQ(foldersWith({}).home, expected);
  EXPECT_EQ(foldersWith({{"HOME", "relative"}}).home, expected);
}

TEST(XdgFolders, RuntimeSubstituteIsMadePrivate) {
  const TemporaryFolder temporary;
  const XdgFolders folders = foldersWith({{"HOME", "/h"}}, temporary.path());
  const mode_t before = ::umask(0777);
  const bool prepared = folders.prepareRuntime();
  ::umask(before);
  EXPECT_TRUE(prepared);
  EXPECT_EQ(testing::modeOf(folders.runtime), 0700U);
}

TEST(XdgFolders, RuntimeSubstituteOfOursWithAnotherModeIsSetRight) {
  const TemporaryFolder temporary;
  const XdgFolders folders = foldersWith({{"HOME", "/h"}}, temporary.path());
  ASSERT_EQ(::mkdir(folders.runtime.c_str(), 0755), 0);
  EXPECT_TRUE(folders.prepareRuntime());
  EXPECT_EQ(testing::modeOf(folders.runtime), 0700U);
}

TEST(XdgFolders, RuntimeSubstituteThatIsALinkIsRefused) {
  const TemporaryFolder temporary;
  const XdgFolders folders = foldersWith({{"HOME", "/h"}}, temporary.path());
  testing::makeFolder(temporary.at("elsewhere"));
  ASSERT_EQ(::symlink(temporary.at("elsewhere").c_str(), folders.runtime.c_str()), 0);
  Error error;
  EXPECT_FALSE(folders.prepareRuntime(&error));
  EXPECT_TRUE(error.isSet());
}

TEST(XdgFolders, RuntimeSubstituteOfSomebodyElseIsRefused) {
  const TemporaryFolder temporary;
  const XdgFolders folders = foldersWith({{"HOME", "/h"}}, temporary.path());
  testing::makeFolder(folders.runtime);
  testing::whereOneMayMount([&] {
    testing::giveAway(folders.runtime);
    Error error;
    EXPECT_FALSE(folders.prepareRuntime(&error));
    EXPECT_EQ(error.code, EPERM);
    EXPECT_NE(error.description.find("; set XDG_RUNTIME_DIR to a folder of your own"),
              std::string::npos);
  });
}

TEST(XdgFolders, NamedRuntimeFolderIsMadeWhenMissing) {
  const TemporaryFolder temporary;
  const XdgFolders folders =
      foldersWith({{"HOME", "/h"}, {"XDG_RUNTIME_DIR", temporary.at("run/user")}});
  EXPECT_TRUE(folders.prepareRuntime());
  EXPECT_EQ(testing::modeOf(temporary.at("run/user")), 0700U);
}

}  // namespace
}  // namespace thmp
