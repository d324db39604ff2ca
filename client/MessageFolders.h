// SPDX-License-Identifier: Apache-2.0
//
// The two folders of the exchange as a client uses them: requests are dropped into "in", and from
// "out" is taken what is one's own. Clients share both, so what is not one's own is read once and
// left. One thread.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "base/result.h"
#include "base/value.h"
#include "platform/files.h"
#include "platform/linux/XdgFolders.h"

namespace thmp::client {

struct Message {
  std::string name;
  Dictionary userInfo;
};

/// `prefix` and 32 hex digits that no call has made before.
std::string freshName(std::string_view prefix);

class MessageFolders {
 public:
  /// Opens the folders, made when missing, so that a host that starts later finds the client
  /// waiting.
  static Result<std::unique_ptr<MessageFolders>> open(const XdgFolders& folders);
  MessageFolders(const MessageFolders&) = delete;
  MessageFolders& operator=(const MessageFolders&) = delete;

  const std::string& in() const { return in_; }
  const std::string& out() const { return out_; }

  /// What lies in "out" now is old: it is never seen. Once the folders are watched.
  void passOverWhatIsThere();

  /// Places one message into "in", whole. Returns the file's name there.
  Result<std::string> post(std::string_view name, const Dictionary& userInfo);

  /// Calls `isOwn` with each message that has come since the last call; those of which it says true
  /// are deleted and returned, in no order.
  std::vector<Message> take(const std::function<bool(const Message&)>& isOwn);

  /// Takes back a request that was not read. False when the plug-in has taken it.
  bool withdraw(const std::string& file);

  /// Whether the plug-in has taken the request, that is deleted its file.
  bool isTaken(const std::string& file) const;

 private:
  explicit MessageFolders(const XdgFolders& folders);

  const std::string in_;
  const std::string out_;
  const std::unique_ptr<Files> files_;
  std::unordered_set<std::string> known_;  // entries of "out" that were looked at and left
};

}  // namespace thmp::client
