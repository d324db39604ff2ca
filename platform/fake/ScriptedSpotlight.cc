// SPDX-License-Identifier: Apache-2.0
#include "platform/fake/ScriptedSpotlight.h"

#include <utility>

namespace thmp {

SpotlightItem mailItem(std::int64_t libraryID, Dictionary attributes) {
  attributes.set("_kMDItemExternalID", Value(libraryID));
  return {"item-" + std::to_string(libraryID), std::move(attributes), std::nullopt};
}

/// What the core holds.
class ScriptedSpotlightHandle : public SpotlightQuery {
 public:
  using Query = std::shared_ptr<ScriptedSpotlightQuery>;

  ScriptedSpotlightHandle(const Query& query, const SpotlightCapabilities& capabilities)
      : query_(query) {
    if (capabilities.removedItemsHandler) {
      setRemovedItemsHandler = [query](std::shared_ptr<const RemovedItemsHandler> handler) {
        set(*query, "setRemovedItemsHandler:", &Handlers::removedItems, std::move(handler));
      };
    }
    if (capabilities.gatherEndedHandler) {
      setGatherEndedHandler = [query](std::shared_ptr<const GatherEndedHandler> handler) {
        set(*query, "setGatherEndedHandler:", &Handlers::gatherEnded, std::move(handler));
      };
    }
    if (capabilities.queryContext) {
      queryContext = [query, live = capabilities.live] { return makeContext(query, live); };
    }
  }

  ~ScriptedSpotlightHandle() override {
    query_->note("destroyed");
    query_->cancel();
    Handlers ended;  // with what they hold, after the lock is released
    const Lock lock(query_->mutex_);
    std::swap(ended, query_->handlers_);
    query_->dropped_ = true;
  }

  void setFoundItemsHandler(std::shared_ptr<const FoundItemsHandler> handler) override {
    set(*query_, "setFoundItemsHandler:", &Handlers::foundItems, std::move(handler));
  }

  void setCompletionHandler(std::shared_ptr<const CompletionHandler> handler) override {
    set(*query_, "setCompletionHandler:", &Handlers::completion, std::move(handler));
  }

  void start() override {
    query_->note("start");
    {
      const Lock lock(query_->mutex_);
      query_->started_ = true;
    }
    if (query_->onStart_) query_->onStart_(*query_);
  }

  void cancel() override {
    query_->note("cancel");
    query_->cancel();
  }

  bool isCancelled() const override { return query_->isCancelled(); }

  std::uint64_t foundItemCount() const override {
    const Lock lock(query_->mutex_);
    return query_->foundItemCount_;
  }

 private:
  using Handlers = ScriptedSpotlightQuery::Handlers;

  template <typename Handler>
  static void set(ScriptedSpotlightQuery& query, const std::string& call, Handler Handlers::*place,
                  Handler handler) {
    query.note(handler ? call : call + " null");
    const Lock lock(query.mutex_);
    // The old one is destroyed with the argument, after the lock is released.
    (query.handlers_.*place).swap(handler);
  }

  static std::shared_ptr<SpotlightQueryContext> makeContext(const Query& query, bool live) {
    query->note("queryContext");
    auto context = std::make_shared<SpotlightQueryContext>();
    if (live) {
      context->setLive = [query](bool value) {
        query->note("setLive:");
        const Lock lock(query->mutex_);
        query->live_ = value;
      };
    }
    return context;
  }

  const Query query_;
};

ScriptedSpotlightQuery::ScriptedSpotlightQuery(std::string text, Attributes attributes)
    : text_(std::move(text)), attributes_(std::move(attributes)) {}

bool ScriptedSpotlightQuery::deliver(const std::vector<SpotlightItem>& items) {
  const RecursiveLock strand(strand_);
  const auto handler = handlers().foundItems;
  if (!running() || !handler) return false;
  {
    const Lock lock(mutex_);
    foundItemCount_ += items.size();
  }
  (*handler)(items);
  return true;
}

bool ScriptedSpotlightQuery::removed(const Value& identifiers) {
  const RecursiveLock strand(strand_);
  const auto handler = handlers().removedItems;
  if (!running() || !handler) return false;
  (*handler)("", identifiers);
  return true;
}

bool ScriptedSpotlightQuery::gatherEnded() {
  const RecursiveLock strand(strand_);
  const auto handler = handlers().gatherEnded;
  if (!running() || !handler) return false;
  (*handler)();
  return true;
}

bool ScriptedSpotlightQuery::complete(const Error& error) {
  const RecursiveLock strand(strand_);
  const auto handler = handlers().completion;
  if (!handler || !(running() || (isCancelled() && error.isSet()))) return false;
  (*handler)(error);
  return true;
}

void ScriptedSpotlightQuery::setFoundItemCount(std::uint64_t count) {
  const Lock lock(mutex_);
  foundItemCount_ = count;
}

std::vector<std::string> ScriptedSpotlightQuery::calls() const {
  const Lock lock(mutex_);
  return calls_;
}

bool ScriptedSpotlightQuery::started() const {
  const Lock lock(mutex_);
  return started_;
}

bool ScriptedSpotlightQuery::isCancelled() const {
  const Lock lock(mutex_);
  return cancelled_;
}

std::optional<bool> ScriptedSpotlightQuery::live() const {
  const Lock lock(mutex_);
  return live_;
}

bool ScriptedSpotlightQuery::handleDropped() const {
  const Lock lock(mutex_);
  return dropped_;
}

std::shared_ptr<const SpotlightQuery::FoundItemsHandler> ScriptedSpotlightQuery::foundItemsHandler()
    const {
  return handlers().foundItems;
}

std::shared_ptr<const SpotlightQuery::CompletionHandler> ScriptedSpotlightQuery::completionHandler()
    const {
  return handlers().completion;
}

std::shared_ptr<const SpotlightQuery::RemovedItemsHandler>
ScriptedSpotlightQuery::removedItemsHandler() const {
  return handlers().removedItems;
}

std::shared_ptr<const SpotlightQuery::GatherEndedHandler>
ScriptedSpotlightQuery::gatherEndedHandler() const {
  return handlers().gatherEnded;
}

void ScriptedSpotlightQuery::note(const std::string& call) noexcept {
  const Lock lock(mutex_);
  try {
    calls_.push_back(call);
  } catch (...) {
    // Also called by a destructor; without memory the record misses a call.
  }
}

void ScriptedSpotlightQuery::cancel() {
  {
    const Lock lock(mutex_);
    if (std::exchange(cancelled_, true)) return;
  }
  if (onCancel_) onCancel_(*this);
}

ScriptedSpotlightQuery::Handlers ScriptedSpotlightQuery::handlers() const {
  const Lock lock(mutex_);
  return handlers_;
}

bool ScriptedSpotlightQuery::running() const {
  const Lock lock(mutex_);
  return started_ && !cancelled_;
}

void ScriptedSpotlight::setCapabilities(const SpotlightCapabilities& capabilities) {
  const Lock lock(mutex_);
  capabilities_ = capabilities;
}

void ScriptedSpotlight::failQueries(bool fails) {
  const Lock lock(mutex_);
  fails_ = fails;
}

void ScriptedSpotlight::onStart(ScriptedSpotlightQuery::Hook hook) {
  const Lock lock(mutex_);
  onStart_ = std::move(hook);
}

void ScriptedSpotlight::onCancel(ScriptedSpotlightQuery::Hook hook) {
  const Lock lock(mutex_);
  onCancel_ = std::move(hook);
}

std::vector<std::shared_ptr<ScriptedSpotlightQuery>> ScriptedSpotlight::queries() const {
  const Lock lock(mutex_);
  return queries_;
}

std::shared_ptr<ScriptedSpotlightQuery> ScriptedSpotlight::query() const {
  const Lock lock(mutex_);
  return queries_.empty() ? nullptr : queries_.back();
}

std::shared_ptr<SpotlightQuery> ScriptedSpotlight::makeQuery(
    const std::string& queryString, std::shared_ptr<const std::vector<std::string>> attributes) {
  const Lock lock(mutex_);
  if (fails_) return nullptr;
  auto query = std::make_shared<ScriptedSpotlightQuery>(queryString, std::move(attributes));
  query->onStart_ = onStart_;
  query->onCancel_ = onCancel_;
  queries_.push_back(query);
  return std::make_shared<ScriptedSpotlightHandle>(query, capabilities_);
}

bool ScriptedSpotlight::itemsHaveAttributes() {
  const Lock lock(mutex_);
  return capabilities_.itemAttributes;
}

}  // namespace thmp
