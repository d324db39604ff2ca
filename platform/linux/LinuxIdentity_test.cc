// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxIdentity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <set>

#include "platform/linux/testing.h"
#include "tests/support/child_process.h"

namespace thmp {
namespace {

using testing::TemporaryFolder;

TEST(LinuxIdentity, CurrentUserIsTheOneOfTheRealNumber) {
  LinuxIdentity identity("/h");
  const auto current = identity.currentUser();
  ASSERT_TRUE(current) << "the tests' own user has to be in the user database";
  const auto byName = identity.userByName(current->name);
  ASSERT_TRUE(byName);
  EXPECT_EQ(byName->home, current->home);
}

TEST(LinuxIdentity, UserWithoutRecordIsNobody) {
  LinuxIdentity identity("/h");
  EXPECT_FALSE(identity.userByName("no such user here"));
  EXPECT_FALSE(identity.userByName(""));
  EXPECT_FALSE(identity.userByName(std::string("root\0x", 6)));
  if (::geteuid() != 0) return;
  EXPECT_EQ(
      testing::resultInChild([&] {
        return ::setresuid(4'000'000, 4'000'000, 4'000'000) == 0 && !identity.currentUser() ? 0 : 1;
      }),
      0);
}

TEST(LinuxIdentity, ProcessHomeIsTheGivenOne) {
  EXPECT_EQ(LinuxIdentity("/h").processHome(), "/h");
}

TEST(LinuxIdentity, SandboxIsToldByItsMarks) {
  const TemporaryFolder folder;
  LinuxIdentity identity("/h", {folder.at("flatpak-info"), folder.at("label")});
  EXPECT_FALSE(identity.hostSandboxed());
  testing::writeFile(folder.at("label"), "unconfined\n");
  EXPECT_FALSE(identity.hostSandboxed());
  testing::writeFile(folder.at("label"), "snapd (enforce)\n");
  EXPECT_FALSE(identity.hostSandboxed());
  testing::writeFile(folder.at("label"), "snap.mail.mail (enforce)\n");
  EXPECT_TRUE(identity.hostSandboxed());
  testing::writeFile(folder.at("label"), "");
  EXPECT_FALSE(identity.hostSandboxed());
  testing::writeFile(folder.at("flatpak-info"), "");
  EXPECT_TRUE(identity.hostSandboxed());
}

TEST(LinuxIdentity, FifoInPlaceOfTheLabelIsReadWithoutWaiting) {
  const TemporaryFolder folder;
  ASSERT_EQ(::mkfifo(folder.at("label").c_str(), 0600), 0);
  EXPECT_FALSE(LinuxIdentity("/h", {folder.at("none"), folder.at("label")}).hostSandboxed());
}

TEST(LinuxIdentity, UniqueStringsHave32DigitsInGroupsAndDiffer) {
  LinuxIdentity identity("/h");
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string text = identity.globallyUniqueString();
    ASSERT_EQ(text.size(), 36U);
    EXPECT_EQ(text.find_first_not_of("0123456789ABCDEF-"), std::string::npos) << text;
    for (const std::size_t hyphen : {8U, 13U, 18U, 23U}) EXPECT_EQ(text[hyphen], '-') << text;
    EXPECT_TRUE(seen.insert(text).second) << text;
  }
}

TEST(LinuxIdentity, UniqueStringsOfAProcessAndOfItsForkDiffer) {
  LinuxIdentity identity("/h");
  static_cast<void>(identity.globallyUniqueString());
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  const pid_t child = ::fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    const std::string text = identity.globallyUniqueString();
    ::_exit(::write(ends[1], text.data(), text.size()) == 36 ? 0 : 1);
  }
  std::string childs(36, ' ');
  EXPECT_EQ(::read(ends[0], childs.data(), childs.size()), 36);
  EXPECT_NE(identity.globallyUniqueString(), childs);
  ::waitpid(child, nullptr, 0);
  for (const int end : ends) ::close(end);
}

}  // namespace
}  // namespace thmp
