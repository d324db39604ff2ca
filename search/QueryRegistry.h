// SPDX-License-Identifier: Apache-2.0
//
// The registries of live queries and of the clients that asked for them, with the plug-in's one
// state lock.
//
// They are used by the exchange queue, by the main thread (an application has quit, the host quits)
// and by the engine's threads at the same time; each operation here is one critical section. Inside
// it nothing is logged and nothing is called but the `publish` step of publishIfAlive and a query's
// isCancelled. What leaves a registry (records, engine queries, pasteboards) is handed out and
// destroyed by the caller, outside the lock. Lock order: state, pool, single pasteboard.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/mutex.h"
#include "base/value.h"
#include "search/THMPMailPluginQuery.h"

namespace thmp {

class QueryRegistry {
 public:
  using RecordsByName = std::map<std::string, std::shared_ptr<THMPMailPluginQuery>, std::less<>>;
  using NamesByClient = std::map<std::string, std::vector<std::string>, std::less<>>;

  // Snapshots; changing them changes nothing here. The setters replace a whole registry, as the
  // plug-in's accessors do.
  RecordsByName queriesByName() const;
  void setQueriesByName(RecordsByName records);
  NamesByClient queryNamesByClient() const;
  void setQueryNamesByClient(NamesByClient names);

  /// Registers `record` under its name in place of any other, which is returned (not cancelled) for
  /// the caller to drop, and appends the name to the client's array when `clientName` is a text.
  std::shared_ptr<THMPMailPluginQuery> add(const std::shared_ptr<THMPMailPluginQuery>& record,
                                           const Value& clientName);

  /// Names of the client's queries whose records have a lineage equal to `lineageName`, each once,
  /// in the order of the client's array. None unless both are texts.
  std::vector<std::string> namesOfLineage(const Value& clientName, const Value& lineageName) const;

  /// What a cancelled query leaves for its caller to end, drop and return.
  struct Ended {
    std::string uniqueName;
    /// Null when no query had that name; then all below is empty.
    std::shared_ptr<THMPMailPluginQuery> record;
    std::shared_ptr<SpotlightQuery> searchQuery;
    std::vector<PendingBatch> pendingBatches;
    std::size_t queriesLeft = 0;
    std::size_t pendingBatchesLeft = 0;
  };
  /// Takes the query out of the registry; its record loses searchQuery and pending batches. When
  /// `clientName` is a text, every `uniqueName` also leaves that client's array, and the client
  /// goes with its last name, whether or not the query was found. All that is one step. Then,
  /// outside the lock and before this returns, the engine query's handlers are detached and it is
  /// cancelled. With `only`, nothing at all happens unless that very record is registered under the
  /// name.
  Ended end(std::string_view uniqueName, const Value& clientName,
            const THMPMailPluginQuery* only = nullptr);

  struct EndedClient {
    std::string clientName;
    std::vector<Ended> queries;
  };
  /// Ends, in one step, the queries of `queryNames` and of the client's array, each name once, and
  /// forgets the client.
  EndedClient endClient(std::string_view clientName, const std::vector<std::string>& queryNames);
  /// Ends every client known, in one step.
  std::vector<EndedClient> endEveryClient();

  std::vector<std::string> clientNames() const;
  std::vector<std::string> namesOfClient(std::string_view clientName) const;

  /// Whether the record registered under its name is this very one, has a searchQuery, and that is
  /// not cancelled.
  bool isAlive(const THMPMailPluginQuery& record) const;
  /// Whether any such record is registered under `uniqueName`.
  bool isAlive(std::string_view uniqueName) const;

  /// Runs `publish` under the state lock if the query is alive, so that no message leaves once a
  /// cancel has returned. With a record it must be that one; else any live query of that name.
  /// False, without a call, when it is not alive.
  bool publishIfAlive(const THMPMailPluginQuery& record, const std::function<bool()>& publish);
  bool publishIfAlive(std::string_view uniqueName, const std::function<bool()>& publish);

  enum class Delivery { kNew, kRepeated, kDead };
  /// Adds `libraryID` to the IDs delivered for the record, if that is alive.
  Delivery deliver(THMPMailPluginQuery& record, std::int64_t libraryID);

  /// Copies of the record's pending entries, oldest first.
  std::vector<PendingBatch> pendingBatches(const THMPMailPluginQuery& record) const;
  /// False when the record is not alive; nothing is appended then.
  [[nodiscard]] bool appendPendingIfAlive(THMPMailPluginQuery& record, PendingBatch batch);

  /// How many pending entries of the query held this very pasteboard; they are removed. Empty when
  /// no such query.
  std::optional<std::size_t> removePending(std::string_view uniqueName,
                                           const LentPasteboard& pasteboard);

 private:
  /// Names in the order of arrival, each as often as it came. Taking out is quick however many
  /// there are, because a client may end with all its queries at once.
  class NameList {
   public:
    NameList() = default;
    NameList(const NameList&) = delete;
    NameList& operator=(const NameList&) = delete;

    void append(std::string_view name);
    void removeAll(std::string_view name);
    bool empty() const { return byArrival_.empty(); }
    std::vector<std::string> list() const;

   private:
    std::map<std::string, std::vector<std::uint64_t>, std::less<>> arrivals_;
    std::map<std::uint64_t, const std::string*> byArrival_;  // into the keys of arrivals_
    std::uint64_t next_ = 0;
  };

  bool isAliveLocked(const THMPMailPluginQuery& record) const THMP_REQUIRES(state_);
  bool isAliveLocked(std::string_view uniqueName) const THMP_REQUIRES(state_);
  Ended endLocked(std::string_view uniqueName) THMP_REQUIRES(state_);
  EndedClient endClientLocked(std::string_view clientName,
                              const std::vector<std::string>& queryNames) THMP_REQUIRES(state_);
  void forgetLocked(std::string_view clientName, std::string_view uniqueName) THMP_REQUIRES(state_);

  mutable Mutex state_;
  RecordsByName records_ THMP_GUARDED_BY(state_);
  std::map<std::string, NameList, std::less<>> names_ THMP_GUARDED_BY(state_);
  // Pending entries of all registered records.
  std::size_t pendingCount_ THMP_GUARDED_BY(state_) = 0;
};

}  // namespace thmp
