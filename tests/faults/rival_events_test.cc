// SPDX-License-Identifier: Apache-2.0
//
// What else may happen to a search while it runs, with the whole plug-in: each rival event at each
// call that a query's life makes of the boundary; any two of them at any two calls, of the life or
// of the first of them; then threads of clients, engine and host that take turns at those calls as
// a seed says.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <sstream>

#include "tests/faults/FaultWorld.h"
#include "tests/faults/Scheduler.h"
#include "tests/faults/Witness.h"

namespace thmp::faults {
namespace {

using Engine = FaultWorld::Engine;

/// Calls made under the plug-in's own locks, where no other thread could go on.
bool isLocked(std::string_view call) {
  return call == "publish" || call == "makeUnique" || call == "get" || call == "set";
}

Dictionary request(const std::string& query, const std::string& client = "c") {
  return {{kUniqueNameKey, query}, {kClientNameKey, client}, {kLineageNameKey, "l"}};
}

/// What was left to the registries of the names searched for twice stays out.
void noteReplaced(FaultWorld& world, const Witness& witness) {
  for (const auto& pasteboard : world.fake.pasteboards.made()) {
    const Value content = pasteboard->content(kResultsBatchType);
    const auto query = content[kUniqueNameKey].asText();
    if (query && witness.wasReplaced(std::string(*query))) {
      world.mayStayOut.push_back(pasteboard->name());
    }
  }
}

/// The world when nothing is under way: all in order, and after the quit nothing left.
void checkEnd(FaultWorld& world, const Witness& witness) {
  noteReplaced(world, witness);
  world.checkInvariants();
  world.application.willTerminate();
  world.run();
  for (const auto& pasteboard : world.fake.pasteboards.made()) {
    EXPECT_GT(pasteboard->releaseCount(), 0) << pasteboard->name();
  }
}

/// Who brings an event about: of each one, one at a time.
enum class Lane : std::uint8_t { kClients, kHost, kEngine };

struct Rival {
  const char* name;
  Lane lane;
  /// True when it ends the query "q".
  bool ends;
  std::function<void(FaultWorld& world, Witness& witness, const Engine& query)> happen;
};

const std::vector<Rival>& rivals() {
  static const std::vector<Rival>& all = *new std::vector<Rival>{
      {"Cancel", Lane::kClients, true,
       [](FaultWorld& world, Witness&, const Engine&) { world.hand(kCancelName, request("q")); }},
      {"Terminate", Lane::kClients, true,
       [](FaultWorld& world, Witness&, const Engine&) {
         world.hand(kTerminateName,
                    {{kClientNameKey, "c"}, {kActiveNamesKey, Array{"q", "unknown"}}});
       }},
      {"SameName", Lane::kClients, false,
       [](FaultWorld& world, Witness&, const Engine&) { world.hand(kSearchName, request("q")); }},
      {"SameLineage", Lane::kClients, true,
       [](FaultWorld& world, Witness&, const Engine&) { world.hand(kSearchName, request("q2")); }},
      {"ApplicationQuits", Lane::kHost, true,
       [](FaultWorld& world, Witness&, const Engine&) {
         world.application.endApplication("com.quorvane.tallyhive");
       }},
      {"HostQuits", Lane::kHost, false,
       [](FaultWorld& world, Witness& witness, const Engine&) {
         witness.hostQuits();
         world.application.willTerminate();
       }},
      {"ClearOfThisBatch", Lane::kClients, false,
       [](FaultWorld& world, Witness& witness, const Engine&) {
         const auto made = world.fake.pasteboards.made();
         if (made.empty()) return;
         witness.cleared(made.back()->name());
         Dictionary userInfo = request("q");
         userInfo.set(kBatchNameKey, made.back()->name());
         world.hand(kClearName, userInfo);
         world.hand(kClearName, userInfo);
       }},
      {"EngineError", Lane::kEngine, true,
       [](FaultWorld&, Witness&, const Engine& query) {
         const auto handler = query->completionHandler();
         if (handler) (*handler)(Error{"CSSearchQueryErrorDomain", -2001, "x", nullptr});
       }},
      {"SecondCompletion", Lane::kEngine, true,
       [](FaultWorld&, Witness&, const Engine& query) {
         const auto handler = query->completionHandler();
         if (!handler) return;
         (*handler)(Error());
         (*handler)(Error());
       }},
  };
  return all;
}

/// A query's whole life: batches, removals, the end of gathering, the completion.
void live(FaultWorld& world, const Engine& query) {
  world.deliver(query, 2);
  query->removed(Array{"x", 1, "y"});
  world.deliver(query);
  query->gatherEnded();
  world.deliver(query);
  query->complete();
}

/// Rivals in the order of the calls at which they happen, counted from 0; those that a rival makes
/// count.
struct Preemption {
  const Rival* rival;
  int at;
};

struct Played {
  int calls = 0;
  std::size_t happened = 0;
};

/// A life with what happens meanwhile. A rival that would meet another of its own lane half done
/// does not happen.
class Preempted {
 public:
  Played play(const std::vector<Preemption>& preemptions) {
    preemptions_ = preemptions;
    world_.start();
    query_ = world_.search("q", "c", {{kLineageNameKey, "l"}});
    first_ = witness_.known();
    world_.plan.atEachCall([this](std::string_view call) {
      if (!isLocked(call)) atCall(played_.calls++);
    });
    live(world_, query_);
    world_.plan.atEachCall(nullptr);
    checkEnd(world_, witness_);
    return played_;
  }

 private:
  void atCall(int call) {
    while (next_ < preemptions_.size() && preemptions_[next_].at == call) {
      const Rival& rival = *preemptions_[next_++].rival;
      const bool isBusy = std::find(busy_.begin(), busy_.end(), rival.lane) != busy_.end();
      if (!isBusy) happen(rival);
    }
  }

  void happen(const Rival& rival) {
    busy_.push_back(rival.lane);
    const Witness::Known before = witness_.known();
    rival.happen(world_, witness_, query_);
    // The engine ends its own query, and none that has taken the name since.
    if (rival.ends) witness_.ended(rival.lane == Lane::kEngine ? first_ : before, "q");
    busy_.pop_back();
    ++played_.happened;
  }

  FaultWorld world_;
  Witness witness_{world_};
  Engine query_;
  Witness::Known first_;
  std::vector<Preemption> preemptions_;
  std::size_t next_ = 0;
  std::vector<Lane> busy_;
  Played played_;
};

Played play(const std::vector<Preemption>& preemptions) { return Preempted().play(preemptions); }

TEST(RivalEvents, AtEachCallLeaveNoLateMessageNoGapAndNoOrphan) {
  int cells = 0;
  for (const Rival& rival : rivals()) {
    int at = 0;
    for (;; at += THMP_ONE_OF) {
      SCOPED_TRACE(std::string(rival.name) + " at call " + std::to_string(at));
      if (play({{&rival, at}}).happened == 0) break;
    }
    EXPECT_GT(at, 40) << rival.name;
    cells += at / THMP_ONE_OF;
  }
  RecordProperty("cells", cells);
  std::printf("%zu rival events, %d cells\n", rivals().size(), cells);
}

struct Pair {
  Preemption a;
  Preemption b;

  std::string text() const {
    return std::string(a.rival->name) + "," + std::to_string(a.at) + "," + b.rival->name + "," +
           std::to_string(b.at);
  }
};

/// As text() has it.
std::optional<Pair> pairFrom(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream stream(text);
  for (std::string word; std::getline(stream, word, ',');) words.push_back(word);
  if (words.size() != 4) return std::nullopt;
  const auto preemption = [](const std::string& name, const std::string& at) {
    const auto rival = std::find_if(rivals().begin(), rivals().end(),
                                    [&](const Rival& each) { return name == each.name; });
    return Preemption{rival == rivals().end() ? nullptr : &*rival, std::atoi(at.c_str())};
  };
  const Pair pair{preemption(words[0], words[1]), preemption(words[2], words[3])};
  return pair.a.rival && pair.b.rival ? std::optional(pair) : std::nullopt;
}

/// Plays `visit` for each pair of rivals at each pair of calls, as long as it says so.
void forEachPair(const std::function<bool(const Pair& pair)>& visit) {
  for (const Rival& a : rivals()) {
    for (int i = 0;; ++i) {
      const Played alone = play({{&a, i}});
      if (alone.happened == 0) break;
      for (const Rival& b : rivals()) {
        for (int j = i; j < alone.calls; ++j) {
          if (!visit({{&a, i}, {&b, j}})) return;
        }
      }
    }
  }
}

// THMP_PAIRS=all for all of them; THMP_PAIR=A,I,B,J for one.
TEST(RivalEvents, TwoAtAnyTwoCallsLeaveNoLateMessageNoGapAndNoOrphan) {
  if (const char* const text = std::getenv("THMP_PAIR")) {
    const std::optional<Pair> one = pairFrom(text);
    ASSERT_TRUE(one) << text;
    EXPECT_EQ(play({one->a, one->b}).happened, 2U);
    return;
  }
  const std::size_t stride = std::getenv("THMP_PAIRS") == nullptr ? 61U * THMP_ONE_OF : 1U;
  std::size_t pairs = 0;
  std::size_t played = 0;
  std::size_t happened = 0;
  forEachPair([&](const Pair& pair) {
    if (pairs++ % stride != 0) return true;
    SCOPED_TRACE("THMP_PAIR=" + pair.text());
    ++played;
    if (play({pair.a, pair.b}).happened == 2) ++happened;
    return !HasFailure();
  });
  EXPECT_GT(happened, played / 2);
  RecordProperty("pairs", static_cast<int>(happened));
  std::printf("%zu pairs, %zu played, %zu with both events\n", pairs, played, happened);
}

/// Two engine threads, the exchange queue, the main thread.
class Crowd {
 public:
  explicit Crowd(std::uint64_t seed) : scheduler_(seed) {
    world_.start();
    for (const char* name : {"q0", "q1"}) world_.search(name, "c0", {{kLineageNameKey, "l"}});
    world_.plan.atEachCall([this](std::string_view call) {
      if (!isLocked(call)) scheduler_.point();
    });
  }

  void play() {
    for (std::size_t thread = 0; thread < kEngineThreads; ++thread) {
      scheduler_.add([this, thread] { playEngine(thread); });
    }
    scheduler_.add([this] { playClients(); });
    scheduler_.add([this] { playHost(); });
    scheduler_.run();
    world_.plan.atEachCall(nullptr);
    checkEnd(world_, witness_);
  }

  std::size_t messages() const { return witness_.messages(); }

 private:
  static constexpr std::size_t kEngineThreads = 2;

  std::string anyQuery() { return "q" + std::to_string(scheduler_.below(4)); }
  static std::string clientOf(const std::string& query) { return query < "q2" ? "c0" : "c1"; }

  // Each thread has the queries of its own number, so that none has two callbacks at a time.
  void playEngine(std::size_t thread) {
    for (int step = 0; step < 4; ++step) {
      scheduler_.point();
      const auto queries = world_.spotlight.queries();
      std::vector<Engine> own;
      for (std::size_t i = thread; i < queries.size(); i += kEngineThreads) {
        own.push_back(queries[i]);
      }
      if (own.empty()) continue;
      const Engine query = own[scheduler_.below(own.size())];
      switch (scheduler_.below(6)) {
        case 0:
          query->removed(Array{"x"});
          break;
        case 1:
          query->gatherEnded();
          break;
        case 2:
          query->complete();
          break;
        default:
          world_.deliver(query, static_cast<std::int64_t>(1 + scheduler_.below(2)));
      }
    }
  }

  void playClients() {
    for (int step = 0; step < 5; ++step) {
      scheduler_.point();
      const std::string query = anyQuery();
      const Witness::Known before = witness_.known();
      switch (scheduler_.below(6)) {
        case 0:
        case 1:
          world_.hand(kSearchName, request(query, clientOf(query)));
          break;
        case 2:
          world_.hand(kCancelName, request(query, clientOf(query)));
          witness_.ended(before, query);
          break;
        case 3:
          world_.hand(kTerminateName,
                      {{kClientNameKey, clientOf(query)}, {kActiveNamesKey, Array{query}}});
          witness_.ended(before, query);
          break;
        default:
          clearPending(query);
      }
    }
  }

  void clearPending(const std::string& query) {
    for (const Dictionary& update : world_.fake.posted(kQueryHasUpdatesName)) {
      if (update[kUniqueNameKey] != Value(query)) continue;
      witness_.cleared(std::string(update[kBatchNameKey].asText().value_or("")));
      Dictionary userInfo = request(query, clientOf(query));
      userInfo.set(kBatchNameKey, update[kBatchNameKey]);
      world_.hand(kClearName, userInfo);
    }
  }

  void playHost() {
    for (int step = 0; step < 2; ++step) {
      for (std::size_t wait = scheduler_.below(40); wait > 0; --wait) scheduler_.point();
      switch (scheduler_.below(3)) {
        case 0: {
          const Witness::Known before = witness_.known();
          world_.application.endApplication("com.quorvane.tallyhive");
          witness_.ended(before);
          break;
        }
        case 1:
          world_.application.didBecomeActive();
          break;
        default:
          if (step == 0) break;
          witness_.hostQuits();
          world_.application.willTerminate();
      }
    }
  }

  Scheduler scheduler_;
  FaultWorld world_;
  Witness witness_{world_};
};

std::uint64_t numberOf(const char* variable, std::uint64_t otherwise) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

// THMP_SCHEDULES=100000 for many; THMP_SEED=N for the one of that seed, or many from there on.
TEST(RivalEvents, InAnyOrderLeaveNoLateMessageNoGapAndNoOrphan) {
  const bool one = std::getenv("THMP_SEED") != nullptr;
  const std::uint64_t first = numberOf("THMP_SEED", 1);
  const std::uint64_t count = numberOf("THMP_SCHEDULES", one ? 1 : 500 / THMP_ONE_OF);
  std::size_t messages = 0;
  for (std::uint64_t seed = first; seed < first + count; ++seed) {
    SCOPED_TRACE("THMP_SEED=" + std::to_string(seed));
    Crowd crowd(seed);
    crowd.play();
    messages += crowd.messages();
    if (HasFailure()) break;
  }
  RecordProperty("schedules", static_cast<int>(count));
  std::printf("%llu schedules, %zu messages\n", static_cast<unsigned long long>(count), messages);
  EXPECT_GT(messages, count);
}

}  // namespace
}  // namespace thmp::faults
