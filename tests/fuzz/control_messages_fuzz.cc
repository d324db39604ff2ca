// SPDX-License-Identifier: Apache-2.0
//
// Any order of searches, cancels, clears, terminates, deliveries and applications that quit,
// against a model of what the plug-in then knows: its queries with their pending batches, the names
// of each client, the idle pasteboards in their order, and every message that it posts. The model
// says in maps and lists what the registries and the pool do under locks.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "messaging/message_names.h"
#include "tests/fuzz/PluginWorld.h"
#include "tests/fuzz/fuzzing.h"

namespace thmp::fuzz {
namespace {

using Name = std::optional<std::string>;

constexpr std::size_t kMaxSteps = 64;
constexpr std::size_t kMaxIdle = 5;
constexpr std::int64_t kMails = 8;

/// A message of the plug-in, as far as the model foresees it.
struct Posted {
  std::string name;
  std::string uniqueName;
  std::string batchName;
  std::int64_t batchNumber = 0;

  friend bool operator==(const Posted&, const Posted&) = default;
};

class Model {
 public:
  struct Query {
    std::size_t engine = 0;  // its number among all the engine's queries
    Name client;
    Name lineage;
    std::vector<std::string> pending;
    std::set<std::int64_t> delivered;
    std::int64_t results = 0;
    std::int64_t removals = 0;
  };

  void search(const Name& name, const Name& client, const Name& lineage, bool engineWorks) {
    if (client && lineage) endLineage(*client, *lineage);
    if (!name || !engineWorks) return;
    Query query;
    query.engine = engines++;
    query.client = client;
    query.lineage = lineage;
    queries[*name] = std::move(query);
    if (client) names[*client].push_back(*name);
    posted.push_back({kQueryDidStartName, *name, "", 0});
  }

  void cancel(const Name& name, const Name& client) {
    if (!name) return;
    end(*name);
    if (client) forget(*client, *name);
  }

  void clear(const Name& name, const Name& client, const std::string& batch) {
    const auto query = name ? queries.find(*name) : queries.end();
    if (query == queries.end() || !client || query->second.client != client) return;
    auto& pending = query->second.pending;
    const auto entry = std::find(pending.begin(), pending.end(), batch);
    if (entry == pending.end()) return;
    pending.erase(entry);
    giveBack(batch);
  }

  void terminate(const Name& client, const std::vector<std::string>& activeNames) {
    if (!client) return;
    for (const std::string& name : activeNames) end(name);
    endClient(*client);
  }

  void applicationQuit(bool clientStillRuns) {
    if (clientStillRuns) return;
    while (!names.empty()) endClient(std::string(names.begin()->first));
  }

  void deliver(std::size_t engine, std::int64_t id) {
    const auto found = running(engine);
    if (found == queries.end() || !found->second.delivered.insert(id).second) return;
    const std::string batch = lend();
    found->second.pending.push_back(batch);
    posted.push_back({kQueryHasUpdatesName, found->first, batch, ++found->second.results});
  }

  void remove(std::size_t engine) {
    const auto found = running(engine);
    if (found == queries.end()) return;
    posted.push_back({kQueryHasRemovalsName, found->first, lend(), ++found->second.removals});
  }

  void complete(std::size_t engine) {
    const auto found = running(engine);
    if (found == queries.end()) return;
    posted.push_back({kQueryDidCompleteName, found->first, "", 0});
    cancel(std::string(found->first), Name(found->second.client));
  }

  void gatherEnded(std::size_t engine) {
    const auto found = running(engine);
    if (found != queries.end()) posted.push_back({kQueryDidCompleteName, found->first, "", 0});
  }

  std::map<std::string, Query> queries;
  std::map<std::string, std::vector<std::string>> names;
  std::deque<std::string> idle;
  std::size_t made = 0;
  std::size_t engines = 0;
  std::vector<Posted> posted;

 private:
  std::map<std::string, Query>::iterator running(std::size_t engine) {
    return std::find_if(queries.begin(), queries.end(),
                        [&](const auto& entry) { return entry.second.engine == engine; });
  }

  std::string lend() {
    if (idle.empty()) return "pb-" + std::to_string(++made);
    std::string name = idle.front();
    idle.pop_front();
    return name;
  }

  void giveBack(const std::string& pasteboard) {
    idle.push_back(pasteboard);
    if (idle.size() > kMaxIdle) idle.pop_front();
  }

  void end(const std::string& name) {
    const auto query = queries.find(name);
    if (query == queries.end()) return;
    for (const std::string& batch : query->second.pending) giveBack(batch);
    queries.erase(query);
  }

  void forget(const std::string& client, const std::string& name) {
    const auto list = names.find(client);
    if (list == names.end()) return;
    list->second.erase(std::remove(list->second.begin(), list->second.end(), name),
                       list->second.end());
    if (list->second.empty()) names.erase(list);
  }

  void endClient(const std::string& client) {
    const auto list = names.find(client);
    if (list == names.end()) return;
    for (const std::string& name : list->second) end(name);
    names.erase(list);
  }

  void endLineage(const std::string& client, const std::string& lineage) {
    const auto list = names.find(client);
    if (list == names.end()) return;
    const std::vector<std::string> before = list->second;
    for (const std::string& name : before) {
      const auto query = queries.find(name);
      if (query != queries.end() && query->second.lineage == lineage) cancel(name, client);
    }
  }
};

Posted seen(const Dictionary& message) {
  const Value& userInfo = message[kUserInfoKey];
  return {std::string(message[kNameKey].asText().value_or("")),
          std::string(userInfo[kUniqueNameKey].asText().value_or("")),
          std::string(userInfo[kBatchNameKey].asText().value_or("")),
          userInfo[kBatchNumberKey].integerValue()};
}

class Game {
 public:
  explicit Game(std::string_view bytes) : decisions_(bytes) {
    for (std::int64_t id = 1; id <= kMails; ++id) world_.addMail(id);
    world_.takePosted();
  }

  void play() {
    for (std::size_t step = 0; step < kMaxSteps && !decisions_.atEnd(); ++step) {
      takeStep();
      world_.fake.runUntilIdle();
      compare();
    }
    quit();
  }

 private:
  Name nameOf(const char* prefix, std::size_t count) {
    const std::size_t chosen = decisions_.below(count + 1);
    return chosen == count ? Name() : Name(prefix + std::to_string(chosen));
  }
  Name queryName() { return nameOf("q", 4); }
  Name clientName() { return nameOf("c", 3); }

  // Straight to the handler; the road there is another target's.
  void send(void (THMPMailPlugin::*handler)(const Value& message), const Name& name,
            const Name& client, Dictionary userInfo = {}) {
    if (name) userInfo.set(kUniqueNameKey, *name);
    if (client) userInfo.set(kClientNameKey, *client);
    (world_.plugin.get()->*handler)(Dictionary{{kUserInfoKey, userInfo}});
  }

  std::shared_ptr<ScriptedSpotlightQuery> engine(std::size_t& number) {
    const auto queries = world_.fake.spotlight.queries();
    number = decisions_.byte();
    return number < queries.size() ? queries[number] : nullptr;
  }

  void takeStep() {
    switch (decisions_.below(9)) {
      case 0:
        return search();
      case 1: {
        const Name name = queryName();
        const Name client = clientName();
        model_.cancel(name, client);
        return send(&THMPMailPlugin::cancel, name, client);
      }
      case 2:
        return clear();
      case 3:
        return terminate();
      case 4:
        return applicationQuits();
      case 5: {
        std::size_t number = 0;
        const auto query = engine(number);
        const std::int64_t id = 1 + static_cast<std::int64_t>(decisions_.below(kMails));
        if (!query) return;
        model_.deliver(number, id);
        query->deliver({mailItem(id)});
        return;
      }
      case 6: {
        std::size_t number = 0;
        const auto query = engine(number);
        if (!query) return;
        model_.remove(number);
        query->removed(Array{"gone"});
        return;
      }
      case 7: {
        std::size_t number = 0;
        const auto query = engine(number);
        if (!query) return;
        model_.complete(number);
        query->complete(decisions_.flag() ? Error{"engine", 1, "bad", nullptr} : Error());
        return;
      }
      default: {
        std::size_t number = 0;
        const auto query = engine(number);
        if (!query) return;
        model_.gatherEnded(number);
        query->gatherEnded();
        return;
      }
    }
  }

  void search() {
    const Name name = queryName();
    const Name client = clientName();
    const Name lineage = nameOf("l", 2);
    const bool engineWorks = decisions_.below(8) != 7;
    Dictionary userInfo;
    if (lineage) userInfo.set(kLineageNameKey, *lineage);
    world_.fake.spotlight.failQueries(!engineWorks);
    model_.search(name, client, lineage, engineWorks);
    send(&THMPMailPlugin::search, name, client, userInfo);
  }

  void clear() {
    const Name name = queryName();
    const Name client = clientName();
    const std::string batch = "pb-" + std::to_string(decisions_.below(20));
    model_.clear(name, client, batch);
    send(&THMPMailPlugin::clear, name, client, {{kBatchNameKey, batch}});
  }

  void terminate() {
    const Name client = clientName();
    std::vector<std::string> activeNames;
    Array listed;
    for (std::size_t left = decisions_.below(4); left > 0; --left) {
      activeNames.push_back("q" + std::to_string(decisions_.below(5)));
      listed.push_back(activeNames.back());
    }
    model_.terminate(client, activeNames);
    send(&THMPMailPlugin::terminate, Name(), client, {{kActiveNamesKey, listed}});
  }

  void applicationQuits() {
    static constexpr std::array<const char*, 3> kApplications{
        "com.quorvane.tallyhive", "com.quorvane.tallyhive-vendalo", "org.example.other"};
    const std::size_t quits = decisions_.below(kApplications.size());
    const std::size_t other = decisions_.below(4);
    for (std::size_t i = 0; i < 2; ++i) {
      world_.fake.application.setRunning(kApplications[i], i != quits && (other & (1U << i)) != 0);
    }
    const bool clientStillRuns = quits < 2 && (other & (1U << (1 - quits))) != 0;
    model_.applicationQuit(clientStillRuns);
    world_.fake.application.endApplication(kApplications[quits]);
  }

  void compare() {
    const auto queries = world_.plugin->queriesByName();
    THMP_FUZZ_CHECK(queries.size() == model_.queries.size());
    for (const auto& [name, query] : model_.queries) {
      const auto record = queries.find(name);
      THMP_FUZZ_CHECK(record != queries.end());
      std::vector<std::string> pending;
      for (const PendingBatch& batch : record->second->pendingBatches()) {
        pending.push_back(batch.batchName);
      }
      THMP_FUZZ_CHECK(pending == query.pending);
    }
    THMP_FUZZ_CHECK(sameNames());
    std::deque<std::string> idle;
    for (const auto& pasteboard : world_.plugin->pasteboardPool())
      idle.push_back(pasteboard->name());
    THMP_FUZZ_CHECK(idle == model_.idle);
    THMP_FUZZ_CHECK(world_.plugin->pasteboards().size() == model_.made);

    std::vector<Posted> posted;
    for (const Dictionary& message : world_.takePosted()) posted.push_back(seen(message));
    THMP_FUZZ_CHECK(posted == model_.posted);
    model_.posted.clear();
  }

  bool sameNames() const {
    const auto names = world_.plugin->queryNamesByClient();
    return std::equal(
        names.begin(), names.end(), model_.names.begin(), model_.names.end(),
        [](const auto& a, const auto& b) { return a.first == b.first && a.second == b.second; });
  }

  // The host quits: one message with the names that were active, every pasteboard given up.
  void quit() {
    world_.fake.application.willTerminate();
    const std::vector<Dictionary> posted = world_.takePosted();
    THMP_FUZZ_CHECK(posted.size() == 1 && posted[0][kNameKey] == Value(kPluginQuitName));
    Array active;
    for (const auto& [name, query] : model_.queries) active.push_back(name);
    THMP_FUZZ_CHECK(posted[0][kUserInfoKey][kActiveNamesKey] == Value(active));
    THMP_FUZZ_CHECK(world_.plugin->pasteboards().empty());
    for (const auto& pasteboard : world_.fake.pasteboards.made()) {
      THMP_FUZZ_CHECK(pasteboard->releaseCount() > 0);
    }
  }

  Decisions decisions_;
  PluginWorld world_;
  Model model_;
};

}  // namespace

const Bounds kBounds{1, 64 * kMiB};

void runInput(std::string_view bytes) { Game(bytes).play(); }

}  // namespace thmp::fuzz
