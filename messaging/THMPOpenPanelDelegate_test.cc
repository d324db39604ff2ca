// SPDX-License-Identifier: Apache-2.0
#include "messaging/THMPOpenPanelDelegate.h"

#include <gtest/gtest.h>

namespace thmp {
namespace {

class OpenPanelDelegate : public testing::Test {
 protected:
  void SetUp() override { delegate.setPath("/home/ada/Mail/T\xC3\xA4lly"); }

  bool enables(const std::string& path) const { return delegate.panel(Url::file(path)); }

  THMPOpenPanelDelegate delegate;
};

TEST_F(OpenPanelDelegate, OnlyTheOneFolderIsEnabled) {
  EXPECT_EQ(delegate.path(), "/home/ada/Mail/T\xC3\xA4lly");
  EXPECT_TRUE(enables("/home/ada/Mail/T\xC3\xA4lly"));
  EXPECT_FALSE(enables("/home/ada/Mail"));
  EXPECT_FALSE(enables("/home/ada/Mail/T\xC3\xA4lly/in"));
  EXPECT_FALSE(enables("/home/ada/Mail/T\xC3\xA4lly2"));
  EXPECT_FALSE(enables(""));
}

TEST_F(OpenPanelDelegate, CaseOfTheLettersDoesNotCount) {
  EXPECT_TRUE(enables("/HOME/ADA/mail/t\xC3\x84LLY"));
}

TEST_F(OpenPanelDelegate, ComposedAndDecomposedLettersAreEqual) {
  EXPECT_TRUE(enables("/home/ada/Mail/Ta\xCC\x88lly"));
}

TEST_F(OpenPanelDelegate, URLOfAnotherSchemeIsNotEnabled) {
  EXPECT_FALSE(delegate.panel(Url("https", delegate.path())));
}

TEST_F(OpenPanelDelegate, PathThatIsNoTextIsEqualToItselfOnly) {
  delegate.setPath("/a\xFF");
  EXPECT_TRUE(enables("/a\xFF"));
  EXPECT_FALSE(enables("/A\xFF"));
}

}  // namespace
}  // namespace thmp
