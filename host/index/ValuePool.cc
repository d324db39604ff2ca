// SPDX-License-Identifier: Apache-2.0
#include "host/index/ValuePool.h"

#include <utility>

#include "host/index/message_record.h"

namespace thmp {

ValuePool::ValuePool(Use use) : chunks_(kMostChunks) {
  if (use == Use::kWriting) seen_.resize(kSeenSlots);
}

ValuePool::~ValuePool() {
  for (const std::atomic<Chunk*>& chunk : chunks_) delete chunk.load();
}

bool ValuePool::load(Connection& connection) {
  Statement& row =
      connection.statement("SELECT number, value FROM pool WHERE number >= ? ORDER BY number");
  row.bind(1, std::int64_t{size()});
  bool isGood = true;
  while (isGood && row.row()) {
    const std::string_view bytes = row.bytes(1);
    isGood = row.integer(0) == size() && append(decodeValue(bytes));
    if (isGood && !seen_.empty()) byHash_.emplace(fingerprint(bytes), size() - 1);
  }
  isGood = isGood && row.result() == SQLITE_DONE;
  row.reset();
  return isGood;
}

const ValuePool::Entry* ValuePool::at(std::uint32_t number) const noexcept {
  if (number >= size()) return nullptr;
  return &chunks_[number / kChunk].load(std::memory_order_acquire)->entries[number % kChunk];
}

std::optional<std::uint32_t> ValuePool::intern(const Value& value, std::string_view bytes,
                                               bool always) {
  const std::uint64_t hash = fingerprint(bytes);
  // Somebody could make many values of one hash; after a few, such values are not taken in.
  constexpr int kMostAlike = 8;
  const auto [begin, end] = byHash_.equal_range(hash);
  int alike = 0;
  for (auto same = begin; same != end; ++same) {
    if (Value::identical(at(same->second)->value, value)) return same->second;
    if (++alike == kMostAlike) return std::nullopt;
  }
  if (!always && !isCommon(hash)) return std::nullopt;
  if (!append(value)) return std::nullopt;
  const std::uint32_t number = size() - 1;
  byHash_.emplace(hash, number);
  unstored_.push_back({number, hash, std::string(bytes)});
  return number;
}

bool ValuePool::store(Connection& writer) {
  Statement& row = writer.statement("INSERT INTO pool(number, value) VALUES(?, ?)");
  for (; written_ < unstored_.size(); ++written_) {
    const Unstored& one = unstored_[written_];
    if (!row.bind(1, std::int64_t{one.number}).bindBlob(2, one.bytes).run()) return false;
  }
  return true;
}

void ValuePool::end(bool committed) {
  if (!committed) {
    for (const Unstored& one : unstored_) {
      const auto [begin, end] = byHash_.equal_range(one.hash);
      for (auto same = begin; same != end; ++same) {
        if (same->second != one.number) continue;
        byHash_.erase(same);
        break;
      }
    }
    size_.store(size() - static_cast<std::uint32_t>(unstored_.size()), std::memory_order_release);
  }
  unstored_.clear();
  written_ = 0;
}

bool ValuePool::append(Value value) {
  const std::uint32_t number = size();
  if (value.isNull() || number >= kChunk * kMostChunks) return false;
  std::atomic<Chunk*>& chunk = chunks_[number / kChunk];
  if (chunk.load() == nullptr) chunk.store(new Chunk, std::memory_order_release);
  Entry& entry = chunk.load()->entries[number % kChunk];
  entry.keys.clear();
  if (const auto dictionary = value.asDictionary()) {
    for (const Dictionary::Entry& attribute : *dictionary) {
      const auto key = keyNamed(attribute.key);
      if (!key) return false;
      entry.keys.push_back(*key);
    }
  }
  entry.value = std::move(value);
  size_.store(number + 1, std::memory_order_release);
  return true;
}

bool ValuePool::isCommon(std::uint64_t hash) {
  constexpr std::uint32_t kCount = 3;
  std::uint32_t& slot = seen_[hash % kSeenSlots];
  const auto mark = static_cast<std::uint32_t>(hash >> 32) & ~kCount;
  if ((slot & ~kCount) != mark) slot = mark;
  if ((slot & kCount) == kSeenBefore) return true;
  ++slot;
  return false;
}

}  // namespace thmp
