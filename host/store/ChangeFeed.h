// SPDX-License-Identifier: Apache-2.0
//
// Watches mail folders and says which mailboxes have changed, so that only those are listed again.
// Changes that follow each other quickly are told in one call. When events are lost, or the system
// allows no more watches, it says that everything may have changed; the latter at an interval, and
// in one line to `report`.
//
// One thread of its own, with all signals blocked, from start() to stop(); both callbacks run on
// it. They must not call stop().
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace thmp {

struct MailChanges {
  /// Everything may have changed; the sets are empty.
  bool everything = false;
  /// Mailboxes, by path, in which message files came, went or were renamed.
  std::set<std::string> mailboxes;
  /// Mailboxes, by path, of which these files alone came, went or were renamed; each with its part,
  /// such as "cur/1.a:2,S". None of `mailboxes`.
  std::map<std::string, std::set<std::string>> files;
  /// Folders, by path, that came or went, or below which anything may have changed.
  std::set<std::string> trees;

  bool empty() const noexcept {
    return !everything && mailboxes.empty() && files.empty() && trees.empty();
  }

  void addMailbox(const std::string& path);
  void addFile(const std::string& mailbox, const std::string& file);
  void addAll(const MailChanges& changes);
};

struct ChangeFeedOptions {
  /// Changes are told once no more have come for this long,
  std::chrono::milliseconds quiet{2};
  /// and at the latest after this long.
  std::chrono::milliseconds longest{250};
  /// How often a mail folder that is missing is looked for.
  std::chrono::milliseconds missingRootCheck{1000};
  /// How often everything is told as changed when folders cannot be watched.
  std::chrono::milliseconds withoutWatches{30'000};
  /// The most folders to watch; 0 for as many as the system allows.
  std::size_t maxWatches = 0;
};

class ChangeFeed {
 public:
  using Changed = std::function<void(const MailChanges& changes)>;
  using Report = std::function<void(std::string_view line)>;

  ChangeFeed(std::vector<std::string> roots, Changed changed, Report report,
             ChangeFeedOptions options = {});
  /// Stops.
  ~ChangeFeed();
  ChangeFeed(const ChangeFeed&) = delete;
  ChangeFeed& operator=(const ChangeFeed&) = delete;

  /// Begins to watch; when it returns, all changes from now on will be told. Once.
  void start();
  /// Ends the watch and waits for a running callback. Repeats are harmless.
  void stop();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace thmp
