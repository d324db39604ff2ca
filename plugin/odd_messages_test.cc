// SPDX-License-Identifier: Apache-2.0
//
// Every key of every message with a value of each kind: what is not of the key's kind has the same
// outcome as a message without the key.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "plugin/plugin_test_support.h"

namespace thmp {
namespace {

using Kinds = std::vector<Value::Kind>;
using enum Value::Kind;

/// A key of a message and the kinds that it may hold.
struct Key {
  const char* message;
  const char* key;
  Kinds sound;
};

const Kinds kBooleans{kBoolean, kInteger, kReal};
/// Only logged, or compared with a number.
const Kinds kAnything{};

const std::vector<Key> kKeys{
    {kConnectName, kClientNameKey, kAnything},
    {kConnectName, kUniqueNameKey, {kText}},
    {kConnectName, kVersionKey, kAnything},
    {kConnectName, kCompatibilityVersionKey, {kBoolean, kInteger}},
    {kConnectName, kCheckVersionKey, kBooleans},
    {kConnectName, kUserInfoKey, {kDictionary}},
    {kConnectName, kNameKey, {kText}},
    {kSearchName, kClientNameKey, {kText}},
    {kSearchName, kUniqueNameKey, {kText}},
    {kSearchName, kVersionKey, kAnything},
    {kSearchName, "lineageName", {kText}},
    {kSearchName, "queryString", {kText}},
    {kSearchName, "sortingAttribute", {kText}},
    {kSearchName, "sortAscending", kBooleans},
    {kSearchName, kUserInfoKey, {kDictionary}},
    {kSearchName, kNameKey, {kText}},
    {kCancelName, kClientNameKey, {kText}},
    {kCancelName, kUniqueNameKey, {kText}},
    {kCancelName, kUserInfoKey, {kDictionary}},
    {kCancelName, kNameKey, {kText}},
    {kTerminateName, kClientNameKey, {kText}},
    {kTerminateName, kActiveNamesKey, {kArray}},
    {kTerminateName, kUserInfoKey, {kDictionary}},
    {kTerminateName, kNameKey, {kText}},
    {kClearName, kClientNameKey, {kText}},
    {kClearName, kUniqueNameKey, {kText}},
    {kClearName, kBatchNameKey, {kText}},
    {kClearName, kUserInfoKey, {kDictionary}},
    {kClearName, kNameKey, {kText}},
};

const std::vector<std::pair<const char*, Value>> kValues{
    {"an empty text", ""}, {"a text", "odd"},           {"an integer", 1},
    {"a real", 1.5},       {"a boolean", true},         {"a date", Date{1.0}},
    {"data", Data{"q"}},   {"an array", Array{"q", 7}}, {"a dictionary", Dictionary{{"q", "q"}}},
};

/// What there is to see once a message has been handled.
struct Outcome {
  std::vector<std::string> posted;
  std::vector<std::string> queries;
  std::vector<std::string> clients;
  std::vector<std::string> engineTexts;
  std::string newRecord;
  std::size_t pending = 0;
  std::size_t idle = 0;
  std::size_t alerts = 0;
  std::size_t filesInIn = 0;

  bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* out) {
  const auto join = [&](const char* what, const std::vector<std::string>& texts) {
    *out << what << ":";
    for (const std::string& text : texts) *out << ' ' << text;
    *out << "; ";
  };
  join("posted", outcome.posted);
  join("queries", outcome.queries);
  join("clients", outcome.clients);
  join("engine", outcome.engineTexts);
  *out << outcome.newRecord << "; pending " << outcome.pending << ", idle " << outcome.idle
       << ", alerts " << outcome.alerts << ", files " << outcome.filesInIn;
}

class OddMessages : public PluginScene {
 protected:
  void SetUp() override { start(); }

  /// What comes of the message in a scene that is the same each time: "client" has a query "q" of
  /// lineage "l" with one pending batch, and "other" has one too.
  Outcome outcomeOf(const char* name, const char* key, const Value& value) {
    send(kSearchName, {{kUniqueNameKey, "q"}, {kClientNameKey, "client"}, {"lineageName", "l"}});
    const std::string batch = deliverBatch(fake.spotlight.query());
    search("elsewhere", "other");
    process.versionChecked = false;
    const std::size_t postedBefore = fake.messagesIn(fake.outbox()).size();
    const std::size_t alertsBefore = fake.application.alerts().size();
    const std::size_t queriesBefore = fake.spotlight.queries().size();
    const std::size_t idleBefore = plugin->pasteboardPool().size();

    const Dictionary userInfo = soundPayload(name, batch);
    Dictionary message{{kNameKey, name}, {kUserInfoKey, userInfo}};
    if (std::string_view(key) == kNameKey || std::string_view(key) == kUserInfoKey) {
      message.set(key, value);
    } else {
      Dictionary changed = userInfo;
      changed.set(key, value);
      message.set(kUserInfoKey, changed);
    }
    fake.clientWrites("odd.plist", message);
    fake.runUntilIdle();

    Outcome outcome;
    const auto posted = fake.messagesIn(fake.outbox());
    for (std::size_t i = postedBefore; i < posted.size(); ++i) {
      outcome.posted.emplace_back(posted[i][kNameKey].asText().value_or("none"));
    }
    for (const auto& [query, record] : plugin->queriesByName()) outcome.queries.push_back(query);
    for (const auto& [client, names] : plugin->queryNamesByClient()) {
      for (const std::string& query : names) outcome.clients.push_back(client + "/" + query);
    }
    const auto queries = fake.spotlight.queries();
    for (std::size_t i = queriesBefore; i < queries.size(); ++i) {
      outcome.engineTexts.push_back(queries[i]->text());
    }
    outcome.newRecord = shown("new");
    if (isLive("q")) outcome.pending = pendingCount("q");
    outcome.idle = plugin->pasteboardPool().size() - idleBefore;
    outcome.alerts = fake.application.alerts().size() - alertsBefore;
    outcome.filesInIn = fake.messagesIn(fake.inbox()).size();
    for (const auto& [query, record] : plugin->queriesByName()) plugin->cancelQuery(query, Value());
    plugin->terminateClient("client", {});
    plugin->terminateClient("other", {});
    for (const std::string& entry : fake.files.entries(fake.outbox())) {
      fake.files.erase(fake.outbox() + "/" + entry);
    }
    fake.log.clear();
    return outcome;
  }

 private:
  static Dictionary soundPayload(std::string_view name, const std::string& batch) {
    if (name == kConnectName) {
      return {{kClientNameKey, "client"},
              {kUniqueNameKey, "q"},
              {kVersionKey, "1"},
              {kCompatibilityVersionKey, Value(1)},
              {kCheckVersionKey, true}};
    }
    if (name == kSearchName) {
      return {{kClientNameKey, "client"}, {kUniqueNameKey, "new"},
              {kVersionKey, "1"},         {"lineageName", "l"},
              {"queryString", "a == b"},  {"sortingAttribute", "kMDItemSubject"},
              {"sortAscending", true}};
    }
    if (name == kTerminateName) {
      return {{kClientNameKey, "client"}, {kActiveNamesKey, Array{"elsewhere"}}};
    }
    return {{kClientNameKey, "client"}, {kUniqueNameKey, "q"}, {kBatchNameKey, batch}};
  }

  std::string shown(const std::string& name) const {
    const auto records = plugin->queriesByName();
    const auto found = records.find(name);
    if (found == records.end()) return "no new record";
    const auto text = [](const Value& value) {
      return std::string(value.asText().value_or("none"));
    };
    const THMPMailPluginQuery& record = *found->second;
    return "client " + text(record.clientName()) + " lineage " + text(record.lineageName()) +
           " sorted by " + text(record.sortingAttribute()) +
           (record.sortAscending() ? " upwards" : " downwards");
  }
};

TEST_F(OddMessages, ValueOfAnotherKindCountsAsNone) {
  int odd = 0;
  for (const Key& key : kKeys) {
    const Outcome without = outcomeOf(key.message, key.key, Value());
    EXPECT_EQ(without.filesInIn, 0U) << key.message << ' ' << key.key;
    for (const auto& [what, value] : kValues) {
      if (std::find(key.sound.begin(), key.sound.end(), value.kind()) != key.sound.end()) continue;
      EXPECT_EQ(outcomeOf(key.message, key.key, value), without)
          << key.message << ": " << key.key << " is " << what;
      ++odd;
    }
  }
  RecordProperty("bad_inputs", odd);
}

TEST_F(OddMessages, SoundValueOfEachKeyCounts) {
  // Otherwise the rows above would compare nothing.
  EXPECT_EQ(outcomeOf(kSearchName, kUniqueNameKey, "other name").posted.size(), 1U);
  EXPECT_EQ(outcomeOf(kSearchName, kUniqueNameKey, Value()).posted.size(), 0U);
  EXPECT_NE(outcomeOf(kSearchName, "lineageName", "l"), outcomeOf(kSearchName, "lineageName", 1));
  EXPECT_NE(outcomeOf(kSearchName, "queryString", "x"), outcomeOf(kSearchName, "queryString", 1));
  EXPECT_NE(outcomeOf(kSearchName, "sortAscending", 1), outcomeOf(kSearchName, "sortAscending", 0));
  EXPECT_NE(outcomeOf(kConnectName, kCheckVersionKey, Value()).posted.size(), 0U);
  EXPECT_EQ(outcomeOf(kConnectName, kCompatibilityVersionKey, 1).alerts, 0U);
  EXPECT_EQ(outcomeOf(kConnectName, kCompatibilityVersionKey, Value()).alerts, 1U);
  EXPECT_NE(outcomeOf(kCancelName, kUniqueNameKey, "q"), outcomeOf(kCancelName, kUniqueNameKey, 1));
  EXPECT_NE(outcomeOf(kTerminateName, kActiveNamesKey, Array{"elsewhere"}),
            outcomeOf(kTerminateName, kActiveNamesKey, Value()));
  EXPECT_EQ(outcomeOf(kClearName, kClientNameKey, "client").idle, 1U);
  EXPECT_EQ(outcomeOf(kClearName, kClientNameKey, Value()).idle, 0U);
}

TEST_F(OddMessages, NamesThatAreNoTextsAreSkippedAmongThoseThatAre) {
  for (const auto& [what, value] : kValues) {
    const Outcome outcome =
        outcomeOf(kTerminateName, kActiveNamesKey, Array{value, "elsewhere", value});
    EXPECT_THAT(outcome.queries, ::testing::IsEmpty()) << what;
  }
  RecordProperty("bad_inputs", static_cast<int>(kValues.size()));
}

}  // namespace
}  // namespace thmp
