// SPDX-License-Identifier: Apache-2.0
#include "search/SearchSession.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "messaging/message_names.h"
#include "search/delivery_order.h"
#include "search/query_log.h"

namespace thmp {

namespace {

constexpr std::size_t kFirstBatch = 750;
constexpr std::size_t kLaterBatch = 1500;
constexpr std::size_t kLargeLaterBatch = 2000;
constexpr std::uint64_t kLargeCount = 10001;
constexpr std::size_t kRemovalBatch = 1000;

/// Runs `step`; what it throws, mostly for want of memory, ends here.
template <typename Step>
void guarded(SystemLog& log, Step step) noexcept {
  try {
    step();
  } catch (...) {
    log.write("tallyhive: a step of a query failed and is dropped");
  }
}

std::optional<std::int64_t> libraryIDOf(const Dictionary& attributes) {
  const Value externalID = attributes.get("_kMDItemExternalID");
  if (!externalID.isNumber() && !externalID.asText()) return std::nullopt;
  return externalID.integerValue();
}

}  // namespace

/// The items of one call that wait for their batch.
struct SearchSession::Delivery {
  explicit Delivery(PostingThread& thread) : posting(thread) {}
  ~Delivery() { posting.wait(posted); }
  Delivery(const Delivery&) = delete;
  Delivery& operator=(const Delivery&) = delete;

  std::vector<FoundItem> waiting;
  /// The engine's count less the items that could not be resolved.
  std::uint64_t count = 0;
  std::size_t limit = kFirstBatch;
  std::size_t laterLimit = kLaterBatch;
  PostingThread& posting;
  PostingThread::Ticket posted = 0;  // of the batch before
};

SearchSession::SearchSession(SearchRequest request, const Platform& platform,
                             QueryRegistry& registry, std::shared_ptr<SearchMediator> mediator,
                             PostingThread& posting,
                             const std::shared_ptr<THMPMailPluginQuery>& record)
    : request_(std::move(request)),
      queryName_(request_.uniqueName),
      platform_(platform),
      registry_(registry),
      mediator_(std::move(mediator)),
      posting_(posting),
      record_(record),
      searchQuery_(record->searchQuery()),
      batches_(request_, registry, *mediator_, platform.log) {}

SearchSession::Record SearchSession::aliveRecord() const {
  Record record = record_.lock();
  if (!record || searchQuery_.expired() || !registry_.isAlive(*record)) return nullptr;
  return record;
}

std::uint64_t SearchSession::foundItemCount() const {
  const std::shared_ptr<SpotlightQuery> searchQuery = searchQuery_.lock();
  return searchQuery ? searchQuery->foundItemCount() : 0;
}

void SearchSession::foundItems(std::span<const SpotlightItem> items) noexcept {
  guarded(platform_.log, [&] { deliver(items); });
}

void SearchSession::deliver(std::span<const SpotlightItem> items) {
  if (!isAlive()) return;
  logQuery(*mediator_, queryName_, "THMPMailPlugin found items %@", items.size());
  const auto attribute = request_.sortingAttribute.asText();
  const std::vector<const SpotlightItem*> sorted =
      sortedItems(items, attribute ? sortAttributes(*attribute) : std::vector<std::string>(),
                  request_.sortAscending);
  Delivery delivery(posting_);
  delivery.count = foundItemCount();
  if (delivery.count >= kLargeCount) delivery.laterLimit = kLargeLaterBatch;
  if (!platform_.spotlight.itemsHaveAttributes()) return;

  for (const SpotlightItem* item : sorted) {
    if (!isAlive()) return;
    FoundItem found;
    found.attributes = item->attributes;
    found.libraryID = libraryIDOf(found.attributes);
    if (found.libraryID) {
      const QueryRegistry::Delivery outcome = deliver(*found.libraryID);
      if (outcome == QueryRegistry::Delivery::kDead) return;
      if (outcome == QueryRegistry::Delivery::kRepeated) continue;
    }
    found.path = item->filePath;
    completePath(found);
    delivery.waiting.push_back(std::move(found));
    if (delivery.waiting.size() == delivery.limit) {
      postBatch(delivery, /*full=*/true);
      delivery.limit = delivery.laterLimit;
    }
  }
  if (!isAlive() || delivery.waiting.empty()) return;
  postBatch(delivery, /*full=*/false);
}

QueryRegistry::Delivery SearchSession::deliver(std::int64_t libraryID) {
  const Record record = record_.lock();
  return record ? registry_.deliver(*record, libraryID) : QueryRegistry::Delivery::kDead;
}

void SearchSession::completePath(FoundItem& found) {
  Dictionary& attributes = found.attributes;
  if (!found.path) {
    const Value path = attributes.get("kMDItemPath");
    if (const auto text = path.asText()) found.path = *text;
  }
  if (attributes.contains("kMDItemDisplayName")) return;
  if (const Value subject = attributes.get("kMDItemSubject"); !subject.isNull()) {
    attributes.set("kMDItemDisplayName", subject);
  } else if (found.path) {
    attributes.set("kMDItemDisplayName", platform_.files.displayName(*found.path));
  }
}

// While a later batch is posted, the next one is gathered; the first of a query shares the
// processors with nobody.
void SearchSession::postBatch(Delivery& delivery, bool full) {
  std::vector<FoundItem> waiting = std::exchange(delivery.waiting, {});
  guarded(platform_.log, [&] {
    const std::size_t asked = waiting.size();
    std::uint64_t index = foundItemIndex_;
    std::vector<FoundItem> items = mediator_->loadFilePaths(std::move(waiting), index);
    foundItemIndex_ = index;
    const std::uint64_t unresolved = asked > items.size() ? asked - items.size() : 0;
    delivery.count -= std::min(delivery.count, unresolved);
    // Deliberate: a full batch reports what the query has delivered so far, the last one of a
    // delivery what the engine has found.
    const std::uint64_t count = full ? foundItemIndex_ : delivery.count;
    auto post = [this, items = std::move(items), count] {
      guarded(platform_.log, [&] {
        if (const Record record = record_.lock()) batches_.postResultsBatch(record, items, count);
      });
    };
    posting_.wait(delivery.posted);
    if (!full || foundItemIndex_ <= kFirstBatch) return post();
    delivery.posted = posting_.begin(std::move(post));
  });
}

void SearchSession::removedItems(const Value& identifiers) noexcept {
  guarded(platform_.log, [&] { remove(identifiers); });
}

void SearchSession::remove(const Value& identifiers) {
  if (!isAlive()) return;
  const auto elements = identifiers.asArray();
  logQuery(*mediator_, queryName_, "THMPMailPlugin removed items %@",
           elements ? elements->size() : 0);
  if (!elements) {
    logQuery(*mediator_, queryName_, "THMPMailPlugin REMOVAL ERROR. Unexpected argument: %@",
             identifiers);
    return;
  }
  Array waiting;
  for (const Value& element : *elements) {
    if (!isAlive()) return;
    if (!element.asText()) continue;
    waiting.push_back(element);
    if (waiting.size() == kRemovalBatch) postRemovals(std::exchange(waiting, Array()));
  }
  if (!isAlive() || waiting.empty()) return;
  postRemovals(waiting);
}

void SearchSession::postRemovals(const Array& identifiers) {
  guarded(platform_.log, [&] {
    if (const Record record = record_.lock()) batches_.postRemovalBatch(record, identifiers);
  });
}

void SearchSession::gatherEnded() noexcept {
  guarded(platform_.log, [&] {
    const Record record = aliveRecord();
    if (!record) return;
    logQuery(*mediator_, queryName_, "THMPMailPlugin gather ended");
    postCompletion(Error(), record);
  });
}

void SearchSession::completed(const Error& error) noexcept {
  const Record record = aliveRecord();
  if (!record) return;
  guarded(platform_.log, [&] {
    logQuery(*mediator_, queryName_, "THMPMailPlugin completed. Error: %@", error);
    postCompletion(error, record);
  });
  // After the post: nothing is posted for a query that has been cancelled.
  guarded(platform_.log,
          [&] { mediator_->cancelQuery(request_.uniqueName, request_.clientName, record); });
}

void SearchSession::postCompletion(const Error& error, const Record& record) {
  Dictionary payload = request_.userInfo;
  payload.set("notification", "completed");
  if (error.isSet()) {
    logQuery(*mediator_, queryName_, "THMPMailPlugin QUERY ERROR: %@", error);
    payload.set("errorCode", error.code);
    payload.set("errorDomain", error.domain);
    payload.set("errorMessage", error.description);
  }
  logQuery(*mediator_, queryName_, "THMPMailPlugin post %@ - %@", kQueryDidCompleteName,
           foundItemCount());
  mediator_->postMessageName(kQueryDidCompleteName, payload, record);
}

}  // namespace thmp
