// SPDX-License-Identifier: Apache-2.0
//
// The record of one live search: what the client asked for, the query of the search engine that
// serves it, the library IDs already delivered, and the results batches that the client has not yet
// cleared.
//
// The registry (QueryRegistry) is its only strong owner; callbacks hold it weakly. The request's
// properties are set once, by search:, before the record is registered, and only read afterwards.
// What changes later (searchQuery, messageIDs, pendingBatches) is guarded by the registry's state
// lock and reached through the registry's operations.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/value.h"
#include "platform/spotlight.h"
#include "search/LentPasteboard.h"
#include "search/LibraryIDSet.h"

namespace thmp {

/// A results batch that was posted and not yet cleared.
struct PendingBatch {
  std::string batchName;
  std::uint64_t batchNumber = 0;
  std::shared_ptr<LentPasteboard> pasteboard;
};

class THMPMailPluginQuery {
 public:
  /// initWithQueryName:
  explicit THMPMailPluginQuery(Text queryName) : queryName_(std::move(queryName)) {}
  THMPMailPluginQuery(const THMPMailPluginQuery&) = delete;
  THMPMailPluginQuery& operator=(const THMPMailPluginQuery&) = delete;

  const Text& queryName() const { return queryName_; }

  // Texts, or null.
  const Value& clientName() const { return clientName_; }
  void setClientName(Value name) { clientName_ = std::move(name); }
  const Value& lineageName() const { return lineageName_; }
  void setLineageName(Value name) { lineageName_ = std::move(name); }
  /// The client's own text, not the composed one.
  const Value& queryString() const { return queryString_; }
  void setQueryString(Value text) { queryString_ = std::move(text); }
  const Value& sortingAttribute() const { return sortingAttribute_; }
  void setSortingAttribute(Value attribute) { sortingAttribute_ = std::move(attribute); }
  bool sortAscending() const { return sortAscending_; }
  void setSortAscending(bool ascending) { sortAscending_ = ascending; }

  /// Null once the query has been cancelled.
  const std::shared_ptr<SpotlightQuery>& searchQuery() const { return searchQuery_; }
  void setSearchQuery(std::shared_ptr<SpotlightQuery> query) { searchQuery_ = std::move(query); }
  /// Library IDs already delivered; removed ones stay.
  LibraryIDSet& messageIDs() { return messageIDs_; }
  /// Oldest first.
  std::vector<PendingBatch>& pendingBatches() { return pendingBatches_; }
  const std::vector<PendingBatch>& pendingBatches() const { return pendingBatches_; }

  /// Kept for the record's shape; nothing sets or reads it.
  const Error& error() const { return error_; }
  void setError(Error error) { error_ = std::move(error); }

 private:
  const Text queryName_;
  Value clientName_;
  Value lineageName_;
  Value queryString_;
  Value sortingAttribute_;
  bool sortAscending_ = false;
  std::shared_ptr<SpotlightQuery> searchQuery_;
  LibraryIDSet messageIDs_;
  std::vector<PendingBatch> pendingBatches_;
  Error error_;
};

}  // namespace thmp
