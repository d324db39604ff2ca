// SPDX-License-Identifier: Apache-2.0
//
// The exchange queue, the main thread and the engine's threads at the same time, as real threads:
// what must hold whatever the order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "plugin/plugin_test_support.h"

namespace thmp {
namespace {

using ::testing::IsEmpty;

constexpr int kMail = 40;
constexpr int kRounds = 60;

class Threads : public PluginScene {
 protected:
  void SetUp() override {
    start();
    for (int id = 1; id <= kMail; ++id) {
      const std::string path = "/mail/" + std::to_string(id) + ".eml";
      fake.files.writeFile(path, "");
      fake.mail.addMessage(id, 1, path);
    }
  }

  /// Runs all of `bodies` at once, each with a number of its own.
  void runTogether(const std::vector<std::function<void(unsigned seed)>>& bodies) {
    std::latch begin(static_cast<std::ptrdiff_t>(bodies.size()));
    std::vector<std::thread> threads;
    threads.reserve(bodies.size());
    unsigned seed = 0;
    for (const auto& body : bodies) {
      threads.emplace_back([&begin, &body, number = ++seed] {
        begin.arrive_and_wait();
        body(number);
      });
    }
    for (std::thread& thread : threads) thread.join();
  }

  static Value message(const char* name, const Dictionary& userInfo) {
    return Dictionary{{kNameKey, name}, {kUserInfoKey, userInfo}};
  }
  static std::string clientOf(int query) { return "client" + std::to_string(query % 3); }
  static Dictionary request(int query) {
    return {{kUniqueNameKey, "q" + std::to_string(query)}, {kClientNameKey, clientOf(query)}};
  }

  /// The exchange queue: new queries, and ends of earlier ones in every form.
  void playClients(unsigned seed) {
    std::minstd_rand random(seed);
    for (int i = 0; i < kRounds; ++i) {
      const int query = ++lastQuery_;
      plugin->search(message(kSearchName, request(query)));
      const int earlier = query - static_cast<int>(random() % 6);
      Dictionary userInfo = request(earlier);
      switch (random() % 4) {
        case 0:
          plugin->cancel(message(kCancelName, userInfo));
          break;
        case 1:
          plugin->terminate(message(kTerminateName, {{kClientNameKey, clientOf(earlier)}}));
          break;
        default:
          for (const auto& pasteboard : plugin->pasteboards()) {
            userInfo.set(kBatchNameKey, pasteboard->name());
            userInfo.set(kUniqueNameKey, pasteboard->ownerTags().uniqueName);
            userInfo.set(kClientNameKey, pasteboard->ownerTags().clientName);
            plugin->clear(message(kClearName, userInfo));
          }
      }
    }
  }

  /// An engine thread: deliveries to whatever runs, and now and then a completion, for as long as
  /// there are new queries.
  void playEngine(unsigned seed) {
    std::minstd_rand random(seed);
    while (lastQuery_ < kRounds) {
      const auto queries = fake.spotlight.queries();
      if (queries.empty()) {
        std::this_thread::yield();
        continue;
      }
      const auto& query =
          queries[queries.size() - 1 - random() % std::min<std::size_t>(queries.size(), 5)];
      query->deliver({mailItem(static_cast<std::int64_t>(1 + random() % kMail))});
      if (random() % 20 == 0) query->complete();
    }
  }

  /// The main thread: an application quits.
  void playHost() {
    for (int i = 0; i < 20; ++i) fake.application.endApplication("com.example.other");
  }

  void expectEveryPasteboardInOnePlace() {
    std::map<std::string, int> places;
    for (const auto& [name, record] : plugin->queriesByName()) {
      for (const auto& batch : record->pendingBatches()) ++places[batch.pasteboard->name()];
    }
    const auto idle = plugin->pasteboardPool();
    EXPECT_LE(idle.size(), PasteboardPool::kMaxIdle);
    for (const auto& pasteboard : idle) {
      ++places[pasteboard->name()];
      EXPECT_TRUE(pasteboard->ownerTags().clientName.isNull());
    }
    for (const auto& made : fake.pasteboards.made()) {
      const int released = made->releaseCount() > 0 ? 1 : 0;
      EXPECT_EQ(places[made->name()] + released, 1) << made->name();
    }
    EXPECT_EQ(plugin->pasteboards().size(), fake.pasteboards.made().size());
  }

  void expectRegistriesToAgree() {
    std::set<std::string> named;
    for (const auto& [client, names] : plugin->queryNamesByClient()) {
      EXPECT_FALSE(names.empty()) << client;
      for (const std::string& name : names) {
        EXPECT_TRUE(isLive(name)) << name;
        named.insert(name);
      }
    }
    EXPECT_EQ(named.size(), plugin->queriesByName().size());
  }

  /// Of the queries asked for by playClients(), all in all.
  std::atomic<int> lastQuery_ = 0;
};

TEST_F(Threads, EveryPasteboardIsInOnePlaceAndEveryQueryHasItsClient) {
  runTogether({[this](unsigned seed) { playClients(seed); },
               [this](unsigned seed) { playEngine(seed); },
               [this](unsigned seed) { playEngine(seed); }, [this](unsigned) { playHost(); }});
  expectEveryPasteboardInOnePlace();
  expectRegistriesToAgree();
  for (const auto& [name, record] : plugin->queriesByName()) plugin->cancelQuery(name, Value());
  expectEveryPasteboardInOnePlace();
}

TEST_F(Threads, QuitReleasesEveryPasteboardWhateverRuns) {
  runTogether({[this](unsigned seed) { playClients(seed); },
               [this](unsigned seed) { playEngine(seed); },
               [this](unsigned seed) { playEngine(seed); },
               [this](unsigned) {
                 while (lastQuery_ < kRounds / 3) std::this_thread::yield();
                 fake.application.willTerminate();
               }});
  EXPECT_EQ(fake.posted(kPluginQuitName).size(), 1U);
  EXPECT_THAT(plugin->pasteboards(), IsEmpty());
  EXPECT_THAT(plugin->pasteboardPool(), IsEmpty());
  for (const auto& pasteboard : fake.pasteboards.made()) {
    EXPECT_GE(pasteboard->releaseCount(), 1) << pasteboard->name();
  }
  expectRegistriesToAgree();
}

TEST_F(Threads, ClearAndCancelReturnAPasteboardOnce) {
  for (int round = 0; round < 50; ++round) {
    const auto query = search("q", "client");
    const std::string batch = deliverBatch(query);
    const Dictionary userInfo{
        {kUniqueNameKey, "q"}, {kClientNameKey, "client"}, {kBatchNameKey, batch}};
    runTogether({[&](unsigned) { plugin->clear(message(kClearName, userInfo)); },
                 [&](unsigned) { plugin->cancel(message(kCancelName, userInfo)); },
                 [&](unsigned) { fake.application.endApplication("com.example.other"); }});
    EXPECT_EQ(namesIn(plugin->pasteboardPool()), std::vector<std::string>{batch});
  }
}

TEST_F(Threads, NoMessageOfAQueryAppearsOnceItsCancelHasReturned) {
  for (int round = 0; round < 30; ++round) {
    search("q", "client");
    std::size_t publishedAtCancel = 0;
    std::atomic<bool> done = false;
    const auto published = [this] { return fake.files.paths(FileOperation::kPublish).size(); };
    runTogether({[&](unsigned) {
                   while (!done) plugin->postMessageName(" m", Dictionary{{kUniqueNameKey, "q"}});
                   plugin->postMessageName(" m", Dictionary{{kUniqueNameKey, "q"}});
                 },
                 [&](unsigned) {
                   plugin->cancelQuery("q", "client");
                   publishedAtCancel = published();
                   done = true;
                 }});
    EXPECT_EQ(published(), publishedAtCancel);
    fake.files.clearRecord();
  }
}

TEST_F(Threads, OneAlertHoweverManyConnectsAskAtOnce) {
  const Value asking = message(kConnectName, {{kCheckVersionKey, true}});
  const auto connect = [&](unsigned) { plugin->connect(asking); };
  runTogether({connect, connect, connect, connect});
  fake.runUntilIdle();
  EXPECT_EQ(fake.application.alerts().size(), 1U);
  EXPECT_EQ(fake.posted(kPluginReadyName).size(), 5U);
}

TEST_F(Threads, InstanceThatIsReplacedMayStillBeInUse) {
  plugin.reset();
  const Value asking = message(kConnectName, {{kClientNameKey, "client"}});
  std::atomic<bool> done = false;
  runTogether({[&](unsigned) {
                 while (!done) process.instance()->connect(asking);
               },
               [&](unsigned) {
                 for (int i = 0; i < 10; ++i) THMPMailPlugin::createInstance(process);
                 done = true;
               }});
  EXPECT_EQ(fake.application.applicationTerminatedObservers(), 1U);
}

}  // namespace
}  // namespace thmp
