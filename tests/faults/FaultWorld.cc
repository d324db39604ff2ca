// SPDX-License-Identifier: Apache-2.0
#include "tests/faults/FaultWorld.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

namespace thmp::faults {
namespace {

std::string textAt(const Value& dictionary, std::string_view key, const char* otherwise) {
  return std::string(dictionary[key].asText().value_or(otherwise));
}

bool concernsQuery(std::string_view name) {
  return name == kSearchName || name == kCancelName || name == kClearName;
}

}  // namespace

void FaultWorld::start() {
  bundle = std::make_unique<Platform>(platform());
  process = std::make_unique<ProcessState>(*bundle);
  THMPMailPlugin::load(*process);
  THMPMailPlugin::initialize(*process);
  run();
  plugin = process->instance();
}

// A running query keeps its plug-in alive.
void FaultWorld::endProcess() {
  run();
  if (plugin) {
    for (const auto& [name, record] : plugin->queriesByName()) plugin->cancelQuery(name, Value());
  }
  plugin = nullptr;
  process = nullptr;
}

void FaultWorld::restart() {
  endProcess();
  for (Request& request : requests_) request.beforeStart = true;
  start();
}

void FaultWorld::note(const std::string& file, const char* name, const Dictionary& userInfo) {
  const std::string query =
      concernsQuery(name) ? textAt(userInfo, kUniqueNameKey, "none") : std::string(kNoQuery);
  requests_.push_back({file,
                       "TallyhiveMailPlugin - " + query + " - THMPMailPlugin received " + name +
                           " / " + textAt(userInfo, kClientNameKey, "(null)"),
                       plugin == nullptr});
}

void FaultWorld::send(const char* name, const Dictionary& userInfo) {
  note(fake.clientSends(name, userInfo), name, userInfo);
}

void FaultWorld::hand(const char* name, const Dictionary& userInfo) {
  note({}, name, userInfo);
  plugin->communicationCenter()->dispatchMessage(
      Dictionary{{kNameKey, name}, {kUserInfoKey, userInfo}});
}

void FaultWorld::tell(const char* name, const Dictionary& userInfo) {
  send(name, userInfo);
  run();
}

FaultWorld::Engine FaultWorld::search(const std::string& name, const std::string& client,
                                      const Dictionary& more) {
  const std::size_t before = spotlight.queries().size();
  Dictionary userInfo = more;
  userInfo.set(kUniqueNameKey, name);
  if (!client.empty()) userInfo.set(kClientNameKey, client);
  tell(kSearchName, userInfo);
  return spotlight.queries().size() > before ? spotlight.query() : nullptr;
}

void FaultWorld::deliver(const Engine& query, std::int64_t count) {
  std::vector<SpotlightItem> items;
  for (; count > 0; --count) {
    const std::int64_t id = ++lastMail_;
    const std::string path = "/mail/" + std::to_string(id) + ".eml";
    fake.files.writeFile(path, "");
    fake.mail.addMessage(id, 1, path);
    // What the library does not find by itself, the message tells.
    fake.mail.library().setMessage(id, path);
    items.push_back(mailItem(id));
  }
  if (query) query->deliver(items);
}

std::vector<std::string> FaultWorld::pending(const std::string& query) const {
  std::vector<std::string> names;
  const auto queries = plugin->queriesByName();
  const auto found = queries.find(query);
  if (found == queries.end()) return names;
  for (const PendingBatch& batch : found->second->pendingBatches())
    names.push_back(batch.batchName);
  return names;
}

std::size_t FaultWorld::postFailures() const {
  return fake.log.count("THMPMailPlugin error. Failed to write message to file. Error: ");
}

std::size_t FaultWorld::droppedSteps() const {
  return fake.log.count("tallyhive: a message handler ended in an exception") +
         fake.log.count("tallyhive: a step of a query failed");
}

std::size_t FaultWorld::received(const std::string& line) const {
  const auto lines = fake.log.lines();
  return static_cast<std::size_t>(std::count_if(
      lines.begin(), lines.end(),
      [&](const std::string& other) { return other == line || other.starts_with(line + " - "); }));
}

void FaultWorld::checkInvariants() {
  checkExchange();
  checkRequests();
  checkLogs();
  EXPECT_EQ(fake.mail.database().openStatements(), 0);
  EXPECT_EQ(fake.execution.mainQueue().thrownCount(), 0u);
  for (const auto& queue : fake.execution.queues()) EXPECT_EQ(queue->thrownCount(), 0u);
  checkPasteboards();
  if (plugin) checkBatches();
  checkPosted();
}

void FaultWorld::checkExchange() {
  EXPECT_EQ(fake.files.temporaryCount(), 0u);
  for (const Dictionary& message : fake.messagesIn(fake.outbox())) {
    EXPECT_TRUE(message[kNameKey].asText().has_value());
    if (message[kNameKey] == Value("leftover")) continue;
    EXPECT_EQ(message[kUserInfoKey][kCompatibilityVersionKey], Value(kCompatibilityVersion));
  }
}

// A request that is gone has been handled, once, unless it came before the start. One that stays
// was handled and could not be removed, or could not be read, or not even been seen.
void FaultWorld::checkRequests() {
  struct Fate {
    std::size_t sent = 0;
    std::size_t stayed = 0;
    std::size_t early = 0;
    std::size_t mayRepeat = 0;
  };
  std::map<std::string, Fate> fates;
  for (const Request& request : requests_) {
    Fate& fate = fates[request.received];
    const std::string path = fake.inbox() + "/" + request.file;
    ++fate.sent;
    if (!request.file.empty() && fake.files.hasEntry(path)) ++fate.stayed;
    if (request.beforeStart) ++fate.early;
    // A listing that fails forgets what stays.
    if (plan.hit("removeEntry", path) && plan.hit("list", fake.inbox())) ++fate.mayRepeat;
  }
  const bool unread = fake.log.count("THMPMailPlugin. Failed to read message file: ") > 0 ||
                      plan.hit("list", fake.inbox()) || mayBeDeaf() ||
                      application.didBecomeActiveObservers() > 0;
  for (const auto& [line, fate] : fates) {
    const std::size_t handled = received(line);
    EXPECT_LE(handled, fate.sent + fate.mayRepeat) << line;
    EXPECT_GE(handled + fate.stayed + fate.early, fate.sent) << line;
    EXPECT_TRUE(unread || handled + fate.early >= fate.sent) << line;
  }
}

void FaultWorld::checkLogs() {
  EXPECT_TRUE(droppedSteps() == 0 || memoryRanOut);
  EXPECT_GE(postFailures(), fake.log.count("Failed to post message to Mail client. Error: "));
  const Value stored = preferences.get(PluginLog::kStoredLogKey);
  for (const Value& entry : stored.asArray().value_or(Array())) {
    const Array elements = entry.asArray().value_or(Array());
    ASSERT_EQ(elements.size(), 3u);
    EXPECT_TRUE(elements[0].asDate() && elements[1].asText() && elements[2].asText());
  }
}

void FaultWorld::checkPasteboards() {
  std::multiset<std::string> idle;
  std::multiset<std::string> pendingNames;
  const bool over = !process || process->stage() == PluginStage::kQuitting;
  if (plugin) {
    for (const auto& pasteboard : plugin->pasteboardPool()) {
      idle.insert(pasteboard->name());
      EXPECT_TRUE(pasteboard->ownerTags().uniqueName.isNull()) << pasteboard->name();
    }
    for (const auto& [name, record] : plugin->queriesByName()) {
      // After the quit the entries stay, and their pasteboards are released.
      if (over) break;
      for (const PendingBatch& batch : record->pendingBatches()) {
        pendingNames.insert(batch.batchName);
      }
    }
  }
  for (const auto& pasteboard : fake.pasteboards.made()) {
    const std::string& name = pasteboard->name();
    const std::size_t places = idle.count(name) + pendingNames.count(name);
    const bool released = pasteboard->releaseCount() > 0;
    EXPECT_LE(places, 1u) << name;
    EXPECT_TRUE(places == 0 || !released) << name;
    // Those of removals are nobody's until the host quits.
    const bool out = pasteboard->type() == kRemovalBatchType ||
                     std::find(mayStayOut.begin(), mayStayOut.end(), name) != mayStayOut.end();
    EXPECT_TRUE(places == 1 || released || out || memoryRanOut) << name;
    EXPECT_TRUE(released || !over) << name;
    EXPECT_TRUE(pasteboard->type().empty() || !(released || idle.contains(name))) << name;
  }
}

void FaultWorld::checkBatches() {
  std::set<std::string> posted;
  for (const Dictionary& update : fake.posted(kQueryHasUpdatesName)) {
    posted.insert(textAt(update, kBatchNameKey, ""));
  }
  const bool quit = process->stage() == PluginStage::kQuitting;
  std::set<std::string> named;
  for (const auto& [client, names] : plugin->queryNamesByClient()) {
    named.insert(names.begin(), names.end());
  }
  for (const auto& [query, record] : plugin->queriesByName()) {
    EXPECT_TRUE(record->searchQuery() && !record->searchQuery()->isCancelled()) << query;
    EXPECT_EQ(named.contains(query), record->clientName().asText().has_value()) << query;
    std::uint64_t last = 0;
    for (const PendingBatch& batch : record->pendingBatches()) {
      EXPECT_GT(batch.batchNumber, last) << query;
      last = batch.batchNumber;
      if (quit) continue;
      const Value content = fake.pasteboards.content(batch.batchName, kResultsBatchType);
      EXPECT_EQ(content[kUniqueNameKey], Value(query));
      EXPECT_EQ(content[kBatchNumberKey], Value(batch.batchNumber));
      EXPECT_TRUE(content[kMessagesKey].asArray().has_value());
      EXPECT_TRUE(posted.contains(batch.batchName) || postFailures() + droppedSteps() > 0)
          << batch.batchName;
    }
  }
}

// A number is only missing where a message could not be written, which the log says, or where a
// start could not take away all of what an earlier run had posted.
void FaultWorld::checkPosted() {
  for (const char* kind : {kQueryHasUpdatesName, kQueryHasRemovalsName}) {
    std::map<std::string, std::int64_t> last;
    std::int64_t missing = 0;
    for (const Dictionary& update : fake.posted(kind)) {
      std::int64_t& before = last[textAt(update, kUniqueNameKey, "")];
      const std::int64_t number = update[kBatchNumberKey].integerValue();
      if (number == 1) before = 0;
      EXPECT_GT(number, before);
      missing += number - before - 1;
      before = number;
    }
    EXPECT_TRUE(missing <= static_cast<std::int64_t>(postFailures() + droppedSteps()) ||
                plan.hit("removeEntry"))
        << missing << " of " << kind;
  }
}

bool FaultWorld::answers(const std::string& client) {
  tell(kConnectName, {{kClientNameKey, client}});
  for (const Dictionary& ready : fake.posted(kPluginReadyName)) {
    if (ready[kClientNameKey] == Value(client)) return true;
  }
  return false;
}

// What a start may leave behind that only another start mends: a watch that was refused, a folder
// that was not there, a home that the user database did not tell, a user who was asked in vain.
bool FaultWorld::mayBeDeaf() {
  return plan.hit("makeDirectoryWatch") || plan.hit("currentUser") ||
         fake.log.count("THMPMailPlugin error. Communication directory") > 0;
}

void FaultWorld::checkWorksAgain() {
  plan.disarm();
  const std::string name = "again-" + std::to_string(++recoveries_);
  if (!plugin || process->stage() == PluginStage::kQuitting) restart();
  ASSERT_TRUE(plugin);
  if (!answers(name + "-at-once")) {
    // Only a start leaves a plug-in that waits for its folder.
    EXPECT_GT(application.didBecomeActiveObservers() + (mayBeDeaf() ? 1 : 0), 0u);
    fake.files.setWritable(fake.dataFolder(), true);
    fake.files.setWritable(fake.inbox(), true);
    application.didBecomeActive();
    if (!answers(name + "-active")) {
      EXPECT_TRUE(mayBeDeaf());
      restart();
      EXPECT_TRUE(answers(name + "-restarted"));
    }
  }

  const std::string client = name + "-client";
  const Engine query = search(name, client);
  ASSERT_TRUE(query);
  ASSERT_TRUE(plugin->queriesByName().contains(name));
  deliver(query);
  const std::vector<std::string> batches = pending(name);
  ASSERT_EQ(batches.size(), 1u);
  EXPECT_EQ(fake.posted(kQueryHasUpdatesName).back()[kBatchNameKey], Value(batches[0]));
  EXPECT_EQ(fake.pasteboards.content(batches[0], kResultsBatchType)[kMessagesKey].asArray()->size(),
            1u);
  tell(kClearName, {{kUniqueNameKey, name}, {kClientNameKey, client}, {kBatchNameKey, batches[0]}});
  EXPECT_EQ(pending(name).size(), 0u);
  tell(kCancelName, {{kUniqueNameKey, name}, {kClientNameKey, client}});
  EXPECT_FALSE(plugin->queriesByName().contains(name));
}

}  // namespace thmp::faults
