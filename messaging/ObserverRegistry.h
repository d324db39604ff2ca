// SPDX-License-Identifier: Apache-2.0
//
// Who wants messages of which name: for each name a table from observers, held weakly, to the
// selector to call. Tables are immutable; a change publishes a new one, so that whoever walks a
// table is not disturbed. Changes run wholly under one recursive monitor, lookups never touch it.
// Any thread. No observer is ever called or promoted here.
#pragma once

#include <cassert>
#include <concepts>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "base/mutex.h"
#include "base/value.h"
#include "messaging/SnapshotCell.h"

namespace thmp {

/// An observer's method without the observer's type. `observer` is what the weak pointer it was
/// registered with points to.
using MessageSelector = std::function<void(void* observer, const Value& message)>;

/// `selector`, to be called on observers registered as T.
template <typename T, typename Owner>
requires std::derived_from<T, Owner> MessageSelector
makeMessageSelector(void (Owner::*selector)(const Value& message)) {
  assert(selector != nullptr);
  return [selector](void* observer, const Value& message) {
    (static_cast<T*>(observer)->*selector)(message);
  };
}

class ObserverRegistry {
 public:
  /// Keys are compared by the object they share, never by address: a new object in a dead one's
  /// place is another key, and an observer can be looked up from its own destructor.
  using Table = std::map<std::weak_ptr<void>, MessageSelector, std::owner_less<>>;

  /// Stores `selector` for `observer` and `messageName`, in the place of an earlier one for both.
  void add(const std::weak_ptr<void>& observer, MessageSelector selector,
           const std::string& messageName);
  /// Unknown names and observers change nothing. A table left empty stays.
  void remove(const std::weak_ptr<void>& observer, const std::string& messageName);
  /// From the table of every name.
  void remove(const std::weak_ptr<void>& observer);

  /// The current table of `messageName`, null when nobody ever registered for it. Observers that
  /// are gone may still stand in it.
  std::shared_ptr<const Table> table(std::string_view messageName) const;

 private:
  using Tables = std::map<std::string, std::shared_ptr<const Table>, std::less<>>;

  /// A copy of what is published now.
  Tables currentTables() const;

  RecursiveMutex monitor_;  // held by changes, so that none is lost
  SnapshotCell<Tables> tables_;
};

}  // namespace thmp
