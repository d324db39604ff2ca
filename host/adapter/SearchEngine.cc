// SPDX-License-Identifier: Apache-2.0
#include "host/adapter/SearchEngine.h"

#include <algorithm>
#include <atomic>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "host/index/MatchedMessages.h"
#include "host/index/RowSet.h"
#include "host/index/message_view.h"
#include "host/query/evaluator.h"

namespace thmp {
namespace {

// What is fetched when the caller gives no list.
const std::vector<std::string>& defaultAttributes() {
  static const std::vector<std::string> kNames = {"_kMDItemExternalID", "kMDItemDisplayName",
                                                  "kMDItemContentType"};
  return kNames;
}

// Of kinds of records, that a query knows at once.
constexpr std::size_t kMostLayouts = 1'000;

}  // namespace

Error searchError(SearchErrorCode code) {
  const auto text = [code]() -> std::string {
    switch (code) {
      case SearchErrorCode::kIndexUnreachable:
        return "The index is unreachable.";
      case SearchErrorCode::kInvalidQuery:
        return "The query is invalid.";
      case SearchErrorCode::kCancelled:
        return "The query was cancelled.";
      case SearchErrorCode::kUnknown:
        break;
    }
    return "An unknown error occurred.";
  };
  return Error{kSearchErrorDomain, static_cast<std::int64_t>(code), text(), nullptr};
}

// What outlives any one query: queries hold it, so that none needs the engine object itself.
struct SearchEngine::Shared {
  Shared(Index& index_, ThreadPool& pool_, SearchEngineOptions options_)
      : index(index_), pool(pool_), options(std::move(options_)) {}

  Index& index;
  ThreadPool& pool;
  const SearchEngineOptions options;
  Mutex mutex;
  std::vector<std::weak_ptr<Core>> live THMP_GUARDED_BY(mutex);
};

// The query as the strand runs it. Tasks hold it strongly; the caller's Query holds it, and its end
// cancels it.
class SearchEngine::Core : public std::enable_shared_from_this<Core> {
 public:
  Core(std::shared_ptr<Shared> shared, std::string text,
       const std::shared_ptr<const std::vector<std::string>>& attributes)
      : shared_(std::move(shared)),
        text_(std::move(text)),
        strand_(std::make_shared<Strand>(shared_->pool)),
        entries_(std::make_shared<const RecordEntries>(
            selectAttributes(attributes ? *attributes : defaultAttributes()))) {}

  template <typename Handler>
  void setHandler(std::shared_ptr<const Handler> Core::*slot,
                  std::shared_ptr<const Handler> handler) {
    // The old one is destroyed outside the lock: it may hold anything.
    const Lock lock(mutex_);
    std::swap(this->*slot, handler);
  }

  void setLive(bool live) {
    const Lock lock(mutex_);
    live_ = live;
  }

  void start() {
    {
      const Lock lock(mutex_);
      if (std::exchange(started_, true)) return;
      if (live_ && !cancelled_) joinLiveQueries();
    }
    strand_->post([self = shared_from_this()] { self->run(); });
  }

  void cancel() {
    if (cancelled_.exchange(true)) return;
    {
      const Lock lock(mutex_);
      if (!started_) return;  // a later start() tells it
    }
    strand_->post(
        [self = shared_from_this()] { self->complete(searchError(SearchErrorCode::kCancelled)); });
  }

  bool isCancelled() const { return cancelled_; }
  std::uint64_t foundItemCount() const { return found_; }

  /// On any thread, after a commit of the index.
  void indexChanged(std::shared_ptr<const IndexChange> change) {
    strand_->post(
        [self = shared_from_this(), change = std::move(change)] { self->follow(*change); });
  }

  std::shared_ptr<const SpotlightQuery::FoundItemsHandler> foundItems_;
  std::shared_ptr<const SpotlightQuery::CompletionHandler> completion_;
  std::shared_ptr<const SpotlightQuery::RemovedItemsHandler> removedItems_;
  std::shared_ptr<const SpotlightQuery::GatherEndedHandler> gatherEnded_;

 private:
  void joinLiveQueries() {
    const Lock lock(shared_->mutex);
    std::erase_if(shared_->live, [](const std::weak_ptr<Core>& core) { return core.expired(); });
    shared_->live.push_back(weak_from_this());
  }

  // Reads a handler at the moment of its call; null once the query is cancelled, unless it is the
  // completion's own turn.
  template <typename Handler>
  std::shared_ptr<const Handler> handler(std::shared_ptr<const Handler> Core::*slot,
                                         bool evenCancelled = false) {
    const Lock lock(mutex_);
    return cancelled_ && !evenCancelled ? nullptr : this->*slot;
  }

  void run() {
    if (cancelled_) {
      complete(searchError(SearchErrorCode::kCancelled));
      return;
    }
    followed_ = [this] {
      const Lock lock(mutex_);
      return live_;
    }();
    query_ = query::parse(text_, shared_->options.queryOptions());
    if (!query_) {
      complete(searchError(SearchErrorCode::kInvalidQuery));
      return;
    }
    if (!gather()) {
      complete(searchError(SearchErrorCode::kIndexUnreachable));
      return;
    }
    if (!followed_) {
      complete(cancelled_ ? searchError(SearchErrorCode::kCancelled) : Error{});
    } else if (const auto ended = handler(&Core::gatherEnded_)) {
      (*ended)();
    }
  }

  bool gather() {
    const Result<void> walked = shared_->index.forEachPortion(
        *query_, shared_->options.deliveryLimit, cancelled_,
        [&](const std::shared_ptr<Index::MatchedMessages>& portion) {
          deliver(itemsOf(portion));
          if (entries_->layoutCount() > kMostLayouts) renewEntries();
          for (std::size_t place = 0; followed_ && place < portion->size(); ++place) {
            if (portion->isLost(place)) matching_.erase(static_cast<Row>(portion->id(place)));
          }
          return true;
        });
    renewEntries();
    if (!shared_->options.indexUnreadable) return true;
    // Damage is told also where the answer could be had in spite of it.
    if (walked && !shared_->index.isDamaged()) return true;
    return shared_->options.indexUnreadable() || walked || cancelled_;
  }

  void renewEntries() { entries_ = std::make_shared<const RecordEntries>(entries_->wanted()); }

  std::vector<SpotlightItem> itemsOf(const std::shared_ptr<Index::MatchedMessages>& portion) {
    std::vector<SpotlightItem> items;
    items.reserve(portion->size());
    for (std::size_t place = 0; place < portion->size(); ++place) {
      if (portion->isLost(place)) continue;
      if (followed_) matching_.insert(static_cast<Row>(portion->id(place)));
      SpotlightItem& item = items.emplace_back();
      item.identifier = std::to_string(portion->id(place));
      item.attributes = attributesOf(portion, place, entries_);
    }
    return items;
  }

  bool matches(const IndexedMessage& message) const {
    return query::matches(*query_, IndexedMessageView(message));
  }

  SpotlightItem itemOf(IndexedMessage&& message) const {
    SpotlightItem item;
    item.identifier = std::to_string(message.id());
    item.attributes = attributesOf(std::move(message), entries_);
    return item;
  }

  void deliver(std::vector<SpotlightItem> items) {
    if (items.empty()) return;
    found_ += items.size();
    if (const auto found = handler(&Core::foundItems_)) (*found)(items);
  }

  // Each list of a change tells which messages to look at; what they are now decides, so that late
  // news do no harm.
  void follow(const IndexChange& change) {
    if (cancelled_ || completed_ || !query_) return;
    std::vector<SpotlightItem> found;
    Array removed;
    const auto look = [&](std::int64_t id) {
      if (!isRow(id)) return;
      const auto row = static_cast<Row>(id);
      std::optional<IndexedMessage> message = shared_->index.get(id);
      const bool matchesNow = message && matches(*message);
      if (matchesNow == matching_.contains(row)) return;
      if (matchesNow) {
        matching_.insert(row);
        found.push_back(itemOf(std::move(*message)));
      } else {
        matching_.erase(row);
        removed.push_back(Value(std::to_string(id)));
      }
    };
    // Newest first, as in the gathering.
    std::for_each(change.added.rbegin(), change.added.rend(), look);
    std::for_each(change.changed.rbegin(), change.changed.rend(), look);
    std::for_each(change.removed.rbegin(), change.removed.rend(), look);
    for (std::size_t begin = 0; begin < found.size(); begin += shared_->options.deliveryLimit) {
      const std::size_t end = std::min(begin + shared_->options.deliveryLimit, found.size());
      const auto at = [&](std::size_t place) {
        return std::make_move_iterator(found.begin() + static_cast<std::ptrdiff_t>(place));
      };
      deliver(std::vector<SpotlightItem>(at(begin), at(end)));
    }
    if (!found.empty()) renewEntries();
    if (removed.empty()) return;
    if (const auto handlerOfRemoved = handler(&Core::removedItems_)) {
      (*handlerOfRemoved)("com.apple.mail", Value(removed));
    }
  }

  // Once, whatever comes.
  void complete(const Error& error) {
    if (std::exchange(completed_, true)) return;
    matching_.clear();
    if (const auto completion = handler(&Core::completion_, /*evenCancelled=*/true))
      (*completion)(error);
  }

  const std::shared_ptr<Shared> shared_;
  const std::string text_;
  const std::shared_ptr<Strand> strand_;
  std::atomic<bool> cancelled_{false};
  std::atomic<std::uint64_t> found_{0};

  // The handlers above, and:
  Mutex mutex_;
  bool started_ THMP_GUARDED_BY(mutex_) = false;
  bool live_ THMP_GUARDED_BY(mutex_) = false;

  // On the strand only.
  /// Anew when it has become large, and when nothing is left to be delivered.
  std::shared_ptr<const RecordEntries> entries_;
  std::optional<query::Query> query_;
  bool followed_ = false;  // live
  RowSet matching_;        // while followed
  bool completed_ = false;
};

class SearchEngine::Query : public SpotlightQuery {
 public:
  explicit Query(std::shared_ptr<Core> core) : core_(std::move(core)) {
    setRemovedItemsHandler = [core = std::weak_ptr(core_)](auto handler) {
      if (const auto alive = core.lock())
        alive->setHandler(&Core::removedItems_, std::move(handler));
    };
    setGatherEndedHandler = [core = std::weak_ptr(core_)](auto handler) {
      if (const auto alive = core.lock())
        alive->setHandler(&Core::gatherEnded_, std::move(handler));
    };
    queryContext = [core = std::weak_ptr(core_)] {
      auto context = std::make_shared<SpotlightQueryContext>();
      context->setLive = [core](bool live) {
        if (const auto alive = core.lock()) alive->setLive(live);
      };
      return context;
    };
  }
  ~Query() override { core_->cancel(); }
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  void setFoundItemsHandler(std::shared_ptr<const FoundItemsHandler> handler) override {
    core_->setHandler(&Core::foundItems_, std::move(handler));
  }
  void setCompletionHandler(std::shared_ptr<const CompletionHandler> handler) override {
    core_->setHandler(&Core::completion_, std::move(handler));
  }
  void start() override { core_->start(); }
  void cancel() override { core_->cancel(); }
  bool isCancelled() const override { return core_->isCancelled(); }
  std::uint64_t foundItemCount() const override { return core_->foundItemCount(); }

 private:
  const std::shared_ptr<Core> core_;
};

SearchEngine::SearchEngine(Index& index, ThreadPool& pool, SearchEngineOptions options)
    : shared_(std::make_shared<Shared>(index, pool, std::move(options))) {
  listener_ = index.addListener([shared = shared_](const IndexChange& change) {
    const auto copy = std::make_shared<const IndexChange>(change);
    std::vector<std::shared_ptr<Core>> live;
    {
      const Lock lock(shared->mutex);
      for (const std::weak_ptr<Core>& core : shared->live) {
        if (auto alive = core.lock(); alive && !alive->isCancelled())
          live.push_back(std::move(alive));
      }
    }
    for (const std::shared_ptr<Core>& core : live) core->indexChanged(copy);
  });
}

SearchEngine::~SearchEngine() { shared_->index.removeListener(listener_); }

std::shared_ptr<SpotlightQuery> SearchEngine::makeQuery(
    const std::string& queryString, std::shared_ptr<const std::vector<std::string>> attributes) {
  return std::make_shared<Query>(std::make_shared<Core>(shared_, queryString, attributes));
}

std::size_t SearchEngine::liveQueryCount() const {
  const Lock lock(shared_->mutex);
  return static_cast<std::size_t>(std::count_if(shared_->live.begin(), shared_->live.end(),
                                                [](const std::weak_ptr<Core>& core) {
                                                  const auto alive = core.lock();
                                                  return alive && !alive->isCancelled();
                                                }));
}

}  // namespace thmp
