// SPDX-License-Identifier: Apache-2.0
//
// A command's end of the exchange: its folders, and what it waits for besides. One thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "base/value.h"
#include "client/MessageFolders.h"
#include "client/Wakeups.h"
#include "platform/linux/XdgFolders.h"

namespace thmp::client {

class Exchange {
 public:
  /// Opens the exchange's folders, made when missing, so that a host that starts later finds the
  /// client waiting. What lies in "out" already is old and never seen.
  static Result<std::unique_ptr<Exchange>> open(const XdgFolders& xdg);
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  /// See MessageFolders.
  Result<std::string> post(std::string_view name, const Dictionary& userInfo) {
    return folders_->post(name, userInfo);
  }
  std::vector<Message> take(const std::function<bool(const Message&)>& isOwn) {
    return folders_->take(isOwn);
  }
  bool withdraw(const std::string& file) { return folders_->withdraw(file); }
  bool isTaken(const std::string& file) const { return folders_->isTaken(file); }

  /// See Wakeups; the folders are those of the exchange.
  Wake wait(std::optional<std::chrono::steady_clock::time_point> deadline) {
    return wakeups_->wait(deadline);
  }
  int signal() const { return wakeups_->signal(); }
  void ignoreOutput() { wakeups_->ignoreOutput(); }

 private:
  Exchange(std::unique_ptr<MessageFolders> folders, std::unique_ptr<Wakeups> wakeups);

  const std::unique_ptr<MessageFolders> folders_;
  const std::unique_ptr<Wakeups> wakeups_;
};

}  // namespace thmp::client
