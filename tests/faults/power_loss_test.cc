// SPDX-License-Identifier: Apache-2.0
//
// Each operation, and the power that goes at its first call of the boundary, at its second, and so
// on: what the next start makes of what is left.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "base/plist.h"
#include "tests/faults/ForgetfulDisk.h"
#include "tests/faults/operations.h"

namespace thmp::faults {
namespace {

/// The first start after it: nothing of before is handled or answered, the log goes on.
void checkStart(FaultWorld& next) {
  const Array before =
      next.fake.preferences.get(PluginLog::kStoredLogKey).asArray().value_or(Array());
  next.start();
  EXPECT_EQ(next.fake.log.count("THMPMailPlugin received"), 0u);
  for (const std::string& name : next.fake.files.entries(next.fake.inbox())) {
    if (!isMessageFileName(name)) continue;
    const auto bytes = next.fake.files.contents(next.fake.inbox() + "/" + name);
    EXPECT_FALSE(readPropertyList(bytes.value_or(""), kMessageLimits, nullptr)) << name;
  }
  for (const Dictionary& message : next.fake.messagesIn(next.fake.outbox())) {
    EXPECT_EQ(message[kNameKey], Value(kPluginReadyName));
    EXPECT_TRUE(message[kUserInfoKey][kClientNameKey].isNull());
  }
  const Array after =
      next.fake.preferences.get(PluginLog::kStoredLogKey).asArray().value_or(Array());
  ASSERT_GE(after.size(), before.size());
  for (std::size_t each = 0; each < before.size(); ++each) EXPECT_EQ(after[each], before[each]);
}

// One disk for each moment on each commit; THMP_FAULTS=all for five.
TEST(PowerLossOfAnyOperation, LeavesNothingThatIsHandledAgainAndTheNextStartWorks) {
  const unsigned seeds = std::getenv("THMP_FAULTS") == nullptr ? 1 : 5;
  std::size_t disks = 0;
  for (const Operation& operation : allOperations()) {
    FaultWorld world;
    operation.prepare(world);
    ForgetfulDisk disk(world);
    operation.run(world);
    for (std::size_t moment = 0; moment < disk.moments(); moment += THMP_ONE_OF) {
      for (unsigned seed = 0; seed < seeds; ++seed) {
        SCOPED_TRACE(std::string(operation.name) + ", moment " + std::to_string(moment) +
                     ", seed " + std::to_string(seed));
        FaultWorld next;
        disk.leave(moment, seed + static_cast<unsigned>(moment) * seeds, next);
        checkStart(next);
        next.checkInvariants();
        next.checkWorksAgain();
        ++disks;
        if (::testing::Test::HasFailure()) return;
      }
    }
  }
  std::printf("%zu operations, %zu disks after a power loss\n", allOperations().size(), disks);
}

}  // namespace
}  // namespace thmp::faults
