// SPDX-License-Identifier: Apache-2.0
//
// The plug-in as a search sees it, played for tests: a pool, a post that respects the registry, the
// library lookup, and a record of all that was asked. A hook before each step lets a test do
// another thread's part there. Any thread.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "maillibrary/MailLibraryLookup.h"
#include "platform/platform.h"
#include "search/Mediator.h"

namespace thmp {

class RecordingMediator : public SearchMediator {
 public:
  struct Post {
    std::string name;
    Value userInfo;
  };
  struct LogLine {
    Value queryName;
    std::string text;
  };
  /// `step` is one of "post NAME", "posted NAME", "cancel QUERY", "lend", "return", "load",
  /// "log TEXT"; names without their common beginning.
  using Hook = std::function<void(const std::string& step)>;

  RecordingMediator(const Platform& platform, QueryRegistry& registry)
      : platform_(platform), registry_(registry), lookup_(platform.mail, platform.files) {}

  void setHook(Hook hook);
  void setLogLevel(unsigned level);

  /// All steps in order.
  std::vector<std::string> steps() const;
  /// The messages that left.
  std::vector<Post> posts() const;
  /// The payloads of those of one name, which is given without its beginning.
  std::vector<Value> posts(std::string_view name) const;
  std::vector<LogLine> log() const;
  std::vector<std::string> logTexts() const;
  std::vector<std::string> ownLines() const;
  std::vector<std::shared_ptr<LentPasteboard>> idle() const;
  std::vector<std::shared_ptr<LentPasteboard>> lent() const;
  /// How many were returned that were not out.
  int doubleReturns() const;

  // SearchMediator.
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
  unsigned logLevel() const override;
  void logOwnLine(std::string_view line) override;

 private:
  void step(const std::string& name);

  const Platform& platform_;
  QueryRegistry& registry_;
  MailLibraryLookup lookup_;
  mutable Mutex mutex_;
  Hook hook_ THMP_GUARDED_BY(mutex_);
  unsigned level_ THMP_GUARDED_BY(mutex_) = 1;
  std::vector<std::string> steps_ THMP_GUARDED_BY(mutex_);
  std::vector<Post> posts_ THMP_GUARDED_BY(mutex_);
  std::vector<LogLine> log_ THMP_GUARDED_BY(mutex_);
  std::vector<std::string> ownLines_ THMP_GUARDED_BY(mutex_);
  std::deque<std::shared_ptr<LentPasteboard>> idle_ THMP_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<LentPasteboard>> lent_ THMP_GUARDED_BY(mutex_);
  int doubleReturns_ THMP_GUARDED_BY(mutex_) = 0;
};

}  // namespace thmp
