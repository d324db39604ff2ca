// SPDX-License-Identifier: Apache-2.0
#include "search/QueryRegistry.h"

#include <algorithm>
#include <unordered_set>
#include <utility>

namespace thmp {

namespace {

// A query that has left the registry calls nobody any more, not even to say that it was cancelled.
void silence(SpotlightQuery& query) {
  query.setFoundItemsHandler(nullptr);
  query.setCompletionHandler(nullptr);
  if (query.setRemovedItemsHandler) query.setRemovedItemsHandler(nullptr);
  if (query.setGatherEndedHandler) query.setGatherEndedHandler(nullptr);
  query.cancel();
}

void silence(const QueryRegistry::Ended& ended) {
  if (ended.searchQuery) silence(*ended.searchQuery);
}

}  // namespace

void QueryRegistry::NameList::append(std::string_view name) {
  const std::uint64_t arrival = next_++;
  const auto [entry, isNew] = arrivals_.try_emplace(std::string(name));
  entry->second.push_back(arrival);
  byArrival_.emplace(arrival, &entry->first);
}

void QueryRegistry::NameList::removeAll(std::string_view name) {
  const auto found = arrivals_.find(name);
  if (found == arrivals_.end()) return;
  for (const std::uint64_t arrival : found->second) byArrival_.erase(arrival);
  arrivals_.erase(found);
}

std::vector<std::string> QueryRegistry::NameList::list() const {
  std::vector<std::string> names;
  names.reserve(byArrival_.size());
  for (const auto& [arrival, name] : byArrival_) names.push_back(*name);
  return names;
}

QueryRegistry::RecordsByName QueryRegistry::queriesByName() const {
  const Lock lock(state_);
  return records_;
}

void QueryRegistry::setQueriesByName(RecordsByName records) {
  const Lock lock(state_);
  records_.swap(records);  // the parameter, and with it the old records, goes after the lock
  pendingCount_ = 0;
  for (const auto& [name, record] : records_) pendingCount_ += record->pendingBatches().size();
}

QueryRegistry::NamesByClient QueryRegistry::queryNamesByClient() const {
  const Lock lock(state_);
  NamesByClient names;
  for (const auto& [client, list] : names_) names.emplace(client, list.list());
  return names;
}

void QueryRegistry::setQueryNamesByClient(NamesByClient names) {
  std::map<std::string, NameList, std::less<>> lists;
  while (!names.empty()) {
    auto entry = names.extract(names.begin());
    NameList& list = lists[std::move(entry.key())];
    for (const std::string& name : entry.mapped()) list.append(name);
  }
  const Lock lock(state_);
  names_.swap(lists);
}

std::shared_ptr<THMPMailPluginQuery> QueryRegistry::add(
    const std::shared_ptr<THMPMailPluginQuery>& record, const Value& clientName) {
  const Lock lock(state_);
  // The name first: should memory end between the two, no query lives on that its client's end
  // would not reach.
  if (const auto client = clientName.asText()) {
    names_[std::string(*client)].append(record->queryName());
  }
  std::shared_ptr<THMPMailPluginQuery> replaced =
      std::exchange(records_[record->queryName().str()], record);
  // A replaced record keeps its pending entries: their pasteboards stay out of the pool.
  if (replaced) pendingCount_ -= replaced->pendingBatches().size();
  pendingCount_ += record->pendingBatches().size();
  return replaced;
}

std::vector<std::string> QueryRegistry::namesOfLineage(const Value& clientName,
                                                       const Value& lineageName) const {
  const auto client = clientName.asText();
  if (!client || !lineageName.asText()) return {};
  const Lock lock(state_);
  const auto found = names_.find(*client);
  if (found == names_.end()) return {};
  std::vector<std::string> names;
  std::unordered_set<std::string> seen;
  for (std::string& name : found->second.list()) {
    const auto record = records_.find(name);
    if (record == records_.end() || record->second->lineageName() != lineageName) continue;
    if (seen.insert(name).second) names.push_back(std::move(name));
  }
  return names;
}

QueryRegistry::Ended QueryRegistry::endLocked(std::string_view uniqueName) {
  Ended ended;
  ended.uniqueName = uniqueName;
  const auto found = records_.find(uniqueName);
  if (found == records_.end()) return ended;
  ended.record = std::move(found->second);
  records_.erase(found);
  ended.searchQuery = ended.record->searchQuery();
  ended.record->setSearchQuery(nullptr);
  ended.pendingBatches.swap(ended.record->pendingBatches());
  pendingCount_ -= ended.pendingBatches.size();
  ended.queriesLeft = records_.size();
  ended.pendingBatchesLeft = pendingCount_;
  return ended;
}

QueryRegistry::Ended QueryRegistry::end(std::string_view uniqueName, const Value& clientName,
                                        const THMPMailPluginQuery* only) {
  Ended ended;
  {
    const Lock lock(state_);
    if (only != nullptr) {
      const auto found = records_.find(uniqueName);
      if (found == records_.end() || found->second.get() != only) return ended;
    }
    ended = endLocked(uniqueName);
    if (const auto client = clientName.asText()) forgetLocked(*client, uniqueName);
  }
  silence(ended);
  return ended;
}

QueryRegistry::EndedClient QueryRegistry::endClientLocked(
    std::string_view clientName, const std::vector<std::string>& queryNames) {
  EndedClient ended;
  ended.clientName = clientName;
  std::unordered_set<std::string> seen;
  const auto endAll = [&](const std::vector<std::string>& names) THMP_REQUIRES(state_) {
    for (const std::string& name : names) {
      if (seen.insert(name).second) ended.queries.push_back(endLocked(name));
    }
  };
  endAll(queryNames);
  if (const auto client = names_.find(clientName); client != names_.end()) {
    endAll(client->second.list());
    names_.erase(client);
  }
  return ended;
}

QueryRegistry::EndedClient QueryRegistry::endClient(std::string_view clientName,
                                                    const std::vector<std::string>& queryNames) {
  EndedClient ended;
  {
    const Lock lock(state_);
    ended = endClientLocked(clientName, queryNames);
  }
  for (const Ended& query : ended.queries) silence(query);
  return ended;
}

std::vector<QueryRegistry::EndedClient> QueryRegistry::endEveryClient() {
  std::vector<EndedClient> ended;
  {
    const Lock lock(state_);
    while (!names_.empty()) {
      const std::string clientName = names_.begin()->first;
      ended.push_back(endClientLocked(clientName, {}));
    }
  }
  for (const EndedClient& client : ended) {
    for (const Ended& query : client.queries) silence(query);
  }
  return ended;
}

void QueryRegistry::forgetLocked(std::string_view clientName, std::string_view uniqueName) {
  const auto client = names_.find(clientName);
  if (client == names_.end()) return;
  client->second.removeAll(uniqueName);
  if (client->second.empty()) names_.erase(client);
}

std::vector<std::string> QueryRegistry::clientNames() const {
  const Lock lock(state_);
  std::vector<std::string> clients;
  for (const auto& [client, list] : names_) clients.push_back(client);
  return clients;
}

std::vector<std::string> QueryRegistry::namesOfClient(std::string_view clientName) const {
  const Lock lock(state_);
  const auto client = names_.find(clientName);
  return client == names_.end() ? std::vector<std::string>() : client->second.list();
}

bool QueryRegistry::isAliveLocked(const THMPMailPluginQuery& record) const {
  const auto found = records_.find(record.queryName().view());
  return found != records_.end() && found->second.get() == &record && record.searchQuery() &&
         !record.searchQuery()->isCancelled();
}

bool QueryRegistry::isAliveLocked(std::string_view uniqueName) const {
  const auto found = records_.find(uniqueName);
  return found != records_.end() && isAliveLocked(*found->second);
}

bool QueryRegistry::isAlive(const THMPMailPluginQuery& record) const {
  const Lock lock(state_);
  return isAliveLocked(record);
}

bool QueryRegistry::isAlive(std::string_view uniqueName) const {
  const Lock lock(state_);
  return isAliveLocked(uniqueName);
}

bool QueryRegistry::publishIfAlive(const THMPMailPluginQuery& record,
                                   const std::function<bool()>& publish) {
  const Lock lock(state_);
  return isAliveLocked(record) && publish();
}

bool QueryRegistry::publishIfAlive(std::string_view uniqueName,
                                   const std::function<bool()>& publish) {
  const Lock lock(state_);
  return isAliveLocked(uniqueName) && publish();
}

QueryRegistry::Delivery QueryRegistry::deliver(THMPMailPluginQuery& record,
                                               std::int64_t libraryID) {
  const Lock lock(state_);
  if (!isAliveLocked(record)) return Delivery::kDead;
  return record.messageIDs().insert(libraryID) ? Delivery::kNew : Delivery::kRepeated;
}

std::vector<PendingBatch> QueryRegistry::pendingBatches(const THMPMailPluginQuery& record) const {
  const Lock lock(state_);
  return record.pendingBatches();
}

bool QueryRegistry::appendPendingIfAlive(THMPMailPluginQuery& record, PendingBatch batch) {
  const Lock lock(state_);
  if (!isAliveLocked(record)) return false;
  record.pendingBatches().push_back(std::move(batch));
  ++pendingCount_;
  return true;
}

std::optional<std::size_t> QueryRegistry::removePending(std::string_view uniqueName,
                                                        const LentPasteboard& pasteboard) {
  std::vector<PendingBatch> removed;  // destroyed after the lock
  const Lock lock(state_);
  const auto found = records_.find(uniqueName);
  if (found == records_.end()) return std::nullopt;
  std::vector<PendingBatch>& pending = found->second->pendingBatches();
  const auto ours = std::stable_partition(
      pending.begin(), pending.end(),
      [&](const PendingBatch& batch) { return batch.pasteboard.get() != &pasteboard; });
  removed.assign(std::make_move_iterator(ours), std::make_move_iterator(pending.end()));
  pending.erase(ours, pending.end());
  pendingCount_ -= removed.size();
  return removed.size();
}

}  // namespace thmp
