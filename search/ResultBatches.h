// SPDX-License-Identifier: Apache-2.0
//
// Puts batches of one query on pasteboards and tells its client.
//
// Used by one thread at a time, a callback's or the one that posts for it. A batch for which there
// is no pasteboard, which cannot be written, or whose query has ended meanwhile, is dropped: its
// pasteboard goes back to the pool and its number to the next batch.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "base/value.h"
#include "maillibrary/FoundItem.h"
#include "platform/log.h"
#include "search/Mediator.h"
#include "search/QueryRegistry.h"
#include "search/SearchRequest.h"

namespace thmp {

class ResultBatches {
 public:
  using Record = std::shared_ptr<THMPMailPluginQuery>;

  ResultBatches(const SearchRequest& request, QueryRegistry& registry, SearchMediator& mediator,
                SystemLog& systemLog)
      : request_(request), registry_(registry), mediator_(mediator), systemLog_(systemLog) {}
  ResultBatches(const ResultBatches&) = delete;
  ResultBatches& operator=(const ResultBatches&) = delete;

  void postResultsBatch(const Record& record, const std::vector<FoundItem>& items,
                        std::uint64_t foundItemCount);
  /// `identifiers` are texts.
  void postRemovalBatch(const Record& record, const Array& identifiers);

 private:
  class Loan;

  Dictionary messagePayload(const Loan& loan) const;
  Dictionary batch(const THMPMailPluginQuery& record, const Loan& loan) const;
  bool write(const Loan& loan, const char* type, const Dictionary& batch);
  void writeSystemLog(const std::string& batchName, std::uint64_t batchNumber,
                      std::size_t messageCount, std::uint64_t foundItemCount);
  /// Logs and posts; the number in the log line is that of results batches for both kinds.
  void announce(std::string_view messageName, const Dictionary& payload,
                const std::string& batchName, std::size_t count, const Record& record);

  const SearchRequest& request_;
  QueryRegistry& registry_;
  SearchMediator& mediator_;
  SystemLog& systemLog_;
  std::uint64_t resultsBatchNumber_ = 0;
  std::uint64_t removalBatchNumber_ = 0;
};

}  // namespace thmp
