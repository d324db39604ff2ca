// SPDX-License-Identifier: Apache-2.0
//
// What stands behind tallyhive::Client: the folders of the exchange, the searches that live, and
// those that are being cancelled. One thread.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/FolderEvents.h"
#include "client/MessageFolders.h"
#include "client/library/LiveSearch.h"
#include "client/library/tallyhive/client.h"
#include "platform/linux/PasteboardReader.h"

namespace tallyhive {

class __attribute__((visibility("hidden"))) Client::State {
 public:
  State(std::string name, std::unique_ptr<thmp::client::MessageFolders> folders,
        thmp::client::FolderEvents events, const std::string& cacheHome);

  static thmp::Result<std::unique_ptr<State>> open(std::string name);

  /// False when no plug-in answers in time; an error when the request cannot be written.
  thmp::Result<bool> connect(std::chrono::milliseconds timeout);
  thmp::Result<std::string> search(const Query& query, Handlers handlers);
  void cancel(const std::string& search);
  bool cancelAll(std::chrono::milliseconds patience);
  void clear(const std::string& search, const std::string& batch);
  void dispatch();
  bool wait(std::optional<std::chrono::milliseconds> timeout);

  int descriptor() const { return events_.descriptor(); }
  const std::string& pluginVersion() const { return pluginVersion_; }

 private:
  using Clock = std::chrono::steady_clock;
  using LiveSearch = thmp::client::LiveSearch;
  using SearchPointer = std::shared_ptr<LiveSearch>;

  // A search of which nothing is wanted any more. Its Cancel must overtake none of its requests;
  // one that a newer search of its lineage ends needs none.
  struct Leaving {
    std::vector<std::string> untaken;
    bool cancelSent = false;
  };

  thmp::Dictionary ownKeys(const std::string& search) const;
  thmp::Result<void> send(const std::string& name, LiveSearch& search);
  void leaveLineage(const std::string& lineage, const std::string& successor);
  bool isLive(const std::string& name, const SearchPointer& search) const;
  bool isOwn(const thmp::client::Message& message) const;
  bool noteWhatCame();
  void noteNewHost();
  void noteQuit(const thmp::Dictionary& info);
  void sendAnew(const std::string& name, const SearchPointer& search);
  void deliver(const std::string& name, const SearchPointer& search);
  void deliverBatches(const std::string& name, const SearchPointer& search);
  void deliverRemovals(const std::string& name, const SearchPointer& search);
  void deliverCompletion(const std::string& name, const SearchPointer& search);
  void end(const std::string& name, const SearchPointer& search, const Ending& ending);
  void settle();
  void forgetTaken(std::vector<std::string>& untaken) const;
  bool waitUntil(std::optional<Clock::time_point> deadline) const;

  const std::string name_;
  const std::unique_ptr<thmp::client::MessageFolders> folders_;
  thmp::client::FolderEvents events_;
  const thmp::PasteboardReader pasteboards_;
  std::string pluginVersion_;
  std::map<std::string, SearchPointer> searches_;
  std::map<std::string, Leaving> leaving_;
};

}  // namespace tallyhive
