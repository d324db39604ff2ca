// SPDX-License-Identifier: Apache-2.0
#include "search/ResultBatches.h"

#include <array>
#include <string>
#include <utility>

#include "base/format.h"
#include "base/plist.h"
#include "messaging/message_names.h"
#include "search/query_log.h"

namespace thmp {

/// A pasteboard lent for one batch, with the batch's number. Unless it is kept, the pasteboard goes
/// back to the pool and the counter to where it was.
class ResultBatches::Loan {
 public:
  Loan(SearchMediator& mediator, std::uint64_t& counter)
      : mediator_(mediator), counter_(counter), pasteboard_(mediator.pasteboardFromPool()) {
    if (pasteboard_) ++counter_;
  }
  ~Loan() {
    if (!pasteboard_ || kept_) return;
    --counter_;
    try {
      mediator_.pasteboardToPool(pasteboard_);
    } catch (...) {
      // Without memory to pool it, the pasteboard stays out until the host quits.
    }
  }
  Loan(const Loan&) = delete;
  Loan& operator=(const Loan&) = delete;

  explicit operator bool() const { return pasteboard_ != nullptr; }
  const std::shared_ptr<LentPasteboard>& pasteboard() const { return pasteboard_; }
  const std::string& batchName() const { return pasteboard_->name(); }
  std::uint64_t batchNumber() const { return counter_; }
  void keep() { kept_ = true; }

 private:
  SearchMediator& mediator_;
  std::uint64_t& counter_;
  const std::shared_ptr<LentPasteboard> pasteboard_;
  bool kept_ = false;
};

namespace {

/// Writing fails in the property lists' domain for one reason only.
bool isUnwritable(const Error& error) { return error.domain == kPropertyListErrorDomain; }

bool isWritable(const Value& value) { return writeBinaryPropertyList(value).has_value(); }

/// The batch without what no property list can hold: it costs an item the attribute, no more. The
/// texts of a removal batch can all be held.
Dictionary writablePart(Dictionary batch) {
  std::vector<Value> messages;
  for (const Value& message : batch["messages"].asArray().value_or(Array())) {
    std::vector<Dictionary::Entry> attributes;
    for (const auto& [name, value] : message["attributes"].asDictionary().value_or(Dictionary())) {
      if (isWritable(value)) attributes.push_back({name, value});
    }
    Dictionary item = message.asDictionary().value_or(Dictionary());
    item.set("attributes", Dictionary(std::move(attributes)));
    messages.emplace_back(std::move(item));
  }
  batch.set("messages", Array(std::move(messages)));
  return batch;
}

Array pendingSummary(const std::vector<PendingBatch>& pending) {
  Array summary;
  summary.reserve(pending.size());
  for (const PendingBatch& batch : pending) {
    summary.push_back(
        Dictionary{{"batchNumber", batch.batchNumber}, {"batchName", batch.batchName}});
  }
  return summary;
}

Array itemDictionaries(const std::vector<FoundItem>& items) {
  std::vector<Value> dictionaries;
  dictionaries.reserve(items.size());
  for (const FoundItem& item : items) dictionaries.emplace_back(item.dictionary());
  return Array(std::move(dictionaries));
}

}  // namespace

Dictionary ResultBatches::messagePayload(const Loan& loan) const {
  Dictionary payload = request_.userInfo;
  payload.set("uniqueName", request_.uniqueName);
  payload.set("batchName", loan.batchName());
  payload.set("batchNumber", loan.batchNumber());
  return payload;
}

Dictionary ResultBatches::batch(const THMPMailPluginQuery& record, const Loan& loan) const {
  return Dictionary{{"batchNumber", loan.batchNumber()},
                    {"queryString", record.queryString()},
                    {"uniqueName", request_.uniqueName},
                    {"clientName", request_.clientName}};
}

bool ResultBatches::write(const Loan& loan, const char* type, const Dictionary& batch) {
  Pasteboard& board = loan.pasteboard()->board();
  board.declareType(type);
  Error error;
  bool written = board.setPropertyList(batch, type, &error);
  if (!written && isUnwritable(error)) {
    written = board.setPropertyList(writablePart(batch), type, &error);
  }
  if (!written) {
    const std::array<LogArg, 1> arguments = {LogArg(error)};
    mediator_.logOwnLine(
        formatLog("tallyhive: a batch could not be written and is dropped: %@", arguments));
    return false;
  }
  loan.pasteboard()->setOwnerTags(request_.uniqueName, request_.clientName);
  return true;
}

void ResultBatches::postResultsBatch(const Record& record, const std::vector<FoundItem>& items,
                                     std::uint64_t foundItemCount) {
  Loan loan(mediator_, resultsBatchNumber_);
  if (!loan) return;
  loan.pasteboard()->board().clearContents();
  const std::string batchName = loan.batchName();

  Dictionary payload = messagePayload(loan);
  payload.set("foundItemCount", foundItemCount);
  payload.set("pendingBatches", pendingSummary(registry_.pendingBatches(*record)));
  {
    Dictionary content = batch(*record, loan);
    content.set("messages", itemDictionaries(items));
    content.set("foundItemCount", foundItemCount);
    if (!write(loan, kResultsBatchType, content)) return;
  }
  if (!registry_.appendPendingIfAlive(*record,
                                      {batchName, loan.batchNumber(), loan.pasteboard()})) {
    return;
  }
  loan.keep();
  if (mediator_.logLevel() > 1) {
    writeSystemLog(batchName, resultsBatchNumber_, items.size(), foundItemCount);
  }
  announce(kQueryHasUpdatesName, payload, batchName, items.size(), record);
}

void ResultBatches::postRemovalBatch(const Record& record, const Array& identifiers) {
  Loan loan(mediator_, removalBatchNumber_);
  if (!loan) return;
  loan.pasteboard()->board().clearContents();
  const std::string batchName = loan.batchName();

  Dictionary content = batch(*record, loan);
  content.set("messageIDs", identifiers);
  if (!write(loan, kRemovalBatchType, content)) return;
  if (!registry_.isAlive(*record)) return;
  // Deliberate: no pending entry, so that neither Clear nor the query's end returns it to the pool.
  loan.keep();
  announce(kQueryHasRemovalsName, messagePayload(loan), batchName, identifiers.size(), record);
}

void ResultBatches::writeSystemLog(const std::string& batchName, std::uint64_t batchNumber,
                                   std::size_t messageCount, std::uint64_t foundItemCount) {
  const auto line = [&](std::string_view format, std::uint64_t number) {
    const std::array<LogArg, 2> arguments = {LogArg(batchName), LogArg(number)};
    systemLog_.write(formatLog(format, arguments));
  };
  line("%@: batchNumber %lu", batchNumber);
  line("%@: messages count %lu", messageCount);
  line("%@: foundItemCount %lu", foundItemCount);
}

void ResultBatches::announce(std::string_view messageName, const Dictionary& payload,
                             const std::string& batchName, std::size_t count,
                             const Record& record) {
  // Deliberate: a removal batch, too, is logged with the number of the last results batch.
  logQuery(mediator_, request_.uniqueName, "THMPMailPlugin post %@ / %@ - %@ - %@", messageName,
           batchName, resultsBatchNumber_, count);
  mediator_.postMessageName(messageName, payload, record);
}

}  // namespace thmp
