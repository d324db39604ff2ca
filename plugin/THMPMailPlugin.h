// SPDX-License-Identifier: Apache-2.0
//
// The plug-in's principal class. Its class operations start it inside the host; its one instance
// owns all that the plug-in does for its clients: the communication center, the registries of
// queries and clients, the pasteboards.
//
// The instance is made on the main thread, where the host's notices arrive too. The handlers of
// messages (connect:, search:, cancel:, clear:, terminate:) are called by the center's scans, on
// the exchange queue or, for the scan that starts a watch, on the thread that starts it. What a
// search asks of the plug-in comes from the engine's threads. All of them may meet: the registries
// and the pool have locks of their own, and none is held while a line is logged.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "base/url.h"
#include "base/value.h"
#include "messaging/THMPMailCommunicationCenter.h"
#include "platform/application.h"
#include "plugin/PasteboardPool.h"
#include "plugin/ProcessState.h"
#include "search/Mediator.h"
#include "search/QueryRegistry.h"
#include "search/SearchExecution.h"

namespace thmp {

class THMPMailPlugin final : public SearchMediator,
                             public std::enable_shared_from_this<THMPMailPlugin> {
 public:
  // Class operations. `process` outlives everything made through it.

  /// load
  static void load(ProcessState& process);
  /// initialize
  /// The start-up sequence, on the calling thread, once in a process; later calls do nothing. The
  /// instance comes afterwards, on the main thread.
  static void initialize(ProcessState& process);
  /// createPluginDataDirectory:
  /// The plug-in data folder, made if it was missing; empty, with `error` filled, when it cannot be
  /// made.
  static std::optional<Url> createPluginDataDirectory(ProcessState& process,
                                                      Error* error = nullptr);
  /// createInstance
  /// Makes an instance and keeps it in place of any other. Does nothing once the host quits. Main
  /// thread.
  static void createInstance(ProcessState& process);

  /// init
  static std::shared_ptr<THMPMailPlugin> create(ProcessState& process);
  /// dealloc
  ~THMPMailPlugin() override;
  THMPMailPlugin(const THMPMailPlugin&) = delete;
  THMPMailPlugin& operator=(const THMPMailPlugin&) = delete;

  /// postMessageName:userInfo:
  /// The plug-in's only way to send. A payload that is no dictionary counts as none. A message
  /// about a query, that is one with a text under "uniqueName", is dropped without a word when no
  /// such query is alive, up to the moment at which its file gets its name. Any thread.
  void postMessageName(std::string_view name, const Value& userInfo);

  // Handlers, each with the whole message. A key of the wrong type is a missing key; a text that is
  // present counts even when it is empty.
  /// connect:
  void connect(const Value& message);
  /// search:
  void search(const Value& message);
  /// cancel:
  void cancel(const Value& message);
  /// clear:
  void clear(const Value& message);
  /// terminate:
  void terminate(const Value& message);

  /// cancelQuery:clientName:
  /// The one way in which a query ends. The name leaves that client's array, and the client goes
  /// with its last name, whether or not there is such a query.
  void cancelQuery(std::string_view uniqueName, const Value& clientName);
  /// terminateClient:queryNames:
  /// Ends the named queries, whomever they belong to, and all of the client's own.
  void terminateClient(std::string_view clientName, const std::vector<std::string>& queryNames);

  // Notices, on the main thread.
  /// workspaceDidTerminateApplicationNotification:
  void workspaceDidTerminateApplicationNotification(const TerminatedApplication& notification);
  /// applicationWillTerminate:
  void applicationWillTerminate();

  // SearchMediator. Any thread.
  void postMessageName(std::string_view name, const Value& userInfo,
                       const std::shared_ptr<THMPMailPluginQuery>& record) override;
  void cancelQuery(std::string_view uniqueName, const Value& clientName,
                   const std::shared_ptr<THMPMailPluginQuery>& record) override;
  std::shared_ptr<LentPasteboard> pasteboardFromPool() override;
  void pasteboardToPool(const std::shared_ptr<LentPasteboard>& pasteboard) override;
  std::vector<FoundItem> loadFilePaths(std::vector<FoundItem> items,
                                       std::uint64_t& foundItemIndex) override;
  void logQueryName(const Value& queryName, std::string_view format,
                    std::span<const LogArg> arguments) override;
  unsigned logLevel() const override { return 1; }
  void logOwnLine(std::string_view line) override;

  // The lookup of messages and the making of queries, which live beside this class.
  /// library
  std::shared_ptr<MailLibrary> library();
  /// scPerformSynchronousSqliteBlock:
  bool scPerformSynchronousSqliteBlock(const std::function<void(sqlite3* handle)>& block);
  /// emlxPathForMessageWithLibraryID:
  std::optional<std::string> emlxPathForMessageWithLibraryID(std::int64_t libraryID);
  /// buildQueryWithString:fetchAllAttributes:
  std::shared_ptr<SpotlightQuery> buildQueryWithString(const std::string& queryString,
                                                       bool fetchAllAttributes);

  const std::shared_ptr<THMPMailCommunicationCenter>& communicationCenter() const {
    return communicationCenter_;
  }
  /// The build version.
  const std::string& version() const { return version_; }
  /// The protocol version.
  const std::string& majorVersion() const { return majorVersion_; }

  // The four collections: snapshots; the setters replace one as a whole. Any thread.
  QueryRegistry::RecordsByName queriesByName() const { return registry_.queriesByName(); }
  void setQueriesByName(QueryRegistry::RecordsByName records);
  QueryRegistry::NamesByClient queryNamesByClient() const { return registry_.queryNamesByClient(); }
  void setQueryNamesByClient(QueryRegistry::NamesByClient names);
  PasteboardPool::List pasteboards() const { return pool_.pasteboards(); }
  void setPasteboards(PasteboardPool::List pasteboards);
  PasteboardPool::List pasteboardPool() const { return pool_.pasteboardPool(); }
  void setPasteboardPool(PasteboardPool::List idle);

 private:
  explicit THMPMailPlugin(ProcessState& process);
  void init();
  void observeHost();
  void registerHandlers();

  Dictionary withVersionKeys(const Value& userInfo) const;
  void finishEnding(const QueryRegistry::Ended& ended);
  void finishEnding(const QueryRegistry::EndedClient& ended);
  bool clientStillRuns(std::string_view endedIdentifier);
  static void showUpdateAlert(Application& application);

  ProcessState& process_;
  std::shared_ptr<THMPMailCommunicationCenter> communicationCenter_;
  QueryRegistry registry_;
  PasteboardPool pool_;
  std::string version_;
  std::string majorVersion_;
  SearchExecution search_;
};

}  // namespace thmp
