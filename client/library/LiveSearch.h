// SPDX-License-Identifier: Apache-2.0
//
// What has been heard of one search, put in order: its messages are files, which have none. One
// thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/MessageFolders.h"
#include "client/library/tallyhive/client.h"

namespace thmp::client {

struct LiveSearch {
  tallyhive::Query query;
  /// Shared with the call that is running, which may end the search.
  std::shared_ptr<const tallyhive::Handlers> handlers;
  /// The file of the Search, and those of all requests that the plug-in has not taken yet.
  std::string request;
  std::vector<std::string> untaken;
  bool started = false;
  bool gathered = false;
  /// Its host has quit, or another one has started since the search did.
  bool hostGone = false;
  /// A host has started since the Search was sent, and may have deleted it unread.
  bool maybeUnread = false;

  /// Batch names by number, announced and not yet read.
  std::map<std::uint64_t, std::string> batches;
  std::map<std::uint64_t, std::string> removals;
  std::uint64_t nextBatch = 1;
  std::optional<Dictionary> completion;

  /// Keeps what `message`, one of this search, says.
  void note(const Message& message);
  /// A number is missing before the first batch. A listing of the folder may have missed it.
  bool hasGap() const { return !batches.empty() && batches.begin()->first > nextBatch; }
  /// The next batch and its number, taken out.
  std::pair<std::uint64_t, std::string> takeBatch();
};

}  // namespace thmp::client
