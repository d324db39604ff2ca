// SPDX-License-Identifier: Apache-2.0
//
// Values that many messages have alike: people, addresses, lists of them, types. Each is kept once
// and known by a number, on disk in the table `pool` and in memory in the same bytes, so that
// records are short. Once it is asked for it is one shared object, so that items made from records
// share all that can be shared.
//
// A value is taken in when it is seen a fourth time; what few messages have stays in their records,
// and costs no memory.
// Numbers are for ever: the pool only grows.
//
// at(), lent(), bytes() and size() on any thread; everything else on the thread that writes.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/DictionarySource.h"
#include "host/store/attribute_keys.h"
#include "host/store/sqlite_connection.h"

namespace thmp {

class ValuePool {
 public:
  static constexpr const char* kSchema =
      "CREATE TABLE pool(number INTEGER PRIMARY KEY, value BLOB NOT NULL);";

  enum class Use : bool { kReading, kWriting };

  explicit ValuePool(Use use);
  ~ValuePool();
  ValuePool(const ValuePool&) = delete;
  ValuePool& operator=(const ValuePool&) = delete;

  /// Reads what the database has beyond what is known. False when it cannot be read.
  bool load(Connection& connection);

  struct Entry {
    Value value;
    /// Of a dictionary of attributes: their keys, in the order of its entries.
    std::vector<AttributeKey> keys;
  };

  /// Null for a number that is not known; otherwise valid as long as the pool. May throw
  /// std::bad_alloc when it is asked for the first time.
  const Entry* at(std::uint32_t number) const;
  /// The same for a sink, without making it. REQUIRES: the number is known.
  LentValue lent(std::uint32_t number) const noexcept;
  /// As encodeValue() made them. REQUIRES: the number is known.
  std::string_view bytes(std::uint32_t number) const noexcept {
    return bytesAt(chunkOf(number).bytes[number % kChunk]);
  }
  std::uint32_t size() const noexcept { return size_.load(std::memory_order_acquire); }

  /// The number of the value that was encoded as `bytes`; empty when it is not in the pool and not
  /// taken in now, as it has been seen too seldom. With `always` it is taken in at once.
  std::optional<std::uint32_t> intern(std::string_view bytes, bool always);

  /// Writes what was taken in since the last time, in the transaction that is open.
  bool store(Connection& writer);
  /// The transaction has ended. When it failed, what it took in is forgotten.
  void end(bool committed);

 private:
  static constexpr std::size_t kChunk = 4096;
  static constexpr std::size_t kMostChunks = 1023;
  static constexpr unsigned kNumberBits = 22;
  static_assert(kChunk * kMostChunks < std::size_t{1} << kNumberBits);
  static constexpr std::size_t kSeenSlots = std::size_t{1} << 20;
  static constexpr std::uint32_t kSeenBefore = 3;
  static constexpr std::size_t kBlock = std::size_t{64} << 10;  // bytes

  using Entries = std::array<std::atomic<const Entry*>, kChunk>;
  struct Chunk {
    ~Chunk();
    std::array<const char*, kChunk> bytes{};  // their count, four bytes, stands before them
    std::atomic<Entries*> entries{nullptr};   // made when one is asked for
  };
  struct Free {
    void operator()(void* memory) const noexcept { std::free(memory); }
  };

  static std::unique_ptr<const Entry> decoded(std::string_view bytes);
  static std::string_view bytesAt(const char* place) noexcept;
  Chunk& chunkOf(std::uint32_t number) const noexcept;
  bool append(std::string_view bytes);
  const char* keep(std::string_view bytes);
  bool isCommon(std::uint64_t hash);
  static std::uint32_t numberIn(std::uint32_t slot) noexcept {
    return (slot & ((1U << kNumberBits) - 1)) - 1;
  }
  static std::uint32_t tagIn(std::uint32_t slot) noexcept { return slot >> kNumberBits; }
  static std::uint32_t tagOf(std::uint64_t hash) noexcept {
    return static_cast<std::uint32_t>(hash >> (32 + kNumberBits));
  }
  std::uint32_t* slotFor(std::uint64_t hash, std::string_view bytes);
  void addLast(std::uint64_t hash);
  void forgetLast();

  std::vector<std::atomic<Chunk*>> chunks_;
  std::atomic<std::uint32_t> size_{0};

  // On the thread that writes only.
  std::vector<std::unique_ptr<char[]>> blocks_;  // of the values' bytes
  std::size_t lastBlock_ = 0;                    // the size of the last one
  std::size_t left_ = 0;                         // bytes at its end
  /// As many as a power of two, half of them free: a number + 1, and above it a tag, a part of the
  /// hash.
  std::vector<std::uint32_t> slots_;
  /// By the hash's low bits: its high bits, and how often. Takes up memory where it is used.
  std::unique_ptr<std::uint32_t[], Free> seen_;
  /// Somebody may have been given one by a record that is not what was written.
  std::vector<std::unique_ptr<const Entry>> forgotten_;
  std::uint32_t stored_ = 0;   // values that were there when the last transaction ended
  std::uint32_t written_ = 0;  // values that the one that is open has written, with those
};

}  // namespace thmp
