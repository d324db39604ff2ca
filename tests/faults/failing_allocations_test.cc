// SPDX-License-Identifier: Apache-2.0
//
// Memory ends while a callback of the engine or the handler of a message runs: at the first
// allocation, at the second, and so on until none fails any more; at that one alone, and from there
// on. The process goes on, a batch that was being built is dropped, and the query goes on.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <new>

#include "tests/faults/FaultWorld.h"

void* operator new(std::size_t size) {
  if (thmp::faults::allocationPlan.fails()) throw std::bad_alloc();
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return thmp::faults::allocationPlan.fails() ? nullptr : std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

namespace thmp::faults {
namespace {

using Engine = FaultWorld::Engine;
using Step = std::function<void()>;

/// What is to run without memory, made ready with memory.
struct Case {
  const char* name;
  std::function<Step(FaultWorld& world, const Engine& query)> prepare;
};

/// As a scan does: what the handler throws ends in the dispatch, what comes before ends the scan.
Step dispatched(FaultWorld& world, const char* name, Dictionary userInfo) {
  userInfo.set(kClientNameKey, "c");
  return [&world, message = Value(Dictionary{{kNameKey, name}, {kUserInfoKey, userInfo}})] {
    try {
      world.plugin->communicationCenter()->dispatchMessage(message);
    } catch (const std::bad_alloc&) {
    }
  };
}

Step found(const Engine& query, std::vector<SpotlightItem> items) {
  query->setFoundItemCount(items.size() + 1);
  return [handler = query->foundItemsHandler(), items = std::move(items)] { (*handler)(items); };
}

const std::vector<Case>& cases() {
  static const std::vector<Case>& all = *new std::vector<Case>{
      {"Delivery",
       [](FaultWorld& world, const Engine& query) {
         for (const std::int64_t id : {101, 102, 103}) {
           const std::string path = "/mail/" + std::to_string(id) + ".eml";
           world.fake.files.writeFile(path, "");
           world.fake.mail.addMessage(id, 1, path);
         }
         return found(query, {mailItem(101), mailItem(102, {{"kMDItemSubject", "x"}}),
                              mailItem(103), mailItem(104)});
       }},
      {"DeliveryWithAnAttributeThatNothingHolds",
       [](FaultWorld&, const Engine& query) {
         SpotlightItem item = mailItem(7, {{"kMDItemPath", "/mail/7.eml"}});
         item.attributes.set("odd", Dictionary{{"lost", Value()}});
         return found(query, {item});
       }},
      {"Removals",
       [](FaultWorld&, const Engine& query) -> Step {
         return [handler = query->removedItemsHandler(), gone = Value(Array{"1", 2, "3"})] {
           (*handler)("", gone);
         };
       }},
      {"EndOfGathering",
       [](FaultWorld&, const Engine& query) -> Step {
         return [handler = query->gatherEndedHandler()] { (*handler)(); };
       }},
      {"Completion",
       [](FaultWorld&, const Engine& query) -> Step {
         return [handler = query->completionHandler(), error = Error{"domain", 7, "x", nullptr}] {
           (*handler)(error);
         };
       }},
      {"Connect",
       [](FaultWorld& world, const Engine&) { return dispatched(world, kConnectName, {}); }},
      {"Search",
       [](FaultWorld& world, const Engine&) {
         return dispatched(world, kSearchName, {{kUniqueNameKey, "q2"}, {kLineageNameKey, "l"}});
       }},
      {"Clear",
       [](FaultWorld& world, const Engine&) {
         return dispatched(world, kClearName,
                           {{kUniqueNameKey, "q"}, {kBatchNameKey, world.pending("q").front()}});
       }},
      {"Cancel",
       [](FaultWorld& world, const Engine&) {
         return dispatched(world, kCancelName, {{kUniqueNameKey, "q"}});
       }},
      {"Terminate",
       [](FaultWorld& world, const Engine&) {
         return dispatched(world, kTerminateName, {{kActiveNamesKey, Array{"q", "other"}}});
       }},
  };
  return all;
}

class FailingAllocations : public ::testing::TestWithParam<Mode> {
 protected:
  void failEachAllocation(const Case& step) {
    // On each commit some of the places from which on nothing is left; THMP_FAULTS=all for all.
    const bool all = GetParam() == Mode::kThatCallAlone || std::getenv("THMP_FAULTS") != nullptr;
    for (std::size_t nth = 1;; nth += all ? THMP_ONE_OF : 8 * THMP_ONE_OF) {
      SCOPED_TRACE(std::string(step.name) + ", allocation " + std::to_string(nth));
      FaultWorld world;
      world.start();
      const Engine query = world.search("q", "c", {{kLineageNameKey, "l"}});
      world.deliver(query);
      const Step run = step.prepare(world, query);
      world.memoryRanOut = true;
      allocationPlan.arm(nth, GetParam());
      run();
      const std::size_t failed = allocationPlan.disarm();
      world.checkInvariants();
      checkQueryGoesOn(world, query);
      world.checkWorksAgain();
      world.checkInvariants();
      faults_ += failed;
      if (failed == 0 || HasFatalFailure()) return;
    }
  }

  /// Unless it was ended, what comes next is delivered.
  static void checkQueryGoesOn(FaultWorld& world, const Engine& query) {
    if (!world.plugin->queriesByName().contains("q") || query->isCancelled()) return;
    const std::size_t before = world.fake.posted(kQueryHasUpdatesName).size();
    world.deliver(query);
    EXPECT_EQ(world.fake.posted(kQueryHasUpdatesName).size(), before + 1);
  }

  std::size_t faults_ = 0;
};

TEST_P(FailingAllocations, CostNoMoreThanWhatWasUnderWay) {
  for (const Case& step : cases()) failEachAllocation(step);
  RecordProperty("faults", static_cast<int>(faults_));
  std::printf("%zu callbacks and handlers, %zu failed allocations\n", cases().size(), faults_);
  EXPECT_GE(faults_, (GetParam() == Mode::kThatCallAlone ? 1000u : 200u) / THMP_ONE_OF);
}

INSTANTIATE_TEST_SUITE_P(Modes, FailingAllocations,
                         ::testing::Values(Mode::kThatCallAlone, Mode::kAllFromThereOn),
                         [](const auto& mode) {
                           return mode.param == Mode::kThatCallAlone ? "EachAlone"
                                                                     : "EachWithAllAfterIt";
                         });

}  // namespace
}  // namespace thmp::faults
