// SPDX-License-Identifier: Apache-2.0
//
// A plug-in on the fake platform, for tests: started as a host starts it, and spoken to as clients
// speak to it.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "messaging/message_names.h"
#include "platform/fake/FakePlatform.h"
#include "plugin/ProcessState.h"
#include "plugin/THMPMailPlugin.h"

namespace thmp {

class PluginScene : public ::testing::Test {
 protected:
  /// load, initialize and the pass of the main queue that makes the instance.
  void start() {
    THMPMailPlugin::load(process);
    THMPMailPlugin::initialize(process);
    fake.runUntilIdle();
    plugin = process.instance();
  }

  /// A running query keeps its plug-in alive.
  void TearDown() override {
    if (const auto last = process.instance()) {
      for (const auto& [name, record] : last->queriesByName()) last->cancelQuery(name, Value());
    }
  }

  /// A message from a client, handled.
  void send(const char* name, const Dictionary& userInfo) {
    fake.clientSends(name, userInfo);
    fake.runUntilIdle();
  }

  /// A live query; without a client when `client` is empty.
  std::shared_ptr<ScriptedSpotlightQuery> search(const std::string& name,
                                                 const std::string& client) {
    Dictionary userInfo{{kUniqueNameKey, name}};
    if (!client.empty()) userInfo.set(kClientNameKey, client);
    send(kSearchName, userInfo);
    return fake.spotlight.query();
  }

  /// Lets the engine deliver one message, so that one batch is pending; its name.
  std::string deliverBatch(const std::shared_ptr<ScriptedSpotlightQuery>& query) {
    const std::int64_t id = ++lastLibraryID_;
    const std::string path = "/mail/" + std::to_string(id) + ".eml";
    fake.files.writeFile(path, "");
    fake.mail.addMessage(id, 1, path);
    query->deliver({mailItem(id)});
    const auto updates = fake.posted(kQueryHasUpdatesName);
    return updates.empty() ? std::string()
                           : std::string(updates.back()[kBatchNameKey].asText().value_or(""));
  }

  void clear(const std::string& query, const std::string& client, const std::string& batch) {
    send(kClearName, {{kUniqueNameKey, query}, {kClientNameKey, client}, {kBatchNameKey, batch}});
  }

  std::vector<std::string> namesOf(const std::string& client) const {
    const auto names = plugin->queryNamesByClient();
    const auto found = names.find(client);
    return found == names.end() ? std::vector<std::string>() : found->second;
  }

  bool isLive(const std::string& query) const { return plugin->queriesByName().contains(query); }

  std::size_t pendingCount(const std::string& query) const {
    return plugin->queriesByName().at(query)->pendingBatches().size();
  }

  /// The names of a list of pasteboards, in order.
  static std::vector<std::string> namesIn(const PasteboardPool::List& list) {
    std::vector<std::string> names;
    for (const auto& pasteboard : list) names.push_back(pasteboard->name());
    return names;
  }

  /// The system log since the last call.
  std::vector<std::string> takeLog() {
    auto lines = fake.log.lines();
    fake.log.clear();
    return lines;
  }

  /// A line of the plug-in as it stands in the system log.
  static std::string line(const std::string& query, const std::string& text) {
    return "TallyhiveMailPlugin - " + query + " - " + text;
  }

  FakePlatform fake;
  Platform platform = fake.platform();
  ProcessState process{platform};
  std::shared_ptr<THMPMailPlugin> plugin;

 private:
  std::int64_t lastLibraryID_ = 1000;
};

}  // namespace thmp
