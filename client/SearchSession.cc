// SPDX-License-Identifier: Apache-2.0
#include "client/SearchSession.h"

#include <fmt/format.h>
#include <signal.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "base/plist.h"
#include "client/ResultsBatch.h"
#include "client/exit_status.h"
#include "console/terminal.h"
#include "messaging/message_names.h"

namespace thmp::client {
namespace {

// How long the plug-in may take over our last requests before we leave all the same.
constexpr std::chrono::milliseconds kFarewell{1000};

bool names(const Value& activeNames, std::string_view uniqueName) {
  const auto array = activeNames.asArray();
  return array && std::any_of(array->begin(), array->end(),
                              [&](const Value& name) { return name.asText() == uniqueName; });
}

}  // namespace

SearchSession::SearchSession(SearchRequest request, Exchange& exchange,
                             const PasteboardReader& pasteboards,
                             console::StandardOutput& standardOutput, SearchOutput& output)
    : request_(std::move(request)),
      exchange_(exchange),
      pasteboards_(pasteboards),
      standardOutput_(standardOutput),
      output_(output) {}

int SearchSession::run() {
  begun_ = Clock::now();
  if (!sendSearch()) return kExitNoPlugin;
  while (true) {
    if (const std::optional<int> status = look()) return *status;
    standardOutput_.flush();
    if (standardOutput_.isClosed()) {
      cancel();
      return kExitSuccess;
    }
    switch (exchange_.wait(started_ ? std::nullopt : std::optional(begun_ + request_.timeout))) {
      case Wake::kSignal:
        return interrupted();
      case Wake::kOutputClosed:
        cancel();
        return kExitSuccess;
      case Wake::kTimeout:
        // Was it read after all, nobody waits for its answers.
        if (!exchange_.withdraw(search_)) post(kCancelName, ownKeys());
        return noPluginAnswers(request_.timeout);
      case Wake::kFolder:
        break;
    }
  }
}

Dictionary SearchSession::ownKeys() const {
  return {{kUniqueNameKey, request_.uniqueName}, {kClientNameKey, request_.clientName}};
}

bool SearchSession::sendSearch() {
  Dictionary userInfo = ownKeys();
  userInfo.set(kVersionKey, Value(THMP_VERSION));
  userInfo.set(kQueryStringKey, Value(request_.query));
  if (request_.lineageName) userInfo.set(kLineageNameKey, Value(*request_.lineageName));
  if (request_.sortingAttribute)
    userInfo.set(kSortingAttributeKey, Value(*request_.sortingAttribute));
  userInfo.set(kSortAscendingKey, Value(request_.sortAscending));
  unanswered_.clear();
  post(kSearchName, userInfo);
  if (unanswered_.empty()) return false;
  search_ = unanswered_.front();
  return true;
}

void SearchSession::post(std::string_view name, const Dictionary& userInfo) {
  Result<std::string> file = exchange_.post(name, userInfo);
  if (file) {
    unanswered_.push_back(*std::move(file));
  } else {
    console::say(
        fmt::format("tallyhive-mail: a request could not be sent: {}\n", file.error().description));
  }
}

// One look at "out". A status when the session is over.
std::optional<int> SearchSession::look() {
  newHost_ = hostQuit_ = false;
  const bool wasStarted = started_;
  const auto take = [this] {
    return exchange_.take([this](const Message& m) { return isOwn(m); });
  };
  std::vector<Message> messages = take();
  const auto takeMore = [&] {
    std::vector<Message> more = take();
    std::move(more.begin(), more.end(), std::back_inserter(messages));
  };
  const auto is = [](std::string_view name) {
    return [name](const Message& m) { return m.name == name; };
  };
  // What was posted before the completion is there now, whatever the first listing missed.
  if (std::any_of(messages.begin(), messages.end(), is(kQueryDidCompleteName))) takeMore();
  if (newHost_ && !wasStarted && exchange_.isTaken(search_)) {
    // Its answer lies in "out" before the request is deleted. Without one the request fell to the
    // host's start.
    takeMore();
    if (messages.empty() && !sendSearch()) return kExitNoPlugin;
  }

  std::optional<Dictionary> completion;
  for (const Message& message : messages) {
    if (message.name == kQueryDidStartName && !std::exchange(started_, true)) {
      output_.started(request_.uniqueName);
    } else if (message.name == kQueryHasUpdatesName || message.name == kQueryHasRemovalsName) {
      const bool removals = message.name == kQueryHasRemovalsName;
      (removals ? removals_
                : batches_)[message.userInfo[kBatchNumberKey].asUnsigned().value_or(0)] =
          Batch{std::string(message.userInfo[kBatchNameKey].asText().value_or("")), removals};
    } else if (message.name == kQueryDidCompleteName) {
      if (!completion || message.userInfo.contains(kErrorCodeKey)) completion = message.userInfo;
    }
  }
  // A gap in the numbers is closed by a message that this listing missed, or by none at all.
  if (!batches_.empty() && batches_.begin()->first != nextBatch_ && !std::exchange(gapSeen_, true))
    return look();
  gapSeen_ = false;
  readBatches();
  if (completion) return handleCompletion(*completion);
  if (hostQuit_ || (newHost_ && wasStarted)) {
    standardOutput_.flush();
    console::say(fmt::format(
        "tallyhive-mail: the mail host has {}, so this search has ended; start it again\n",
        hostQuit_ ? "quit" : "been started anew"));
    return kExitNoPlugin;
  }
  return std::nullopt;
}

// Notices for all clients are noted and left.
bool SearchSession::isOwn(const Message& message) {
  if (message.name == kPluginReadyName) {
    newHost_ |= !message.userInfo.contains(kClientNameKey);
    return false;
  }
  if (message.name == kPluginQuitName) {
    hostQuit_ |= names(message.userInfo[kActiveNamesKey], request_.uniqueName);
    return false;
  }
  return message.userInfo[kUniqueNameKey].asText() == request_.uniqueName;
}

void SearchSession::readBatches() {
  for (const auto& [number, batch] : batches_) {
    read(batch);
    nextBatch_ = number + 1;
  }
  batches_.clear();
  for (const auto& [number, batch] : removals_) read(batch);
  removals_.clear();
}

void SearchSession::read(const Batch& batch) {
  Error error;
  if (batch.removals ? readRemovals(batch.name, error) : readResults(batch.name, error)) return;
  console::say(fmt::format("tallyhive-mail: a batch of {} could not be read: {}; search again\n",
                           batch.removals ? "removals" : "results",
                           console::shown(error.description)));
}

void SearchSession::clear(const std::string& batchName) {
  Dictionary userInfo = ownKeys();
  userInfo.set(kBatchNameKey, Value(batchName));
  post(kClearName, userInfo);
}

bool SearchSession::readResults(const std::string& name, Error& error) {
  auto bytes = pasteboards_.readBytes(name, kResultsBatchType, kBatchLimits.maxBytes, &error);
  clear(name);  // the plug-in takes it back while we print
  const auto batch = bytes ? ResultsBatch::open(*std::move(bytes), &error) : nullptr;
  if (!batch) return false;
  output_.found(*batch);
  received_.found += batch->size();
  ++received_.batches;
  return true;
}

bool SearchSession::readRemovals(const std::string& name, Error& error) {
  const auto content = pasteboards_.read(name, kRemovalBatchType, kBatchLimits, &error);
  if (!content) return false;
  for (const Value& id : (*content)[kMessageIDsKey].asArray().value_or(Array())) {
    output_.removed(id.asText().value_or(""));
  }
  return true;
}

std::optional<int> SearchSession::handleCompletion(const Dictionary& userInfo) {
  const int status = received_.found > 0 ? kExitSuccess : kExitNothingFound;
  if (userInfo.contains(kErrorCodeKey)) {
    const SearchFailure failure{userInfo[kErrorCodeKey].integerValue(),
                                std::string(userInfo[kErrorDomainKey].asText().value_or("")),
                                std::string(userInfo[kErrorMessageKey].asText().value_or(""))};
    output_.completed(received_, &failure);
    standardOutput_.flush();
    constexpr std::int64_t kInvalidQuery = -2002;
    console::say(fmt::format("tallyhive-mail: {}{}\n", console::shown(failure.message),
                             failure.code == kInvalidQuery
                                 ? " \"tallyhive-mailhost find QUERY\" shows the place."
                                 : ""));
    return kExitUsage;
  }
  if (std::exchange(gathered_, true)) {
    output_.completed(received_, nullptr);
    standardOutput_.flush();
    return status;
  }
  output_.gathered(received_, Clock::now() - begun_);
  if (request_.live) return std::nullopt;
  standardOutput_.flush();
  cancel();
  return status;
}

int SearchSession::interrupted() {
  const int signal = exchange_.signal();
  cancel();
  standardOutput_.flush();
  return 128 + signal;
}

// Ends the query and takes what it still said. Requests have no order among themselves, so the
// plug-in gets to see what was sent before; a second signal is not waited for.
void SearchSession::cancel() {
  const auto deadline = Clock::now() + kFarewell;
  const auto settle = [&] {
    while (true) {
      std::erase_if(unanswered_,
                    [this](const std::string& file) { return exchange_.isTaken(file); });
      if (unanswered_.empty()) return;
      const Wake wake = exchange_.wait(deadline);
      if (wake == Wake::kTimeout || wake == Wake::kSignal) return;
    }
  };
  settle();
  if (exchange_.withdraw(search_)) return;  // nobody has read it: there is no query to end
  post(kCancelName, ownKeys());
  settle();
  exchange_.take([this](const Message& message) { return isOwn(message); });
}

}  // namespace thmp::client
