// SPDX-License-Identifier: Apache-2.0
//
// A client's end of the exchange: writes requests into "in", and takes from "out" what is its own.
// Clients share both folders, so what is not one's own is read once and left. One thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "base/result.h"
#include "base/value.h"
#include "client/Wakeups.h"
#include "platform/files.h"
#include "platform/linux/XdgFolders.h"

namespace thmp::client {

struct Message {
  std::string name;
  Dictionary userInfo;
};

/// `prefix` and 32 hex digits that no call has made before.
std::string freshName(std::string_view prefix);

class Exchange {
 public:
  /// Opens the exchange's folders, made when missing, so that a host that starts later finds the
  /// client waiting. What lies in "out" already is old and never seen.
  static Result<std::unique_ptr<Exchange>> open(const XdgFolders& folders);
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  /// Places one message into "in", whole. Returns the file's name there.
  Result<std::string> post(std::string_view name, const Dictionary& userInfo);

  /// Calls `isOwn` with each message that has come since the last call; those of which it says true
  /// are deleted and returned, in no order.
  std::vector<Message> take(const std::function<bool(const Message&)>& isOwn);

  /// Whether the plug-in has taken the request, that is deleted its file.
  bool isTaken(const std::string& file) const;

  /// See Wakeups; the folders are those of the exchange.
  Wake wait(std::optional<std::chrono::steady_clock::time_point> deadline) {
    return wakeups_->wait(deadline);
  }
  int signal() const { return wakeups_->signal(); }
  void ignoreOutput() { wakeups_->ignoreOutput(); }

 private:
  explicit Exchange(const XdgFolders& folders);

  const std::string in_;
  const std::string out_;
  const std::unique_ptr<Files> files_;
  std::unordered_set<std::string> known_;  // entries of "out" that were looked at and left
  std::unique_ptr<Wakeups> wakeups_;
};

}  // namespace thmp::client
