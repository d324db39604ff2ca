// SPDX-License-Identifier: Apache-2.0
#include <set>

#include "base/mutex.h"
#include "tests/contract/fixtures.h"

namespace thmp {
namespace {

class IdentityContract : public contract::ContractTest<contract::IdentityFixture,
                                                       &contract::Implementation::identity> {
 protected:
  Identity& identity() { return fixture().identity(); }
};

THMP_RUN_CONTRACT(IdentityContract);

TEST_P(IdentityContract, CurrentUserIsFoundByNameToo) {
  const auto user = identity().currentUser();
  ASSERT_TRUE(user) << "the tests' own user has to be in the user database";

  const auto byName = identity().userByName(user->name);
  ASSERT_TRUE(byName);
  EXPECT_EQ(byName->name, user->name);
  EXPECT_EQ(byName->home, user->home);
}

TEST_P(IdentityContract, UnknownNamesHaveNoRecord) {
  EXPECT_FALSE(identity().userByName("no such user here"));
  EXPECT_FALSE(identity().userByName(""));
  EXPECT_FALSE(identity().userByName(std::string("root\0x", 6)));
}

TEST_P(IdentityContract, ProcessHomeIsAnAbsolutePath) {
  EXPECT_TRUE(identity().processHome().starts_with('/')) << identity().processHome();
}

TEST_P(IdentityContract, SandboxIsAnsweredTheSameTwice) {
  EXPECT_EQ(identity().hostSandboxed(), identity().hostSandboxed());
}

TEST_P(IdentityContract, SystemVersionIsANumberOrNone) {
  const std::optional<double> version = identity().systemVersion();
  EXPECT_EQ(version, identity().systemVersion());
  EXPECT_GT(version.value_or(1.0), 0.0);
}

TEST_P(IdentityContract, UniqueStringsAreLettersDigitsAndHyphensOnly) {
  const std::string text = identity().globallyUniqueString();

  EXPECT_FALSE(text.empty());
  EXPECT_EQ(text.find_first_not_of("0123456789-"
                                   "abcdefghijklmnopqrstuvwxyz"
                                   "ABCDEFGHIJKLMNOPQRSTUVWXYZ"),
            std::string::npos)
      << text;
}

TEST_P(IdentityContract, NoThreadGetsAUniqueStringOfAnother) {
  Mutex mutex;
  std::set<std::string> all;
  contract::runOnThreads(4, [&](int) {
    for (int j = 0; j < 250; ++j) {
      std::string text = identity().globallyUniqueString();
      const Lock lock(mutex);
      all.insert(std::move(text));
    }
  });

  EXPECT_EQ(all.size(), 1000U);
}

}  // namespace
}  // namespace thmp
