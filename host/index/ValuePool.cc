// SPDX-License-Identifier: Apache-2.0
#include "host/index/ValuePool.h"

#include <bit>
#include <utility>

#include "host/index/message_record.h"

namespace thmp {

namespace {

// The part of a value's hash that is kept.
std::uint32_t partOf(std::uint64_t hash) { return static_cast<std::uint32_t>(hash >> 32); }

}  // namespace

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
    if (isGood && !seen_.empty()) addHash(fingerprint(bytes));
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
  int alike = 0;
  for (std::uint32_t same = slots_.empty() ? 0 : slotOf(partOf(hash)); same != 0;
       same = next_[same - 1]) {
    if (hashes_[same - 1] != partOf(hash)) continue;
    if (Value::identical(at(same - 1)->value, value)) return same - 1;
    if (++alike == kMostAlike) return std::nullopt;
  }
  if (!always && !isCommon(hash)) return std::nullopt;
  if (!append(value)) return std::nullopt;
  const std::uint32_t number = size() - 1;
  addHash(hash);
  unstored_.push_back({number, std::string(bytes)});
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
    // The last one first: each stands at the head of its slot.
    for (std::size_t left = unstored_.size(); left > 0; --left) {
      slotOf(hashes_.back()) = next_.back();
      hashes_.pop_back();
      next_.pop_back();
    }
    size_.store(size() - static_cast<std::uint32_t>(unstored_.size()), std::memory_order_release);
  }
  unstored_.clear();
  written_ = 0;
}

void ValuePool::link(std::uint32_t number) {
  std::uint32_t& slot = slotOf(hashes_[number]);
  next_[number] = slot;
  slot = number + 1;
}

// Of the value that was appended last.
void ValuePool::addHash(std::uint64_t hash) {
  hashes_.push_back(partOf(hash));
  next_.push_back(0);
  const auto last = static_cast<std::uint32_t>(hashes_.size() - 1);
  if (hashes_.size() <= slots_.size()) return link(last);
  slots_.assign(std::bit_ceil(hashes_.size()), 0);
  for (std::uint32_t number = 0; number <= last; ++number) link(number);
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
