// SPDX-License-Identifier: Apache-2.0
#include "host/index/MatchedMessages.h"

#include <algorithm>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "base/DictionarySource.h"

namespace thmp {

namespace {

class MessageAttributes : public DictionarySource {
 public:
  MessageAttributes(std::shared_ptr<Index::MatchedMessages> messages, std::size_t place,
                    std::shared_ptr<const RecordEntries> entries)
      : messages_(std::move(messages)), place_(place), entries_(std::move(entries)) {}

  void give(EntrySink& sink) const override {
    static const EntryLayout kNothing;
    const IndexedMessage* message = messages_->at(place_);
    if (message == nullptr) return sink.begin(kNothing);
    message->give(*entries_, sink);
  }
  Value entry(std::string_view name) const override {
    const auto key = wantedKey(name);
    const IndexedMessage* message = key ? messages_->at(place_) : nullptr;
    return message != nullptr ? message->value(*key) : Value();
  }
  bool has(std::string_view name) const override {
    const auto key = wantedKey(name);
    const IndexedMessage* message = key ? messages_->at(place_) : nullptr;
    return message != nullptr && message->has(*key);
  }

 private:
  std::optional<AttributeKey> wantedKey(std::string_view name) const {
    const auto key = keyNamed(name);
    return key && entries_->wanted()[static_cast<std::size_t>(*key)] ? key : std::nullopt;
  }

  const std::shared_ptr<Index::MatchedMessages> messages_;
  const std::size_t place_;
  const std::shared_ptr<const RecordEntries> entries_;
};

}  // namespace

Index::MatchedMessages::MatchedMessages(const Index& index, std::vector<Row> rows)
    : rows_(std::move(rows)),
      messages_(rows_.size()),
      read_(0),
      reader_(std::make_unique<ChunkReader>(index, ChunkReader::Sees::kOneState)) {
  const Lock lock(mutex_);
  readChunk();
}

Index::MatchedMessages::MatchedMessages(IndexedMessage message) : messages_(1), read_(1) {
  messages_.front() = std::move(message);
}

void Index::MatchedMessages::readTo(std::size_t place) {
  const Lock lock(mutex_);
  while (read_.load() <= place) readChunk();
}

void Index::MatchedMessages::readRest() {
  const Lock lock(mutex_);
  while (read_.load() < size()) readChunk();
}

Result<void> Index::MatchedMessages::result() {
  const Lock lock(mutex_);
  return result_;
}

void Index::MatchedMessages::readChunk() {
  const std::size_t begin = read_.load();
  const std::size_t end = std::min(begin + ChunkReader::kChunk, size());
  const std::span<const Row> rows = std::span(rows_).subspan(begin, end - begin);
  if (result_) result_ = reader_->readRows(rows);
  std::size_t place = begin;
  for (IndexedMessage& message : reader_->takeVisible()) {
    while (rows_[place] != message.id()) ++place;
    messages_[place] = std::move(message);
  }
  if (end == size()) reader_.reset();
  read_.store(end, std::memory_order_release);
}

Dictionary attributesOf(std::shared_ptr<Index::MatchedMessages> messages, std::size_t place,
                        std::shared_ptr<const RecordEntries> entries) {
  return Dictionary(
      std::make_shared<const MessageAttributes>(std::move(messages), place, std::move(entries)));
}

}  // namespace thmp
