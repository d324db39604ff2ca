// SPDX-License-Identifier: Apache-2.0
//
// One search from the request to its end: sends Search, reads each batch as it is announced and
// clears it, and ends by itself, with the query, or by a signal. One thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/value.h"
#include "client/Exchange.h"
#include "client/SearchOutput.h"
#include "console/terminal.h"
#include "platform/linux/PasteboardReader.h"

namespace thmp::client {

struct SearchRequest {
  std::string uniqueName;
  std::string clientName;
  /// A predicate; empty finds all mail.
  std::string query;
  std::optional<std::string> lineageName;
  std::optional<std::string> sortingAttribute;
  bool sortAscending = false;
  /// Goes on after gathering, until interrupted.
  bool live = false;
  /// How long the plug-in may take to answer at all.
  std::chrono::milliseconds timeout{5000};
};

class SearchSession {
 public:
  /// All references outlive it.
  SearchSession(SearchRequest request, Exchange& exchange, const PasteboardReader& pasteboards,
                console::StandardOutput& standardOutput, SearchOutput& output);

  /// Returns the program's exit status. Errors are told in one line on standard error.
  int run();

 private:
  using Clock = std::chrono::steady_clock;
  struct Batch {
    std::string name;
    bool removals = false;
  };

  bool sendSearch();
  void post(std::string_view name, const Dictionary& userInfo);
  Dictionary ownKeys() const;

  std::optional<int> look();
  bool isOwn(const Message& message);
  std::optional<int> handleCompletion(const Dictionary& userInfo);
  void readBatches();
  void read(const Batch& batch);
  void clear(const std::string& batchName);
  bool readResults(const std::string& name, Error& error);
  bool readRemovals(const std::string& name, Error& error);
  void cancel();
  int interrupted();

  const SearchRequest request_;
  Exchange& exchange_;
  const PasteboardReader& pasteboards_;
  console::StandardOutput& standardOutput_;
  SearchOutput& output_;

  Clock::time_point begun_;
  bool started_ = false;
  bool gathered_ = false;
  Received received_;
  // Announced and not yet read, by number: files have no order.
  std::map<std::uint64_t, Batch> batches_;
  std::map<std::uint64_t, Batch> removals_;
  std::uint64_t nextBatch_ = 1;
  bool gapSeen_ = false;
  // What notices for all clients said since the last look.
  bool newHost_ = false;
  bool hostQuit_ = false;
  std::string search_;                   // the file of our Search
  std::vector<std::string> unanswered_;  // our requests' files
};

}  // namespace thmp::client
