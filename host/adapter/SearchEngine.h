// SPDX-License-Identifier: Apache-2.0
//
// The search engine behind platform/spotlight.h: queries over the index, and live ones that go on
// with each of its commits.
//
// A query first gathers: it walks all messages, newest first, and delivers those that match in
// portions. A live one then says that gathering has ended, and from there on reports each committed
// change: messages that have begun to match are found, those that are gone or match no more are
// removed. Changes during the gathering wait for its end. All of one query happens on its strand.
//
// The engine lives as long as the process. Index and pool outlive it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "host/adapter/Strand.h"
#include "host/index/Index.h"
#include "host/query/parser.h"
#include "platform/spotlight.h"

namespace thmp {

inline constexpr char kSearchErrorDomain[] = "CSSearchQueryErrorDomain";
enum class SearchErrorCode : std::int64_t {
  kUnknown = -2000,
  kIndexUnreachable = -2001,
  kInvalidQuery = -2002,
  kCancelled = -2003,
};
Error searchError(SearchErrorCode code);

struct SearchEngineOptions {
  /// The clock and calendar of a query, taken when it starts.
  std::function<query::QueryOptions()> queryOptions;
  /// The most items a delivery holds.
  std::size_t deliveryLimit = 5000;
  /// Called, on an engine thread, when the index could not be read to its end. Whether it can be
  /// made anew: if not, the query fails; otherwise it ends well with what could be read.
  std::function<bool()> indexUnreadable;
};

class SearchEngine : public Spotlight {
 public:
  SearchEngine(Index& index, ThreadPool& pool, SearchEngineOptions options);
  ~SearchEngine() override;
  SearchEngine(const SearchEngine&) = delete;
  SearchEngine& operator=(const SearchEngine&) = delete;

  std::shared_ptr<SpotlightQuery> makeQuery(
      const std::string& queryString,
      std::shared_ptr<const std::vector<std::string>> attributes) override;
  bool itemsHaveAttributes() override { return true; }

  /// Live queries that have been started and not cancelled.
  std::size_t liveQueryCount() const;

 private:
  class Core;
  class Query;
  struct Shared;

  std::shared_ptr<Shared> shared_;
  std::uint64_t listener_ = 0;
};

}  // namespace thmp
