// SPDX-License-Identifier: Apache-2.0
#include "messaging/MessageClaims.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace thmp {
namespace {

TEST(MessageClaims, EntryIsTakenByOneOfTheScansInFlight) {
  MessageClaims claims;
  MessageClaims::Scan first(claims, "/in");
  MessageClaims::Scan second(claims, "/in");
  EXPECT_TRUE(first.claim("a.plist"));
  EXPECT_FALSE(second.claim("a.plist"));
  EXPECT_FALSE(first.claim("a.plist"));
  EXPECT_TRUE(second.claim("b.plist"));
}

TEST(MessageClaims, AreHeldUntilTheLastScanOfTheFolderEnds) {
  MessageClaims claims;
  std::optional<MessageClaims::Scan> first(std::in_place, claims, "/in");
  EXPECT_TRUE(first->claim("a.plist"));
  std::optional<MessageClaims::Scan> second(std::in_place, claims, "/in");
  first.reset();
  EXPECT_FALSE(second->claim("a.plist"));
  EXPECT_EQ(claims.count(), 1u);
  second.reset();
  EXPECT_EQ(claims.count(), 0u);
  MessageClaims::Scan third(claims, "/in");
  EXPECT_TRUE(third.claim("a.plist"));
}

TEST(MessageClaims, FoldersHaveClaimsOfTheirOwn) {
  MessageClaims claims;
  MessageClaims::Scan here(claims, "/in");
  MessageClaims::Scan there(claims, "/other");
  EXPECT_TRUE(here.claim("a.plist"));
  EXPECT_TRUE(there.claim("a.plist"));
}

TEST(MessageClaims, ThreadsShareThem) {
  MessageClaims claims;
  std::atomic<int> taken = 0;
  {
    std::vector<std::jthread> threads;
    const MessageClaims::Scan holder(claims, "/in");
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        MessageClaims::Scan scan(claims, "/in");
        for (int j = 0; j < 500; ++j) taken += scan.claim(std::to_string(j)) ? 1 : 0;
      });
    }
    threads.clear();
  }
  EXPECT_EQ(taken, 500);
  EXPECT_EQ(claims.count(), 0u);
}

}  // namespace
}  // namespace thmp
