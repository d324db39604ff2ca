// SPDX-License-Identifier: Apache-2.0
#include "host/index/ValuePool.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>
#include <utility>

#include "host/index/RecordEntries.h"
#include "host/index/message_record.h"

namespace thmp {

namespace {

// The part of a value's hash that is kept.
std::uint32_t partOf(std::uint64_t hash) { return static_cast<std::uint32_t>(hash >> 32); }

}  // namespace

ValuePool::ValuePool(Use use) : chunks_(kMostChunks) {
  if (use == Use::kReading) return;
  seen_.reset(static_cast<std::uint32_t*>(std::calloc(kSeenSlots, sizeof(std::uint32_t))));
  if (!seen_) throw std::bad_alloc();
}

ValuePool::~ValuePool() {
  for (const std::atomic<Chunk*>& chunk : chunks_) {
    if (chunk.load() == nullptr) continue;
    for (const Slot& slot : chunk.load()->slots) delete slot.entry.load();
    delete chunk.load();
  }
}

bool ValuePool::load(Connection& connection) {
  Statement& row =
      connection.statement("SELECT number, value FROM pool WHERE number >= ? ORDER BY number");
  row.bind(1, std::int64_t{size()});
  bool isGood = true;
  while (isGood && row.row()) {
    const std::string_view bytes = row.bytes(1);
    isGood = row.integer(0) == size() && isPoolValue(bytes) && append(bytes);
    if (isGood && seen_) addHash(fingerprint(bytes));
  }
  isGood = isGood && row.result() == SQLITE_DONE;
  row.reset();
  stored_ = written_ = size();
  return isGood;
}

ValuePool::Slot& ValuePool::slotAt(std::uint32_t number) const noexcept {
  return chunks_[number / kChunk].load(std::memory_order_acquire)->slots[number % kChunk];
}

std::string_view ValuePool::bytesOf(const Slot& slot) noexcept {
  std::uint32_t size = 0;
  std::memcpy(&size, slot.bytes - sizeof size, sizeof size);
  return {slot.bytes, size};
}

const ValuePool::Entry* ValuePool::at(std::uint32_t number) const {
  if (number >= size()) return nullptr;
  Slot& slot = slotAt(number);
  const Entry* known = slot.entry.load(std::memory_order_acquire);
  if (known != nullptr) return known;
  std::unique_ptr<const Entry> made = decoded(bytesOf(slot));
  // Another thread may have been faster.
  if (slot.entry.compare_exchange_strong(known, made.get(), std::memory_order_acq_rel)) {
    known = made.release();
  }
  return known;
}

LentValue ValuePool::lent(std::uint32_t number) const noexcept {
  return {&slotAt(number), [](const void* slot, EntrySink& sink) {
            giveValue(bytesOf(*static_cast<const Slot*>(slot)), sink);
          }};
}

std::optional<std::uint32_t> ValuePool::intern(std::string_view bytes, bool always) {
  const std::uint64_t hash = fingerprint(bytes);
  // Somebody could make many values of one hash; after a few, such values are not taken in.
  constexpr int kMostAlike = 8;
  int alike = 0;
  for (std::uint32_t same = slots_.empty() ? 0 : slotOf(partOf(hash)); same != 0;
       same = next_[same - 1]) {
    if (hashes_[same - 1] != partOf(hash)) continue;
    if (bytesOf(slotAt(same - 1)) == bytes) return same - 1;
    if (++alike == kMostAlike) return std::nullopt;
  }
  if (!always && !isCommon(hash)) return std::nullopt;
  if (!append(bytes)) return std::nullopt;
  addHash(hash);
  return size() - 1;
}

bool ValuePool::store(Connection& writer) {
  Statement& row = writer.statement("INSERT INTO pool(number, value) VALUES(?, ?)");
  for (; written_ < size(); ++written_) {
    const std::string_view bytes = bytesOf(slotAt(written_));
    if (!row.bind(1, std::int64_t{written_}).bindBlob(2, bytes).run()) return false;
  }
  return true;
}

void ValuePool::end(bool committed) {
  // The last one first: each stands at the head of its slot. Their bytes stay behind.
  while (!committed && size() > stored_) {
    slotOf(hashes_.back()) = next_.back();
    hashes_.pop_back();
    next_.pop_back();
    Slot& slot = slotAt(size() - 1);
    size_.store(size() - 1, std::memory_order_release);
    forgotten_.emplace_back(slot.entry.exchange(nullptr));
  }
  stored_ = written_ = size();
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

std::unique_ptr<const ValuePool::Entry> ValuePool::decoded(std::string_view bytes) {
  auto entry = std::make_unique<Entry>();
  entry->value = decodeValue(bytes);
  if (const auto dictionary = entry->value.asDictionary()) {
    for (const Dictionary::Entry& attribute : *dictionary) {
      entry->keys.push_back(*keyNamed(attribute.key));
    }
  }
  return entry;
}

const char* ValuePool::keep(std::string_view bytes) {
  const auto size = static_cast<std::uint32_t>(bytes.size());
  const std::size_t needed = sizeof size + bytes.size();
  if (needed > left_) {
    left_ = std::max(kBlock, needed);
    blocks_.push_back(std::make_unique<char[]>(left_));
    lastBlock_ = left_;
  }
  char* place = blocks_.back().get() + (lastBlock_ - left_);
  std::memcpy(place, &size, sizeof size);
  std::memcpy(place + sizeof size, bytes.data(), bytes.size());
  left_ -= needed;
  return place + sizeof size;
}

bool ValuePool::append(std::string_view bytes) {
  const std::uint32_t number = size();
  if (bytes.empty() || bytes.size() > UINT32_MAX || number >= kChunk * kMostChunks) return false;
  std::atomic<Chunk*>& chunk = chunks_[number / kChunk];
  if (chunk.load() == nullptr) chunk.store(new Chunk, std::memory_order_release);
  slotAt(number).bytes = keep(bytes);
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
