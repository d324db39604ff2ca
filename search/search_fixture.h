// SPDX-License-Identifier: Apache-2.0
//
// The scene of the tests of a search: a whole platform in memory, the registry, and the plug-in
// played by a RecordingMediator.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/fake/FakePlatform.h"
#include "search/RecordingMediator.h"
#include "search/SearchExecution.h"

namespace thmp {

inline constexpr char kResultsType[] = " com.quorvane.tallyhive.mailplugin.ResultsBatch";
inline constexpr char kRemovalType[] = " com.quorvane.tallyhive.mailplugin.RemovalBatch";

struct SearchWorld {
  using Query = std::shared_ptr<ScriptedSpotlightQuery>;

  /// A Search with these keys, and the engine's query that it made; null when it made none.
  Query search(const Dictionary& userInfo) {
    const std::size_t before = fake_.spotlight.queries().size();
    execution_.search(
        Dictionary{{"name", " com.quorvane.tallyhive.mailplugin.Search"}, {"userInfo", userInfo}},
        mediator_);
    return fake_.spotlight.queries().size() > before ? fake_.spotlight.query() : nullptr;
  }
  Query search(const std::string& uniqueName) {
    return search({{"uniqueName", uniqueName}, {"clientName", "c"}, {"queryString", "a == 1"}});
  }

  /// The client's Cancel.
  void cancel(const std::string& uniqueName) { mediator_->cancelQuery(uniqueName, "c", nullptr); }

  /// The client's Clear of a batch: true when exactly that batch was taken back.
  bool clear(const std::string& uniqueName, const std::string& batchName) {
    for (const auto& pasteboard : mediator_->lent()) {
      if (pasteboard->name() != batchName) continue;
      if (registry_.removePending(uniqueName, *pasteboard) != 1u) return false;
      mediator_->pasteboardToPool(pasteboard);
      return true;
    }
    return false;
  }

  /// `count` items that carry their paths, with library IDs from `first` on.
  static std::vector<SpotlightItem> items(std::int64_t first, std::int64_t count) {
    std::vector<SpotlightItem> made;
    for (std::int64_t id = first; id < first + count; ++id) {
      made.push_back(mailItem(id, {{"kMDItemPath", "/mail/" + std::to_string(id) + ".eml"}}));
    }
    return made;
  }
  /// Items that the library does not know either.
  static std::vector<SpotlightItem> unresolvedItems(std::int64_t first, std::int64_t count) {
    std::vector<SpotlightItem> made;
    for (std::int64_t id = first; id < first + count; ++id) made.push_back(mailItem(id));
    return made;
  }

  std::vector<Value> updates() const { return mediator_->posts("QueryHasUpdates"); }
  std::vector<Value> removals() const { return mediator_->posts("QueryHasRemovals"); }
  std::vector<Value> completions() const { return mediator_->posts("QueryDidComplete"); }

  /// What the client reads on the pasteboard that a message names.
  Value batchOf(const Value& message, const char* type = kResultsType) const {
    return fake_.pasteboards.content(std::string(message["batchName"].asText().value_or("")), type);
  }
  /// The library IDs of the batch that a message names, in order.
  std::vector<std::int64_t> idsOf(const Value& message) const {
    std::vector<std::int64_t> ids;
    const Array messages = batchOf(message)["messages"].asArray().value_or(Array());
    ids.reserve(messages.size());
    for (const Value& item : messages) ids.push_back(item["libraryID"].integerValue());
    return ids;
  }
  /// The library IDs of all batches.
  std::vector<std::int64_t> deliveredIDs() const {
    std::vector<std::int64_t> ids;
    for (const Value& update : updates()) {
      const std::vector<std::int64_t> more = idsOf(update);
      ids.insert(ids.end(), more.begin(), more.end());
    }
    return ids;
  }
  /// One number out of each message.
  static std::vector<std::int64_t> numbers(const std::vector<Value>& messages, const char* key) {
    std::vector<std::int64_t> found;
    found.reserve(messages.size());
    for (const Value& message : messages) found.push_back(message[key].integerValue());
    return found;
  }
  std::vector<std::size_t> batchSizes() const {
    std::vector<std::size_t> sizes;
    for (const Value& update : updates()) {
      sizes.push_back(batchOf(update)["messages"].asArray()->size());
    }
    return sizes;
  }

  std::shared_ptr<THMPMailPluginQuery> record(const std::string& uniqueName) const {
    const auto records = registry_.queriesByName();
    const auto found = records.find(uniqueName);
    return found == records.end() ? nullptr : found->second;
  }

  FakePlatform fake_;
  Platform platform_ = fake_.platform();
  QueryRegistry registry_;
  AttributeList attributeList_;
  std::shared_ptr<RecordingMediator> mediator_ =
      std::make_shared<RecordingMediator>(platform_, registry_);
  SearchExecution execution_{platform_, attributeList_, registry_};
};

class SearchScene : public ::testing::Test, protected SearchWorld {};

}  // namespace thmp
