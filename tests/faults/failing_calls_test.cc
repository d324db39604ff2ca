// SPDX-License-Identifier: Apache-2.0
//
// Each operation with its first call of the boundary failing, then with its second, and so on until
// none fails any more; that call alone, and that one with all after it.
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "tests/faults/operations.h"

namespace thmp::faults {
namespace {

constexpr std::array<int, 5> kErrors{ENOSPC, EIO, EACCES, EEXIST, EPERM};

struct Tally {
  std::size_t runs = 0;
  std::size_t faults = 0;
};

class FailingCalls : public ::testing::TestWithParam<Mode> {
 protected:
  /// One operation until it runs clean, each time with the next of the errors.
  void failEachCall(const Operation& operation, std::size_t firstError) {
    for (std::size_t nth = 1 + firstError % THMP_ONE_OF;; nth += THMP_ONE_OF) {
      const int errorNumber = kErrors[(firstError + nth) % kErrors.size()];
      FaultWorld world;
      operation.prepare(world);
      world.plan.arm(nth, GetParam(), errorNumber);
      operation.run(world);
      world.plan.disarm();
      SCOPED_TRACE(std::string(operation.name) + ", call " + std::to_string(nth) + " with error " +
                   std::to_string(errorNumber) + ": " + world.plan.firstFault());
      world.checkInvariants();
      world.checkWorksAgain();
      world.checkInvariants();
      ++tally_.runs;
      tally_.faults += world.plan.count();
      if (world.plan.count() == 0 || HasFatalFailure()) return;
    }
  }

  Tally tally_;
};

// On each commit each call fails with one of the errors; THMP_FAULTS=all for each with every one.
TEST_P(FailingCalls, OfAnyOperationLeaveAllInOrderAndTheNextOperationWorks) {
  const std::size_t passes = std::getenv("THMP_FAULTS") == nullptr ? 1 : kErrors.size();
  for (std::size_t pass = 0; pass < passes; ++pass) {
    std::size_t number = pass;
    for (const Operation& operation : allOperations()) failEachCall(operation, number++);
  }
  RecordProperty("faults", static_cast<int>(tally_.faults));
  std::printf("%zu operations in %zu runs, %zu injected faults\n", allOperations().size(),
              tally_.runs, tally_.faults);
  EXPECT_GE(tally_.faults, (GetParam() == Mode::kThatCallAlone ? 600u : 4000u) / THMP_ONE_OF);
}

INSTANTIATE_TEST_SUITE_P(Modes, FailingCalls,
                         ::testing::Values(Mode::kThatCallAlone, Mode::kAllFromThereOn),
                         [](const auto& mode) {
                           return mode.param == Mode::kThatCallAlone ? "EachAlone"
                                                                     : "EachWithAllAfterIt";
                         });

}  // namespace
}  // namespace thmp::faults
