// SPDX-License-Identifier: Apache-2.0
#include "client/library/ClientState.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "base/plist.h"
#include "client/library/public_values.h"
#include "messaging/message_names.h"

namespace tallyhive {

using thmp::Dictionary;
using thmp::Error;
using thmp::Result;
using thmp::Value;
using thmp::client::FolderEvents;
using thmp::client::freshName;
using thmp::client::MessageFolders;

namespace {

// Echoed by the plug-in, and so tells our answer from those to others.
constexpr char kConnectionKey[] = "connectionName";

// What a handler throws ends the process.
template <typename Handler, typename... Arguments>
void call(const Handler& handler, const Arguments&... arguments) noexcept {
  if (handler) handler(arguments...);
}

}  // namespace

Client::State::State(std::string name, std::unique_ptr<MessageFolders> folders, FolderEvents events,
                     const std::string& cacheHome)
    : name_(std::move(name)),
      folders_(std::move(folders)),
      events_(std::move(events)),
      pasteboards_(cacheHome) {}

Result<std::unique_ptr<Client::State>> Client::State::open(std::string name) {
  const thmp::XdgFolders xdg = thmp::XdgFolders::fromEnvironment();
  Result<std::unique_ptr<MessageFolders>> folders = MessageFolders::open(xdg);
  if (!folders) return folders.error();
  Result<FolderEvents> events = FolderEvents::open();
  if (!events) return events.error();
  for (const std::string& folder : {(*folders)->in(), (*folders)->out()}) {
    if (const Result<void> watched = events->watch(folder); !watched) return watched.error();
  }
  (*folders)->passOverWhatIsThere();
  return std::make_unique<State>(std::move(name), *std::move(folders), *std::move(events),
                                 xdg.cache);
}

Result<bool> Client::State::connect(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  const std::string connection = freshName("");
  const Dictionary request = {{thmp::kClientNameKey, name_},
                              {thmp::kVersionKey, THMP_VERSION},
                              {thmp::kCompatibilityVersionKey, thmp::kCompatibilityVersion},
                              {kConnectionKey, connection}};
  bool newHost = true;  // the first request is sent like those after a host has started
  while (true) {
    if (std::exchange(newHost, false)) {
      if (const auto sent = folders_->post(thmp::kConnectName, request); !sent) return sent.error();
    }
    const auto answers = folders_->take([&](const thmp::client::Message& message) {
      if (message.name != thmp::kPluginReadyName) return false;
      newHost |= !message.userInfo.contains(thmp::kClientNameKey);
      return message.userInfo[kConnectionKey].asText() == connection;
    });
    if (!answers.empty()) {
      pluginVersion_ = answers.front().userInfo[thmp::kVersionKey].asText().value_or("");
      return true;
    }
    if (newHost) continue;
    if (!waitUntil(deadline) && Clock::now() >= deadline) return false;
    events_.drain();
  }
}

Dictionary Client::State::ownKeys(const std::string& search) const {
  return {{thmp::kUniqueNameKey, search}, {thmp::kClientNameKey, name_}};
}

Result<void> Client::State::send(const std::string& name, LiveSearch& search) {
  Dictionary request = ownKeys(name);
  request.set(thmp::kVersionKey, Value(THMP_VERSION));
  const Query& query = search.query;
  if (!query.predicate.empty()) request.set(thmp::kQueryStringKey, Value(query.predicate));
  if (query.lineage) request.set(thmp::kLineageNameKey, Value(*query.lineage));
  if (query.sortingAttribute) {
    request.set(thmp::kSortingAttributeKey, Value(*query.sortingAttribute));
    request.set(thmp::kSortAscendingKey, Value(query.ascending));
  }
  Result<std::string> file = folders_->post(thmp::kSearchName, request);
  if (!file) return file.error();
  search.request = *file;
  search.untaken.push_back(*std::move(file));
  return {};
}

Result<std::string> Client::State::search(const Query& query, Handlers handlers) {
  std::string name = freshName(name_ + "-");
  auto search = std::make_shared<LiveSearch>();
  search->query = query;
  search->handlers = std::make_shared<const Handlers>(std::move(handlers));
  if (const Result<void> sent = send(name, *search); !sent) return sent.error();
  if (query.lineage) leaveLineage(*query.lineage, search->request);
  searches_.emplace(name, std::move(search));
  return name;
}

// The plug-in ends these as it takes `successor`, without a word.
void Client::State::leaveLineage(const std::string& lineage, const std::string& successor) {
  for (auto entry = searches_.begin(); entry != searches_.end();) {
    LiveSearch& search = *entry->second;
    if (search.query.lineage != lineage) {
      ++entry;
      continue;
    }
    search.untaken.push_back(successor);
    leaving_.emplace(entry->first, Leaving{std::move(search.untaken), true});
    entry = searches_.erase(entry);
  }
}

void Client::State::cancel(const std::string& search) {
  const auto found = searches_.find(search);
  if (found == searches_.end()) return;
  leaving_.emplace(search, Leaving{std::move(found->second->untaken), false});
  searches_.erase(found);
  settle();
}

bool Client::State::cancelAll(std::chrono::milliseconds patience) {
  while (!searches_.empty()) cancel(std::string(searches_.begin()->first));
  const auto deadline = Clock::now() + patience;
  while (settle(), !leaving_.empty()) {
    if (!waitUntil(deadline) && Clock::now() >= deadline) break;
    events_.drain();
  }
  // Should what is left be read after all, nobody waits for its answers.
  for (const auto& [name, leaving] : leaving_) {
    if (!leaving.cancelSent) static_cast<void>(folders_->post(thmp::kCancelName, ownKeys(name)));
  }
  return std::exchange(leaving_, {}).empty();
}

void Client::State::clear(const std::string& search, const std::string& batch) {
  const auto found = searches_.find(search);
  if (found == searches_.end()) return;
  Dictionary request = ownKeys(search);
  request.set(thmp::kBatchNameKey, Value(batch));
  // One that cannot be written leaves the batch to the search's end.
  if (Result<std::string> file = folders_->post(thmp::kClearName, request)) {
    found->second->untaken.push_back(*std::move(file));
  }
}

void Client::State::forgetTaken(std::vector<std::string>& untaken) const {
  std::erase_if(untaken, [this](const std::string& file) { return folders_->isTaken(file); });
}

// Sends each Cancel once all requests before it are taken, and forgets a search once its Cancel is.
void Client::State::settle() {
  for (auto entry = leaving_.begin(); entry != leaving_.end();) {
    auto& [name, leaving] = *entry;
    forgetTaken(leaving.untaken);
    if (leaving.untaken.empty() && !std::exchange(leaving.cancelSent, true)) {
      if (Result<std::string> file = folders_->post(thmp::kCancelName, ownKeys(name))) {
        leaving.untaken.push_back(*std::move(file));
      }
    }
    if (!leaving.untaken.empty()) {
      ++entry;
      continue;
    }
    noteWhatCame();  // takes the last that it said
    entry = leaving_.erase(entry);
  }
}

bool Client::State::isOwn(const thmp::client::Message& message) const {
  const std::string name(message.userInfo[thmp::kUniqueNameKey].asText().value_or(""));
  return searches_.contains(name) || leaving_.contains(name);
}

void Client::State::noteQuit(const Dictionary& info) {
  for (const Value& name : info[thmp::kActiveNamesKey].asArray().value_or(thmp::Array())) {
    const auto search = searches_.find(std::string(name.asText().value_or("")));
    if (search != searches_.end()) search->second->hostGone = true;
  }
}

void Client::State::noteNewHost() {
  for (const auto& [name, search] : searches_) {
    (search->started ? search->hostGone : search->maybeUnread) = true;
  }
}

// One listing of "out"; whatever is seen in it is kept, for it is not seen again. Notices for all
// clients are left there. Whether a gathering has ended.
bool Client::State::noteWhatCame() {
  bool newHost = false;
  const auto taken = folders_->take([&](const thmp::client::Message& message) {
    newHost |=
        message.name == thmp::kPluginReadyName && !message.userInfo.contains(thmp::kClientNameKey);
    if (message.name == thmp::kPluginQuitName) noteQuit(message.userInfo);
    return isOwn(message);
  });
  if (newHost) noteNewHost();  // before what the new host says
  bool completes = false;
  for (const thmp::client::Message& message : taken) {
    completes |= message.name == thmp::kQueryDidCompleteName;
    const auto search =
        searches_.find(std::string(message.userInfo[thmp::kUniqueNameKey].asText().value_or("")));
    if (search != searches_.end()) search->second->note(message);
  }
  return completes;
}

void Client::State::dispatch() {
  events_.drain();
  bool again = noteWhatCame();
  for (const auto& [name, search] : searches_) again |= search->hasGap();
  // What was posted before the completion is there now, whatever the first listing missed.
  if (again) noteWhatCame();
  const auto before = searches_;
  for (const auto& [name, search] : before) {
    if (std::exchange(search->maybeUnread, false)) sendAnew(name, search);
    deliver(name, search);
    if (search->hostGone) {
      end(name, search, Ending{Ending::Reason::kHostGone, 0, {}, "the mail host has quit"});
    }
    forgetTaken(search->untaken);
  }
  settle();
}

// A host that starts deletes the requests that it finds. A Search that it has read instead has its
// answer in "out" before its file goes.
void Client::State::sendAnew(const std::string& name, const SearchPointer& search) {
  if (!isLive(name, search) || search->started || !folders_->isTaken(search->request)) return;
  noteWhatCame();
  if (search->started || search->completion) return;
  if (const Result<void> sent = send(name, *search); !sent) {
    const Error& error = sent.error();
    end(name, search,
        Ending{Ending::Reason::kHostGone, error.code, error.domain, error.description});
  }
}

bool Client::State::isLive(const std::string& name, const SearchPointer& search) const {
  const auto found = searches_.find(name);
  return found != searches_.end() && found->second == search;
}

// Each handler may end this search or others, or begin new ones.
void Client::State::deliver(const std::string& name, const SearchPointer& search) {
  deliverBatches(name, search);
  deliverRemovals(name, search);
  if (isLive(name, search) && search->completion) deliverCompletion(name, search);
}

void Client::State::deliverBatches(const std::string& name, const SearchPointer& search) {
  while (isLive(name, search) && !search->batches.empty()) {
    const auto [number, batchName] = search->takeBatch();
    const auto content = pasteboards_.read(batchName, thmp::kResultsBatchType, thmp::kBatchLimits);
    Batch batch{batchName, number, {}, !content};
    if (content) batch.messages = thmp::client::publicMessages(*content);
    call(search->handlers->found, batch);
    if (search->query.clearsBatches) clear(name, batchName);
  }
}

void Client::State::deliverRemovals(const std::string& name, const SearchPointer& search) {
  while (isLive(name, search) && !search->removals.empty()) {
    const auto node = search->removals.extract(search->removals.begin());
    const auto content =
        pasteboards_.read(node.mapped(), thmp::kRemovalBatchType, thmp::kBatchLimits);
    if (content) call(search->handlers->removed, thmp::client::publicRemovals(*content));
  }
}

void Client::State::deliverCompletion(const std::string& name, const SearchPointer& search) {
  const Dictionary info = *std::exchange(search->completion, std::nullopt);
  if (info.contains(thmp::kErrorCodeKey)) {
    end(name, search,
        Ending{Ending::Reason::kFailed, info[thmp::kErrorCodeKey].integerValue(),
               std::string(info[thmp::kErrorDomainKey].asText().value_or("")),
               std::string(info[thmp::kErrorMessageKey].asText().value_or(""))});
  } else if (std::exchange(search->gathered, true)) {
    end(name, search, Ending{});
  } else {
    call(search->handlers->gathered);
  }
}

void Client::State::end(const std::string& name, const SearchPointer& search,
                        const Ending& ending) {
  if (!isLive(name, search)) return;
  searches_.erase(name);
  call(search->handlers->ended, ending);
}

// True when something has come. False at the deadline, and when a signal was handled.
bool Client::State::waitUntil(std::optional<Clock::time_point> deadline) const {
  int milliseconds = -1;
  if (deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now());
    milliseconds = static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 1'000'000));
  }
  pollfd waiting{events_.descriptor(), POLLIN, 0};
  return ::poll(&waiting, 1, milliseconds) > 0;
}

bool Client::State::wait(std::optional<std::chrono::milliseconds> timeout) {
  if (!waitUntil(timeout ? std::optional(Clock::now() + *timeout) : std::nullopt)) return false;
  dispatch();
  return true;
}

}  // namespace tallyhive
