// SPDX-License-Identifier: Apache-2.0
#include "messaging/message_names.h"

#include <gtest/gtest.h>

#include <string>

namespace thmp {
namespace {

TEST(MessageNames, EachIsOneSpaceTheCommonStemAndAWordOfItsOwn) {
  const std::string stem = " com.quorvane.tallyhive.mailplugin.";
  EXPECT_EQ(kConnectName, stem + "Connect");
  EXPECT_EQ(kSearchName, stem + "Search");
  EXPECT_EQ(kCancelName, stem + "Cancel");
  EXPECT_EQ(kClearName, stem + "Clear");
  EXPECT_EQ(kTerminateName, stem + "Terminate");
  EXPECT_EQ(kPluginReadyName, stem + "PluginReady");
  EXPECT_EQ(kPluginQuitName, stem + "PluginQuit");
  EXPECT_EQ(kQueryDidStartName, stem + "QueryDidStart");
  EXPECT_EQ(kQueryHasUpdatesName, stem + "QueryHasUpdates");
  EXPECT_EQ(kQueryHasRemovalsName, stem + "QueryHasRemovals");
  EXPECT_EQ(kQueryDidCompleteName, stem + "QueryDidComplete");
  EXPECT_EQ(kResultsBatchType, stem + "ResultsBatch");
  EXPECT_EQ(kRemovalBatchType, stem + "RemovalBatch");
}

TEST(MessageFileNames, ExtensionCountsInEitherCase) {
  EXPECT_TRUE(isMessageFileName("a.plist"));
  EXPECT_TRUE(isMessageFileName("A.PLIST"));
  EXPECT_TRUE(isMessageFileName("a.b.PList"));
  EXPECT_TRUE(isMessageFileName(".hidden.plist"));
}

TEST(MessageFileNames, OtherExtensionsAndNoneAreNoMessages) {
  EXPECT_FALSE(isMessageFileName("a.plist.tmp"));
  EXPECT_FALSE(isMessageFileName("a.txt"));
  EXPECT_FALSE(isMessageFileName("plist"));
  EXPECT_FALSE(isMessageFileName(".plist"));
  EXPECT_FALSE(isMessageFileName("a.plists"));
  EXPECT_FALSE(isMessageFileName("a.plis"));
  EXPECT_FALSE(isMessageFileName("a."));
  EXPECT_FALSE(isMessageFileName(".x.tmp-0a1b"));
  EXPECT_FALSE(isMessageFileName(""));
}

}  // namespace
}  // namespace thmp
