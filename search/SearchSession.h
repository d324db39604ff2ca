// SPDX-License-Identifier: Apache-2.0
//
// What the callbacks of one query share, and what they do.
//
// The engine's threads call, never two at a time for one query. A later batch may be posted on the
// posting thread while its callback gathers the next; the callback returns when all are posted.
//
// The callbacks own the session, the session owns the plug-in (so a query keeps it alive until it
// is cancelled); record and query are held weakly, and only while a step needs them, so that the
// registry alone decides when they end.
// Each callback asks at its start and before each step whether its query is still alive, and if not
// returns at once; what it had gathered is gone. Nothing is thrown at the engine: a batch that
// cannot be built is dropped, and the query goes on.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "base/error.h"
#include "base/value.h"
#include "maillibrary/FoundItem.h"
#include "platform/platform.h"
#include "search/Mediator.h"
#include "search/PostingThread.h"
#include "search/QueryRegistry.h"
#include "search/ResultBatches.h"
#include "search/SearchRequest.h"

namespace thmp {

class SearchSession {
 public:
  /// The references are used in callbacks only.
  SearchSession(SearchRequest request, const Platform& platform, QueryRegistry& registry,
                std::shared_ptr<SearchMediator> mediator, PostingThread& posting,
                const std::shared_ptr<THMPMailPluginQuery>& record);
  SearchSession(const SearchSession&) = delete;
  SearchSession& operator=(const SearchSession&) = delete;

  void foundItems(std::span<const SpotlightItem> items) noexcept;
  void removedItems(const Value& identifiers) noexcept;
  void gatherEnded() noexcept;
  void completed(const Error& error) noexcept;

 private:
  using Record = std::shared_ptr<THMPMailPluginQuery>;
  struct Delivery;

  /// The record if its query is alive, else null.
  Record aliveRecord() const;
  bool isAlive() const { return aliveRecord() != nullptr; }
  std::uint64_t foundItemCount() const;

  void deliver(std::span<const SpotlightItem> items);
  QueryRegistry::Delivery deliver(std::int64_t libraryID);
  void completePath(FoundItem& found);
  void postBatch(Delivery& delivery, bool full);
  void remove(const Value& identifiers);
  void postRemovals(const Array& identifiers);
  void postCompletion(const Error& error, const Record& record);

  const SearchRequest request_;
  const Value queryName_;
  const Platform& platform_;
  QueryRegistry& registry_;
  const std::shared_ptr<SearchMediator> mediator_;
  PostingThread& posting_;
  const std::weak_ptr<THMPMailPluginQuery> record_;
  const std::weak_ptr<SpotlightQuery> searchQuery_;
  ResultBatches batches_;
  std::uint64_t foundItemIndex_ = 0;
};

}  // namespace thmp
