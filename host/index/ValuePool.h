// SPDX-License-Identifier: Apache-2.0
//
// Values that many messages have alike: people, addresses, lists of them, types. Each is kept once
// and known by a number, on disk in the table `pool` and in memory as one shared object, so that
// records are short, and items made from them share all that can be shared.
//
// A value is taken in when it is seen a fourth time; what few messages have stays in their records,
// and costs no memory.
// Numbers are for ever: the pool only grows.
//
// at() on any thread; everything else on the thread that writes.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/value.h"
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

  /// Null for a number that is not known; otherwise valid as long as the pool.
  const Entry* at(std::uint32_t number) const noexcept;
  std::uint32_t size() const noexcept { return size_.load(std::memory_order_acquire); }

  /// The number of `value`, which was encoded as `bytes`; empty when it is not in the pool and not
  /// taken in now, as it has been seen too seldom. With `always` it is taken in at once.
  std::optional<std::uint32_t> intern(const Value& value, std::string_view bytes, bool always);

  /// Writes what was taken in since the last time, in the transaction that is open.
  bool store(Connection& writer);
  /// The transaction has ended. When it failed, what it took in is forgotten.
  void end(bool committed);

 private:
  static constexpr std::size_t kChunk = 4096;
  static constexpr std::size_t kMostChunks = 1024;
  static constexpr std::size_t kSeenSlots = std::size_t{1} << 20;
  static constexpr std::uint32_t kSeenBefore = 3;

  struct Chunk {
    std::array<Entry, kChunk> entries;
  };
  struct Unstored {
    std::uint32_t number;
    std::string bytes;
  };

  bool append(Value value);
  bool isCommon(std::uint64_t hash);
  std::uint32_t& slotOf(std::uint32_t hash) { return slots_[hash & (slots_.size() - 1)]; }
  void link(std::uint32_t number);
  void addHash(std::uint64_t hash);

  std::vector<std::atomic<Chunk*>> chunks_;
  std::atomic<std::uint32_t> size_{0};

  // For writing only.
  std::vector<std::uint32_t> hashes_;  // by number
  std::vector<std::uint32_t> next_;    // by number: of those in one slot, as number + 1
  std::vector<std::uint32_t> slots_;   // as many as a power of two: a number + 1
  std::vector<std::uint32_t> seen_;    // by the hash's low bits: its high bits, and how often
  std::vector<Unstored> unstored_;     // since the last transaction ended
  std::size_t written_ = 0;            // of those
};

}  // namespace thmp
