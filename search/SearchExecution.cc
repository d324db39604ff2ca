// SPDX-License-Identifier: Apache-2.0
#include "search/SearchExecution.h"

#include <string>
#include <utility>

#include "messaging/message_names.h"
#include "search/SearchSession.h"
#include "search/query_log.h"

namespace thmp {

namespace {

constexpr std::string_view kMailOnly = "kMDItemContentType = \"public.email-message\"";

/// A value of another kind is no value.
Value textOrNull(const Value& value) { return value.asText() ? value : Value(); }

/// The client's text within mail messages.
std::string composedQuery(const Value& queryString) {
  const std::string_view text = queryString.asText().value_or("");
  if (text.empty()) return std::string(kMailOnly);
  std::string composed = "(";
  composed.append(kMailOnly).append(") && (").append(text).append(")");
  return composed;
}

void installCallbacks(SpotlightQuery& query, const std::shared_ptr<SearchSession>& session) {
  query.setFoundItemsHandler(std::make_shared<const SpotlightQuery::FoundItemsHandler>(
      [session](std::span<const SpotlightItem> items) { session->foundItems(items); }));
  query.setCompletionHandler(std::make_shared<const SpotlightQuery::CompletionHandler>(
      [session](const Error& error) { session->completed(error); }));
  if (query.setRemovedItemsHandler) {
    query.setRemovedItemsHandler(std::make_shared<const SpotlightQuery::RemovedItemsHandler>(
        [session](const std::string&, const Value& identifiers) {
          session->removedItems(identifiers);
        }));
  }
  if (!query.queryContext || !query.setGatherEndedHandler) return;
  const std::shared_ptr<SpotlightQueryContext> context = query.queryContext();
  if (!context || !context->setLive) return;
  context->setLive(true);
  query.setGatherEndedHandler(std::make_shared<const SpotlightQuery::GatherEndedHandler>(
      [session] { session->gatherEnded(); }));
}

}  // namespace

void SearchExecution::search(const Value& message,
                             const std::shared_ptr<SearchMediator>& mediator) {
  const Dictionary userInfo = message["userInfo"].asDictionary().value_or(Dictionary());
  const Value uniqueName = textOrNull(userInfo["uniqueName"]);
  const Value clientName = textOrNull(userInfo["clientName"]);
  logQuery(*mediator, uniqueName, "THMPMailPlugin received %@ / %@ - %@", message["name"],
           clientName, userInfo["version"]);

  const Value lineageName = textOrNull(userInfo["lineageName"]);
  for (const std::string& name : registry_.namesOfLineage(clientName, lineageName)) {
    mediator->cancelQuery(name, clientName, nullptr);
  }
  if (uniqueName.isNull()) return;

  const Value queryString = textOrNull(userInfo["queryString"]);
  logQuery(*mediator, uniqueName, "THMPMailPlugin query %@", queryString);
  SearchRequest request{userInfo, *uniqueName.asSharedText(), clientName,
                        textOrNull(userInfo["sortingAttribute"]),
                        userInfo["sortAscending"].booleanValue()};
  const auto record = std::make_shared<THMPMailPluginQuery>(request.uniqueName);
  record->setClientName(clientName);
  record->setLineageName(lineageName);
  record->setQueryString(queryString);
  record->setSortingAttribute(request.sortingAttribute);
  record->setSortAscending(request.sortAscending);
  const std::shared_ptr<SpotlightQuery> searchQuery =
      buildQueryWithString(platform_.spotlight, attributeList_, composedQuery(queryString),
                           /*fetchAllAttributes=*/true);
  if (!searchQuery) return;
  record->setSearchQuery(searchQuery);
  installCallbacks(*searchQuery,
                   std::make_shared<SearchSession>(std::move(request), platform_, registry_,
                                                   mediator, posting_, record));

  // Before the post: nothing is posted for a query that is not registered. A record that had the
  // name before goes here, and its query with it.
  registry_.add(record, clientName);
  logQuery(*mediator, uniqueName, "THMPMailPlugin post %@", kQueryDidStartName);
  mediator->postMessageName(kQueryDidStartName, userInfo, record);
  searchQuery->start();
}

}  // namespace thmp
