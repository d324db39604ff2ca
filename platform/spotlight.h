// SPDX-License-Identifier: Apache-2.0
//
// The search engine behind a query: made from a text and a list of attributes to fetch, it delivers
// what it finds, and when it is live what comes and goes later.
//
// Callbacks of one query run on engine threads, never two at a time. They are read at each call, so
// that a callback set to null is not called again; one that is running may be replaced, and even
// the query dropped, from inside it. The engine keeps itself alive for a running callback, never
// the caller's objects.
//
// An optional operation is an empty std::function where a system lacks it; it is asked for each
// time it is used.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "base/value.h"

namespace thmp {

struct SpotlightItem {
  std::string identifier;
  /// Those of the listed attributes that the item has, by name, with their values at the delivery.
  /// An engine may give them a source, so that a delivery costs only what is used of it.
  Dictionary attributes;
  /// The item's file, where the engine reports it.
  std::optional<std::string> filePath;
};

class SpotlightQueryContext {
 public:
  virtual ~SpotlightQueryContext() = default;
  /// Optional. Before start(): whether the query goes on after it has gathered.
  std::function<void(bool live)> setLive;
};

class SpotlightQuery {
 public:
  using FoundItemsHandler = std::function<void(std::span<const SpotlightItem> items)>;
  /// `error` is not set after a search that ended well.
  using CompletionHandler = std::function<void(const Error& error)>;
  /// `identifiers` is an array of texts; what else an engine may pass is its receiver's to refuse.
  using RemovedItemsHandler =
      std::function<void(const std::string& ignored, const Value& identifiers)>;
  using GatherEndedHandler = std::function<void()>;

  virtual ~SpotlightQuery() = default;

  // Setting a null pointer detaches. Any thread; never waits for a running callback.
  virtual void setFoundItemsHandler(std::shared_ptr<const FoundItemsHandler> handler) = 0;
  virtual void setCompletionHandler(std::shared_ptr<const CompletionHandler> handler) = 0;

  // Optional.
  std::function<void(std::shared_ptr<const RemovedItemsHandler> handler)> setRemovedItemsHandler;
  std::function<void(std::shared_ptr<const GatherEndedHandler> handler)> setGatherEndedHandler;
  std::function<std::shared_ptr<SpotlightQueryContext>()> queryContext;

  /// Begins, once; returns at once and calls nothing back synchronously.
  virtual void start() = 0;
  /// isCancelled() is true from here on; no further callback begins once this has returned, but for
  /// a completion with a cancellation error while that handler is still set. Never waits; repeats
  /// are harmless; may come from a callback. The destructor cancels too.
  virtual void cancel() = 0;
  virtual bool isCancelled() const = 0;
  /// Items found so far, over the query's whole life; raised before each delivery, never lowered.
  virtual std::uint64_t foundItemCount() const = 0;
};

class Spotlight {
 public:
  virtual ~Spotlight() = default;
  /// A query that is not started. Without a list the engine's default attributes are fetched. Null
  /// when none can be made; a text that does not parse is no reason: it ends in a completion with
  /// an error. Any thread.
  virtual std::shared_ptr<SpotlightQuery> makeQuery(
      const std::string& queryString,
      std::shared_ptr<const std::vector<std::string>> attributes) = 0;
  /// Whether items carry an attribute dictionary on this system.
  virtual bool itemsHaveAttributes() = 0;
};

}  // namespace thmp
