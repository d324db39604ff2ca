// SPDX-License-Identifier: Apache-2.0
#include "messaging/ObserverRegistry.h"

#include <utility>

namespace thmp {
namespace {

/// The observers of `table` that are not gone; none of no table.
ObserverRegistry::Table livingObservers(const ObserverRegistry::Table* table) {
  ObserverRegistry::Table living;
  if (table == nullptr) return living;
  for (const auto& entry : *table) {
    if (!entry.first.expired()) living.insert(entry);
  }
  return living;
}

}  // namespace

void ObserverRegistry::add(const std::weak_ptr<void>& observer, MessageSelector selector,
                           const std::string& messageName) {
  const RecursiveLock lock(monitor_);
  Tables tables = currentTables();
  std::shared_ptr<const Table>& stored = tables[messageName];
  auto table = std::make_shared<Table>(livingObservers(stored.get()));
  table->insert_or_assign(observer, std::move(selector));
  stored = std::move(table);
  tables_.set(std::make_shared<const Tables>(std::move(tables)));
}

void ObserverRegistry::remove(const std::weak_ptr<void>& observer, const std::string& messageName) {
  const RecursiveLock lock(monitor_);
  Tables tables = currentTables();
  const auto stored = tables.find(messageName);
  if (stored == tables.end() || !stored->second->contains(observer)) return;
  auto table = std::make_shared<Table>(*stored->second);
  table->erase(observer);
  stored->second = std::move(table);
  tables_.set(std::make_shared<const Tables>(std::move(tables)));
}

void ObserverRegistry::remove(const std::weak_ptr<void>& observer) {
  const RecursiveLock lock(monitor_);
  for (const auto& [messageName, table] : currentTables()) remove(observer, messageName);
}

std::shared_ptr<const ObserverRegistry::Table> ObserverRegistry::table(
    std::string_view messageName) const {
  const std::shared_ptr<const Tables> tables = tables_.get();
  if (!tables) return nullptr;
  const auto found = tables->find(messageName);
  return found == tables->end() ? nullptr : found->second;
}

ObserverRegistry::Tables ObserverRegistry::currentTables() const {
  const std::shared_ptr<const Tables> tables = tables_.get();
  return tables ? *tables : Tables();
}

}  // namespace thmp
