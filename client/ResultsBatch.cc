// SPDX-License-Identifier: Apache-2.0
#include "client/ResultsBatch.h"

#include <utility>

#include "base/plist.h"
#include "console/found_messages.h"
#include "messaging/message_names.h"

namespace thmp::client {

std::unique_ptr<ResultsBatch> ResultsBatch::open(std::string bytes, Error* error) {
  std::unique_ptr<ResultsBatch> batch(new ResultsBatch(std::move(bytes)));
  batch->list_ = PropertyListView::open(batch->bytes_, kBatchLimits, error);
  if (!batch->list_) return nullptr;
  const PropertyListView& list = *batch->list_;
  const auto messages = list.find(list.root(), kMessagesKey);
  if (messages && list.kind(*messages) == Value::Kind::kArray) {
    batch->messages_ = list.elements(*messages);
  }
  return batch;
}

std::size_t ResultsBatch::size() const { return messages_ ? messages_->size() : 0; }

Dictionary ResultsBatch::message(std::size_t index) {
  if (!built_) built_ = list_->value()[kMessagesKey].asArray().value_or(Array());
  return (*built_)[index].asDictionary().value_or(Dictionary());
}

std::string ResultsBatch::path(std::size_t index) const {
  const auto path = list_->find((*messages_)[index], kPathKey);
  if (!path || list_->kind(*path) != Value::Kind::kText) return {};
  std::string room;
  return std::string(list_->bytes(*path, room));
}

void ResultsBatch::printEvent(std::size_t index, console::StandardOutput& output) {
  if (!json_) json_.emplace(*list_);
  console::printFoundEvent(*json_, (*messages_)[index], output);
}

}  // namespace thmp::client
