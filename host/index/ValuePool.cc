// SPDX-License-Identifier: Apache-2.0
#include "host/index/ValuePool.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "host/index/RecordEntries.h"
#include "host/index/message_record.h"
#include "host/index/probing.h"

namespace thmp {

namespace {

// Of what another thread may have set meanwhile, the one that is there.
template <typename T>
T* setOnce(std::atomic<T*>& place, std::unique_ptr<T> made) {
  T* known = nullptr;
  if (place.compare_exchange_strong(known, made.get(), std::memory_order_acq_rel)) {
    known = made.release();
  }
  return known;
}

}  // namespace

ValuePool::Chunk::~Chunk() {
  Entries* const made = entries.load();
  if (made == nullptr) return;
  for (const std::atomic<const Entry*>& entry : *made) delete entry.load();
  delete made;
}

ValuePool::ValuePool(Use use) : chunks_(kMostChunks) {
  if (use == Use::kReading) return;
  seen_.reset(static_cast<std::uint32_t*>(std::calloc(kSeenSlots, sizeof(std::uint32_t))));
  if (!seen_) throw std::bad_alloc();
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
    isGood = row.integer(0) == size() && isPoolValue(bytes) && append(bytes);
    if (isGood && seen_) addLast(fingerprint(bytes));
  }
  isGood = isGood && row.result() == SQLITE_DONE;
  row.reset();
  stored_ = written_ = size();
  return isGood;
}

ValuePool::Chunk& ValuePool::chunkOf(std::uint32_t number) const noexcept {
  return *chunks_[number / kChunk].load(std::memory_order_acquire);
}

std::string_view ValuePool::bytesAt(const char* place) noexcept {
  std::uint32_t size = 0;
  std::memcpy(&size, place - sizeof size, sizeof size);
  return {place, size};
}

const ValuePool::Entry* ValuePool::at(std::uint32_t number) const {
  if (number >= size()) return nullptr;
  Chunk& chunk = chunkOf(number);
  Entries* entries = chunk.entries.load(std::memory_order_acquire);
  if (entries == nullptr) entries = setOnce(chunk.entries, std::make_unique<Entries>());
  std::atomic<const Entry*>& entry = (*entries)[number % kChunk];
  const Entry* const known = entry.load(std::memory_order_acquire);
  return known != nullptr ? known : setOnce(entry, decoded(bytes(number)));
}

LentValue ValuePool::lent(std::uint32_t number) const noexcept {
  return {chunkOf(number).bytes[number % kChunk], [](const void* place, EntrySink& sink) {
            giveValue(bytesAt(static_cast<const char*>(place)), sink);
          }};
}

std::optional<std::uint32_t> ValuePool::intern(std::string_view bytes, bool always) {
  const std::uint64_t hash = fingerprint(bytes);
  if (!slots_.empty()) {
    const std::uint32_t* const slot = slotFor(hash, bytes);
    if (slot == nullptr) return std::nullopt;
    if (*slot != 0) return numberIn(*slot);
  }
  if (!always && !isCommon(hash)) return std::nullopt;
  if (!append(bytes)) return std::nullopt;
  addLast(hash);
  return size() - 1;
}

bool ValuePool::store(Connection& writer) {
  Statement& row = writer.statement("INSERT INTO pool(number, value) VALUES(?, ?)");
  for (; written_ < size(); ++written_) {
    if (!row.bind(1, std::int64_t{written_}).bindBlob(2, bytes(written_)).run()) return false;
  }
  return true;
}

void ValuePool::end(bool committed) {
  while (!committed && size() > stored_) forgetLast();
  stored_ = written_ = size();
}

/// Where the value's number stands, or where it is to be put; null for neither.
std::uint32_t* ValuePool::slotFor(std::uint64_t hash, std::string_view bytes) {
  return probe(slots_, hash, [&](std::uint32_t slot) {
    return tagIn(slot) == tagOf(hash) && this->bytes(numberIn(slot)) == bytes;
  });
}

/// Makes the value that was appended last one that is found.
void ValuePool::addLast(std::uint64_t hash) {
  std::uint32_t number = size() - 1;
  if (2 * std::size_t{size()} > slots_.size()) {
    constexpr std::size_t kFewest = 64;
    slots_.assign(std::max(kFewest, 2 * slots_.size()), 0);
    number = 0;
  }
  for (; number < size(); ++number) {
    const std::uint64_t itsHash = number + 1 < size() ? fingerprint(bytes(number)) : hash;
    std::uint32_t* const slot = slotFor(itsHash, bytes(number));
    // Without one it is a value that may be taken in again.
    if (slot != nullptr && *slot == 0) *slot = tagOf(itsHash) << kNumberBits | (number + 1);
  }
}

/// Its bytes stay behind.
void ValuePool::forgetLast() {
  const std::uint32_t number = size() - 1;
  // No other was put behind it on its way: those that came later are gone by now.
  std::uint32_t* const slot = slotFor(fingerprint(bytes(number)), bytes(number));
  if (slot != nullptr && *slot != 0 && numberIn(*slot) == number) *slot = 0;
  size_.store(number, std::memory_order_release);
  Entries* const entries = chunkOf(number).entries.load(std::memory_order_acquire);
  if (entries == nullptr) return;
  std::unique_ptr<const Entry> entry((*entries)[number % kChunk].exchange(nullptr));
  if (entry) forgotten_.push_back(std::move(entry));
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
    const std::size_t room = std::max(kBlock, needed);
    blocks_.push_back(std::make_unique<char[]>(room));
    left_ = lastBlock_ = room;
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
  chunkOf(number).bytes[number % kChunk] = keep(bytes);
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
