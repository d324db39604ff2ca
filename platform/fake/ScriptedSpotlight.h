// SPDX-License-Identifier: Apache-2.0
//
// A search engine whose findings a test delivers by hand.
//
// The core holds a handle to each query; the test holds the ScriptedSpotlightQuery behind it, which
// lives on when the handle has been dropped. Callbacks run on the thread that delivers, one at a
// time for each query. Any thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "platform/spotlight.h"

namespace thmp {

/// An item as the mail index gives it: `libraryID` under "_kMDItemExternalID" beside `attributes`.
SpotlightItem mailItem(std::int64_t libraryID, Dictionary attributes = {});

class ScriptedSpotlightQuery {
 public:
  using Attributes = std::shared_ptr<const std::vector<std::string>>;
  using Hook = std::function<void(ScriptedSpotlightQuery& query)>;

  ScriptedSpotlightQuery(std::string text, Attributes attributes);

  const std::string& text() const { return text_; }
  /// Null when the query was made without a list.
  const Attributes& attributes() const { return attributes_; }

  // What the engine does. Each calls the handler that is set, and returns whether it did: not
  // before start(), and after cancel() only complete() with an error.
  /// Raises the found count by the number of items first.
  bool deliver(const std::vector<SpotlightItem>& items);
  bool removed(const Value& identifiers);
  bool gatherEnded();
  /// An error that is not set is a search that ended well.
  bool complete(const Error& error = {});
  /// Sets the found count, for instance above what is delivered.
  void setFoundItemCount(std::uint64_t count);

  // What the core did.
  /// In order: "setFoundItemsHandler:", "setCompletionHandler:", "setRemovedItemsHandler:",
  /// "setGatherEndedHandler:" (each with " null" after it for a null pointer), "queryContext",
  /// "setLive:", "start", "cancel", and "destroyed" for the handle's end.
  std::vector<std::string> calls() const;
  bool started() const;
  bool isCancelled() const;
  /// Empty until set.
  std::optional<bool> live() const;
  /// Whether the core has dropped its handle.
  bool handleDropped() const;

  // The handlers now set, for a test that plays a call already under way.
  std::shared_ptr<const SpotlightQuery::FoundItemsHandler> foundItemsHandler() const;
  std::shared_ptr<const SpotlightQuery::CompletionHandler> completionHandler() const;
  std::shared_ptr<const SpotlightQuery::RemovedItemsHandler> removedItemsHandler() const;
  std::shared_ptr<const SpotlightQuery::GatherEndedHandler> gatherEndedHandler() const;

 private:
  friend class ScriptedSpotlightHandle;
  friend class ScriptedSpotlight;
  struct Handlers {
    std::shared_ptr<const SpotlightQuery::FoundItemsHandler> foundItems;
    std::shared_ptr<const SpotlightQuery::CompletionHandler> completion;
    std::shared_ptr<const SpotlightQuery::RemovedItemsHandler> removedItems;
    std::shared_ptr<const SpotlightQuery::GatherEndedHandler> gatherEnded;
  };

  void note(const std::string& call) noexcept;
  void cancel();
  Handlers handlers() const;
  bool running() const;

  const std::string text_;
  const Attributes attributes_;
  Hook onStart_;
  Hook onCancel_;

  /// Held during a callback. Recursive: a callback may lead to another delivery.
  RecursiveMutex strand_;
  mutable Mutex mutex_;
  Handlers handlers_ THMP_GUARDED_BY(mutex_);
  std::vector<std::string> calls_ THMP_GUARDED_BY(mutex_);
  std::uint64_t foundItemCount_ THMP_GUARDED_BY(mutex_) = 0;
  std::optional<bool> live_ THMP_GUARDED_BY(mutex_);
  bool started_ THMP_GUARDED_BY(mutex_) = false;
  bool cancelled_ THMP_GUARDED_BY(mutex_) = false;
  bool dropped_ THMP_GUARDED_BY(mutex_) = false;
};

/// The optional operations that queries made from now on have.
struct SpotlightCapabilities {
  bool removedItemsHandler = true;
  bool gatherEndedHandler = true;
  bool queryContext = true;
  /// Whether the context's setLive is there.
  bool live = true;
  bool itemAttributes = true;
};

class ScriptedSpotlight : public Spotlight {
 public:
  void setCapabilities(const SpotlightCapabilities& capabilities);
  /// Whether makeQuery() gives null from now on.
  void failQueries(bool fails);
  /// Run inside start() and cancel() of the queries made from now on, on the calling thread with
  /// nothing locked.
  void onStart(ScriptedSpotlightQuery::Hook hook);
  void onCancel(ScriptedSpotlightQuery::Hook hook);

  /// All queries made, in order.
  std::vector<std::shared_ptr<ScriptedSpotlightQuery>> queries() const;
  /// The latest query; null without one.
  std::shared_ptr<ScriptedSpotlightQuery> query() const;

  // Spotlight.
  std::shared_ptr<SpotlightQuery> makeQuery(
      const std::string& queryString,
      std::shared_ptr<const std::vector<std::string>> attributes) override;
  bool itemsHaveAttributes() override;

 private:
  mutable Mutex mutex_;
  SpotlightCapabilities capabilities_ THMP_GUARDED_BY(mutex_);
  bool fails_ THMP_GUARDED_BY(mutex_) = false;
  ScriptedSpotlightQuery::Hook onStart_ THMP_GUARDED_BY(mutex_);
  ScriptedSpotlightQuery::Hook onCancel_ THMP_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<ScriptedSpotlightQuery>> queries_ THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
