// SPDX-License-Identifier: Apache-2.0
#include "search/RecordingMediator.h"

#include <algorithm>
#include <utility>

namespace thmp {

namespace {

std::string shortName(std::string_view name) {
  return std::string(name.substr(name.rfind('.') + 1));
}

}  // namespace

void RecordingMediator::setHook(Hook hook) {
  const Lock lock(mutex_);
  hook_.swap(hook);
}

void RecordingMediator::setLogLevel(unsigned level) {
  const Lock lock(mutex_);
  level_ = level;
}

std::vector<std::string> RecordingMediator::steps() const {
  const Lock lock(mutex_);
  return steps_;
}

std::vector<RecordingMediator::Post> RecordingMediator::posts() const {
  const Lock lock(mutex_);
  return posts_;
}

std::vector<Value> RecordingMediator::posts(std::string_view name) const {
  const Lock lock(mutex_);
  std::vector<Value> payloads;
  for (const Post& post : posts_) {
    if (shortName(post.name) == name) payloads.push_back(post.userInfo);
  }
  return payloads;
}

std::vector<RecordingMediator::LogLine> RecordingMediator::log() const {
  const Lock lock(mutex_);
  return log_;
}

std::vector<std::string> RecordingMediator::logTexts() const {
  const Lock lock(mutex_);
  std::vector<std::string> texts;
  for (const LogLine& line : log_) texts.push_back(line.text);
  return texts;
}

std::vector<std::string> RecordingMediator::ownLines() const {
  const Lock lock(mutex_);
  return ownLines_;
}

std::vector<std::shared_ptr<LentPasteboard>> RecordingMediator::idle() const {
  const Lock lock(mutex_);
  return {idle_.begin(), idle_.end()};
}

std::vector<std::shared_ptr<LentPasteboard>> RecordingMediator::lent() const {
  const Lock lock(mutex_);
  return lent_;
}

int RecordingMediator::doubleReturns() const {
  const Lock lock(mutex_);
  return doubleReturns_;
}

void RecordingMediator::postMessageName(std::string_view name, const Value& userInfo,
                                        const std::shared_ptr<THMPMailPluginQuery>& record) {
  step("post " + shortName(name));
  registry_.publishIfAlive(*record, [&] {
    const Lock lock(mutex_);
    posts_.push_back({std::string(name), userInfo});
    return true;
  });
  step("posted " + shortName(name));
}

void RecordingMediator::cancelQuery(std::string_view uniqueName, const Value& clientName,
                                    const std::shared_ptr<THMPMailPluginQuery>& record) {
  step("cancel " + std::string(uniqueName));
  const QueryRegistry::Ended ended = registry_.end(uniqueName, clientName, record.get());
  for (const PendingBatch& batch : ended.pendingBatches) pasteboardToPool(batch.pasteboard);
}

std::shared_ptr<LentPasteboard> RecordingMediator::pasteboardFromPool() {
  step("lend");
  {
    const Lock lock(mutex_);
    if (!idle_.empty()) {
      lent_.push_back(idle_.front());
      idle_.pop_front();
      return lent_.back();
    }
  }
  std::shared_ptr<Pasteboard> made = platform_.pasteboards.makeUnique();
  if (!made) return nullptr;
  const Lock lock(mutex_);
  return lent_.emplace_back(std::make_shared<LentPasteboard>(std::move(made)));
}

void RecordingMediator::pasteboardToPool(const std::shared_ptr<LentPasteboard>& pasteboard) {
  step("return");
  pasteboard->board().clearContents();
  pasteboard->clearOwnerTags();
  const Lock lock(mutex_);
  const auto place = std::find(lent_.begin(), lent_.end(), pasteboard);
  if (place == lent_.end()) {
    ++doubleReturns_;
    return;
  }
  lent_.erase(place);
  idle_.push_back(pasteboard);
}

std::vector<FoundItem> RecordingMediator::loadFilePaths(std::vector<FoundItem> items,
                                                        std::uint64_t& foundItemIndex) {
  step("load");
  return lookup_.loadFilePaths(std::move(items), foundItemIndex);
}

void RecordingMediator::logQueryName(const Value& queryName, std::string_view format,
                                     std::span<const LogArg> arguments) {
  std::string text = formatLog(format, arguments);
  step("log " + text);
  const Lock lock(mutex_);
  log_.push_back({queryName, std::move(text)});
}

unsigned RecordingMediator::logLevel() const {
  const Lock lock(mutex_);
  return level_;
}

void RecordingMediator::logOwnLine(std::string_view line) {
  const Lock lock(mutex_);
  ownLines_.emplace_back(line);
}

void RecordingMediator::step(const std::string& name) {
  Hook hook;
  {
    const Lock lock(mutex_);
    steps_.push_back(name);
    hook = hook_;
  }
  if (hook) hook(name);
}

}  // namespace thmp
