// SPDX-License-Identifier: Apache-2.0
//
// Writes the binary encoding in one pass over the values. Every object gets a number when it is
// first met: a scalar is written at once, and looked up by the bytes that it takes, so that equal
// ones are written once; a container waits for its turn, when its elements get their numbers. The
// containers come last, as only then is it known how many bytes a number takes.
//
// When some hundreds of containers wait, a second thread takes of them what it finds the time for,
// and numbers what is in them by itself. That is then taken over, scalars by their bytes once more.
// A container that both threads have met is written twice.
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <future>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/DictionarySource.h"
#include "base/mutex.h"
#include "base/plist.h"
#include "base/value_nodes.h"

namespace thmp {
namespace {

using value_internal::Access;
using value_internal::entriesOf;
using value_internal::Node;
using value_internal::valuesOf;

using Entry = Dictionary::Entry;
using Kind = Value::Kind;
using Byte = unsigned char;

constexpr std::uint64_t kGolden = 0x9E3779B97F4A7C15;

/// Both halves of the product of two numbers, folded together.
std::uint64_t mix(std::uint64_t a, std::uint64_t b) {
  __extension__ using Wide = unsigned __int128;
  const Wide product = Wide{a} * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

constexpr std::uint32_t kNoNumber = UINT32_MAX;

/// Of a table; a power of two. Most property lists are small.
constexpr std::size_t kFirstSlots = 64;
/// Fuller than is quickest for a small one: those of a batch are too large for a processor's cache.
constexpr bool isTooFull(std::size_t used, std::size_t slots) { return 4 * used > 3 * slots; }
/// As few as will do.
constexpr std::size_t slotsFor(std::size_t used) {
  const std::size_t slots = std::bit_ceil(used);
  return isTooFull(used, slots) ? 2 * slots : slots;
}

/// Numbers by an address, with open addressing.
class AddressTable {
 public:
  AddressTable() : slots_(kFirstSlots) {}

  /// The place of its number: kNoNumber when it is new, and for the caller to fill then, before
  /// another is asked for.
  std::uint32_t& at(const void* address) {
    if (isTooFull(used_ + 1, slots_.size())) grow();
    Slot& slot = slots_[indexOf(address)];
    if (slot.number == kNoNumber) {
      slot.address = address;
      ++used_;
    }
    return slot.number;
  }

 private:
  struct Slot {
    const void* address = nullptr;
    std::uint32_t number = kNoNumber;
  };

  std::size_t indexOf(const void* address) const {
    const std::size_t mask = slots_.size() - 1;
    std::size_t i = (reinterpret_cast<std::uintptr_t>(address) * kGolden >> 32) & mask;
    while (slots_[i].number != kNoNumber && slots_[i].address != address) i = (i + 1) & mask;
    return i;
  }

  void grow() {
    std::vector<Slot> old(slots_.size() * 2);
    old.swap(slots_);
    for (const Slot& slot : old) {
      if (slot.number != kNoNumber) slots_[indexOf(slot.address)] = slot;
    }
  }

  std::vector<Slot> slots_;
  std::size_t used_ = 0;
};

/// The bytes written so far. A string would clear all the room that it makes.
class Output {
 public:
  std::size_t size() const { return size_; }
  const char* data() const { return bytes_.get(); }
  /// Where the next bytes go; up to `count` may be written there, and then taken by growTo().
  char* room(std::size_t count) {
    if (capacity_ - size_ < count) reserve(2 * capacity_ + count);
    return bytes_.get() + size_;
  }
  void growTo(const char* end) { size_ = static_cast<std::size_t>(end - bytes_.get()); }
  void put(unsigned byte) {
    char* place = room(1);
    *place = static_cast<char>(byte);
    growTo(place + 1);
  }
  void put(std::string_view bytes) {
    char* place = room(bytes.size());
    growTo(std::copy(bytes.begin(), bytes.end(), place));
  }
  /// Takes the last bytes away.
  void shrinkTo(std::size_t size) { size_ = size; }
  /// Makes room for about so many more.
  void expect(std::size_t count) {
    if (capacity_ - size_ < count) reserve(std::max(size_ + count, 2 * capacity_));
  }

 private:
  void reserve(std::size_t capacity) {
    std::unique_ptr<char[]> bytes(new char[capacity]);
    std::copy_n(bytes_.get(), size_, bytes.get());
    bytes_ = std::move(bytes);
    capacity_ = capacity;
  }

  static constexpr std::size_t kFirst = 4096;

  std::unique_ptr<char[]> bytes_{new char[kFirst]};
  std::size_t capacity_ = kFirst;
  std::size_t size_ = 0;
};

/// Numbers of scalars by the bytes that they take, with open addressing.
class ContentTable {
 public:
  ContentTable(std::uint64_t seed, const Output& out, const std::vector<std::uint64_t>& offsets)
      : seed_(seed), out_(out), offsets_(offsets), slots_(kFirstSlots) {}

  /// Makes room for about so many in all.
  void expect(std::size_t count) {
    if (isTooFull(count, slots_.size())) growTo(slotsFor(count));
  }
  std::size_t size() const { return used_; }

  /// The place of the number of the one that stands at `begin` of what was written, up to its end;
  /// as AddressTable::at.
  std::uint32_t& at(std::size_t begin) {
    if (isTooFull(used_ + 1, slots_.size())) growTo(2 * slots_.size());
    const std::string_view bytes(out_.data() + begin, out_.size() - begin);
    const std::uint32_t hash = hashOf(bytes);
    const std::size_t mask = slots_.size() - 1;
    std::size_t i = hash & mask;
    for (; slots_[i].number != kNoNumber; i = (i + 1) & mask) {
      if (slots_[i].hash != hash) continue;
      // No scalar's bytes begin with all those of another.
      const std::uint64_t other = offsets_[slots_[i].number];
      if (begin - other >= bytes.size() &&
          std::memcmp(out_.data() + other, bytes.data(), bytes.size()) == 0) {
        return slots_[i].number;
      }
    }
    slots_[i].hash = hash;
    ++used_;
    return slots_[i].number;
  }

 private:
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t number = kNoNumber;
  };

  template <typename Word>
  static std::uint64_t wordAt(const char* bytes) {
    Word word = 0;
    std::memcpy(&word, bytes, sizeof word);
    return word;
  }

  /// REQUIRES: there is a byte at least.
  std::uint32_t hashOf(std::string_view bytes) const {
    using Long = std::uint64_t;
    using Short = std::uint32_t;
    std::uint64_t hash = seed_ ^ bytes.size();
    const char* at = bytes.data();
    const char* end = at + bytes.size();
    for (; end - at > 16; at += 16) {
      hash = mix(wordAt<Long>(at) ^ hash, wordAt<Long>(at + 8) ^ seed_);
    }
    // The last ones, some of them twice.
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    if (bytes.size() >= 16) {
      first = wordAt<Long>(end - 16);
      last = wordAt<Long>(end - 8);
    } else if (bytes.size() >= 8) {
      first = wordAt<Long>(at);
      last = wordAt<Long>(end - 8);
    } else if (bytes.size() >= 4) {
      first = wordAt<Short>(at);
      last = wordAt<Short>(end - 4);
    } else {
      first = static_cast<Byte>(*at);
      last = static_cast<std::uint64_t>(static_cast<Byte>(at[bytes.size() / 2])) << 8 |
             static_cast<Byte>(end[-1]);
    }
    hash = mix(first ^ hash, last ^ seed_);
    return static_cast<std::uint32_t>(mix(hash, kGolden));
  }

  void growTo(std::size_t size) {
    std::vector<Slot> old(size);
    old.swap(slots_);
    const std::size_t mask = slots_.size() - 1;
    for (const Slot& slot : old) {
      if (slot.number == kNoNumber) continue;
      std::size_t i = slot.hash & mask;
      while (slots_[i].number != kNoNumber) i = (i + 1) & mask;
      slots_[i] = slot;
    }
  }

  std::uint64_t seed_;
  const Output& out_;
  const std::vector<std::uint64_t>& offsets_;
  std::vector<Slot> slots_;
  std::size_t used_ = 0;
};

std::size_t widthFor(std::uint64_t largest) {
  if (largest <= UINT8_MAX) return 1;
  if (largest <= UINT16_MAX) return 2;
  return largest <= UINT32_MAX ? 4 : 8;
}

static_assert(std::endian::native == std::endian::little, "numbers are turned into big-endian");

/// Returns the place after it. Writes eight bytes, of which `width` count.
inline char* storeBig(char* place, std::uint64_t number, std::size_t width) {
  const std::uint64_t big = __builtin_bswap64(number << (64 - 8 * width));
  std::memcpy(place, &big, sizeof big);
  return place + width;
}

void putBig(Output& out, std::uint64_t number, std::size_t width) {
  out.growTo(storeBig(out.room(sizeof number), number, width));
}

/// One of UTF-16.
inline char* storeUnit(char* place, std::uint32_t unit) {
  place[0] = static_cast<char>(unit >> 8);
  place[1] = static_cast<char>(unit);
  return place + 2;
}

template <std::size_t kWidth, typename Number>
void storeAllBig(char* out, std::span<const Number> numbers) {
  for (const Number number : numbers) {
    const std::uint64_t big = __builtin_bswap64(std::uint64_t{number} << (64 - 8 * kWidth));
    std::memcpy(out, &big, kWidth);
    out += kWidth;
  }
}

template <typename Number>
void putAllBig(Output& out, std::span<const Number> numbers, std::size_t width) {
  char* place = out.room(numbers.size() * width);
  out.growTo(place + numbers.size() * width);
  if (width == 1) return storeAllBig<1>(place, numbers);
  if (width == 2) return storeAllBig<2>(place, numbers);
  if (width == 4 || sizeof(Number) == 4) return storeAllBig<4>(place, numbers);
  storeAllBig<sizeof(Number)>(place, numbers);
}

constexpr std::uint32_t kReplacement = 0xFFFD;

/// The code points of a text. A lone surrogate stands for itself, but two that would make a pair,
/// and so another text, do not. U+FFFD stands for them, for each longest piece that begins a
/// character and does not end it, and for each other byte that cannot be read.
class CodePoints {
 public:
  explicit CodePoints(std::string_view text) : text_(text) {}
  bool atEnd() const { return next_ == text_.size(); }

  std::uint32_t take() {
    const std::size_t start = next_;
    const std::uint32_t lead = byteAt(next_++);
    if (lead < 0x80) return lead;
    if (lead < 0xC2 || lead > 0xF4) return kReplacement;
    const std::size_t more = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    // The ranges of the second byte leave out overlong forms and what is above U+10FFFF.
    std::uint32_t low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    std::uint32_t high = lead == 0xF4 ? 0x8F : 0xBF;
    std::uint32_t point = lead & (0x3FU >> more);
    for (std::size_t i = 0; i < more; ++i, low = 0x80, high = 0xBF) {
      if (atEnd() || byteAt(next_) < low || byteAt(next_) > high) return kReplacement;
      point = point << 6 | (byteAt(next_++) & 0x3F);
    }
    const bool inPair =
        (isSurrogateAt(start, 0xA0) && isSurrogateAt(start + 3, 0xB0)) ||
        (isSurrogateAt(start, 0xB0) && start >= 3 && isSurrogateAt(start - 3, 0xA0));
    return inPair ? kReplacement : point;
  }

 private:
  std::uint32_t byteAt(std::size_t i) const { return static_cast<Byte>(text_[i]); }

  /// Whether three bytes there are a surrogate: a high one for 0xA0, a low one for 0xB0.
  bool isSurrogateAt(std::size_t i, std::uint32_t half) const {
    return i + 3 <= text_.size() && byteAt(i) == 0xED && (byteAt(i + 1) & 0xF0) == half &&
           (byteAt(i + 2) & 0xC0) == 0x80;
  }

  std::string_view text_;
  std::size_t next_ = 0;
};

/// Copies `text`; whether it is ASCII.
inline bool copyAscii(char* to, std::string_view text) {
  std::uint64_t all = 0;
  const char* from = text.data();
  const char* end = from + text.size();
  for (; end - from >= 8; from += 8, to += 8) {
    std::uint64_t word = 0;
    std::memcpy(&word, from, sizeof word);
    std::memcpy(to, &word, sizeof word);
    all |= word;
  }
  for (; from != end; ++from, ++to) {
    *to = *from;
    all |= static_cast<Byte>(*from);
  }
  return (all & 0x8080808080808080) == 0;
}

constexpr std::size_t kLongestCount = 10;  // what storeCount() may write

/// Returns the place after it.
inline char* storeCount(char* place, unsigned type, std::size_t count) {
  *place++ = static_cast<char>(type | std::min(count, std::size_t{0x0F}));
  if (count < 0x0F) return place;
  const std::size_t width = widthFor(count);
  *place++ = static_cast<char>(0x10 + std::countr_zero(width));
  return storeBig(place, count, width);
}

void putCount(Output& out, unsigned type, std::size_t count) {
  out.growTo(storeCount(out.room(kLongestCount), type, count));
}

void putEight(Output& out, unsigned type, std::uint64_t bits) {
  char* place = out.room(1 + sizeof bits);
  *place = static_cast<char>(type);
  out.growTo(storeBig(place + 1, bits, sizeof bits));
}

/// Up to four bytes are read as unsigned, eight as signed, so a number above the largest signed one
/// takes sixteen.
void putInteger(Output& out, Kind kind, std::uint64_t bits) {
  if (kind == Kind::kUnsigned) {
    putEight(out, 0x14, 0);
    return putBig(out, bits, sizeof bits);
  }
  const std::size_t width = widthFor(bits);  // a negative number has its highest bit set
  out.put(0x10 + static_cast<unsigned>(std::countr_zero(width)));
  putBig(out, bits, width);
}

void putText(Output& out, std::string_view text) {
  char* place = storeCount(out.room(kLongestCount + text.size()), 0x50, text.size());
  if (copyAscii(place, text)) return out.growTo(place + text.size());
  std::size_t units = 0;
  for (CodePoints points(text); !points.atEnd();) units += points.take() >= 0x10000 ? 2 : 1;
  place = storeCount(out.room(kLongestCount + 2 * units), 0x60, units);
  for (CodePoints points(text); !points.atEnd();) {
    const std::uint32_t point = points.take();
    if (point < 0x10000) {
      place = storeUnit(place, point);
    } else {
      place = storeUnit(place, 0xD800 + ((point - 0x10000) >> 10));
      place = storeUnit(place, 0xDC00 + (point & 0x3FF));
    }
  }
  out.growTo(place);
}

/// REQUIRES: it is no array and no dictionary, or one without elements.
void putScalar(Output& out, const Value& value) {
  const std::uint64_t bits = Access::bits(value);
  switch (value.kind()) {
    case Kind::kNull:  // refused before
      break;
    case Kind::kBoolean:
      out.put(bits != 0 ? 0x09 : 0x08);
      break;
    case Kind::kInteger:
    case Kind::kUnsigned:
      putInteger(out, value.kind(), bits);
      break;
    case Kind::kReal:
      putEight(out, 0x23, bits);
      break;
    case Kind::kDate:
      putEight(out, 0x33, bits);
      break;
    case Kind::kData:
      putCount(out, 0x40, value.asData()->size());
      out.put(*value.asData());
      break;
    case Kind::kText:
      putText(out, *value.asText());
      break;
    case Kind::kArray:
      out.put(0xA0);
      break;
    case Kind::kDictionary:
      out.put(0xD0);
      break;
  }
}

bool isWritable(const Value& value) {
  if (value.kind() == Kind::kDate) return std::isfinite(std::bit_cast<double>(Access::bits(value)));
  return !value.isNull();
}

struct Container {
  Node* node;  // null when its elements have their numbers
  std::uint32_t number;
  bool isArray;
  std::size_t firstReference;
  std::size_t references;  // those of a dictionary's keys first
};

/// That wait at once for a second thread to be worth its start, some 50 microseconds.
constexpr std::size_t kManyContainers = 100;
/// Longer lists come one after the other, and whoever reads them has use for the other processor.
constexpr std::size_t kMostContainers = 1000;
/// After one of so many of them it is guessed what all will take.
constexpr std::size_t kSome = 16;
/// Elements that room is made for on a guess, and bytes for each of them.
constexpr std::size_t kMostRoom = std::size_t{1} << 20;
constexpr std::size_t kMostBytes = 16;

/// Containers that two threads take, one from the front, one from the back, until they meet.
class WaitingContainers {
 public:
  /// Those of `all` from `begin` on.
  WaitingContainers(std::size_t begin, const std::vector<Container>& all)
      : origin_(begin),
        containers_(all.begin() + static_cast<std::ptrdiff_t>(begin), all.end()),
        begin_(begin),
        end_(all.size()) {}

  struct Places {
    std::size_t begin;
    std::size_t end;
    bool isEmpty() const { return begin == end; }
  };

  std::size_t size() const { return containers_.size(); }
  const Container& at(std::size_t place) const { return containers_[place - origin_]; }

  Places takeFirst() {
    const Lock lock(mutex_);
    const std::size_t begin = begin_;
    begin_ += std::min(kAtOnce, end_ - begin_);
    return {begin, begin_};
  }
  Places takeLast() {
    const Lock lock(mutex_);
    const std::size_t end = end_;
    end_ -= std::min(kAtOnce, end_ - begin_);
    return {end_, end};
  }

 private:
  static constexpr std::size_t kAtOnce = 32;

  const std::size_t origin_;
  const std::vector<Container> containers_;
  Mutex mutex_;
  std::size_t begin_ THMP_GUARDED_BY(mutex_);
  std::size_t end_ THMP_GUARDED_BY(mutex_);
};

class BinaryWriter final : private EntrySink {
 public:
  explicit BinaryWriter(Error* error) : error_(error), contents_(seedOf(this), out_, offsets_) {
    out_.put("bplist00");
  }
  BinaryWriter(const BinaryWriter&) = delete;
  BinaryWriter& operator=(const BinaryWriter&) = delete;

  std::optional<std::string> write(const Value& root) {
    if (!isWritable(root)) {
      refuse(root, "as the root");
      return std::nullopt;
    }
    numberOf(root);
    numberAll();
    if (isRefused_) return std::nullopt;
    writeContainers();
    writeTable();
    return std::string(out_.data(), out_.size());
  }

 private:
  /// One of another writer's containers.
  struct Taken {
    std::size_t place;
    std::size_t origin;  // its place there
  };

  /// Elements of the container whose turn it is, from a place of the row on.
  struct Begun {
    std::size_t place;
    bool isArray;
  };

  /// The numbers of a layout's keys and values; of open ones none.
  struct KnownLayout {
    std::vector<std::uint32_t> keys;
    std::vector<std::uint32_t> values;
  };

  /// Of what there is so far.
  struct Sizes {
    std::size_t bytes;
    std::size_t scalars;
    std::size_t objects;
    std::size_t containers;
    std::size_t references;
  };

  struct Recent {
    std::uint64_t bits = 0;
    Kind kind = Kind::kNull;
    std::uint32_t number = kNoNumber;
  };

  /// Differs from run to run, so that nobody outside can choose texts or numbers of one hash.
  static std::uint64_t seedOf(const BinaryWriter* writer) {
    return mix(reinterpret_cast<std::uintptr_t>(writer), 0x2545F4914F6CDD1D);
  }

  void refuse(const Value& value, const std::string& where) {
    if (std::exchange(isRefused_, true)) return;
    const std::string what =
        value.isNull() ? "A null value stands " : "A date that is no time stands ";
    fail(error_, Error{std::string(kPropertyListErrorDomain),
                       static_cast<std::int64_t>(PropertyListError::kNotWritable),
                       what + where + "; property lists have no form for it", nullptr});
  }

  static Node* nodeOf(const Value& value) {
    return value.kind() < Kind::kData ? nullptr : Access::node(value);
  }

  std::uint32_t nextNumber(std::uint64_t offset) {
    offsets_.push_back(offset);
    return static_cast<std::uint32_t>(offsets_.size() - 1);
  }

  /// Of the scalar whose bytes stand at the end from `begin` on, and are taken away when they stand
  /// there already.
  std::uint32_t numberOfScalar(std::size_t begin) {
    std::uint32_t& number = contents_.at(begin);
    if (number == kNoNumber) {
      number = nextNumber(begin);
    } else {
      out_.shrinkTo(begin);
    }
    return number;
  }

  std::uint32_t newNumber(const Value& value, Node* node) {
    if (node != nullptr && value.kind() >= Kind::kArray) {
      const std::uint32_t number = nextNumber(0);
      containers_.push_back({node, number, value.kind() == Kind::kArray, 0, 0});
      return number;
    }
    const std::size_t begin = out_.size();
    putScalar(out_, value);
    return numberOfScalar(begin);
  }

  /// Of a value that is no object. Dates and numbers often come again at once.
  std::uint32_t numberOfPlain(const Value& value) {
    const std::uint64_t bits = Access::bits(value);
    Recent& recent = recent_[(bits + static_cast<std::uint64_t>(value.kind())) * kGolden >> 58];
    if (recent.number == kNoNumber || recent.kind != value.kind() || recent.bits != bits) {
      recent = {bits, value.kind(), newNumber(value, nullptr)};
    }
    return recent.number;
  }

  /// Of a value that lives until all is written.
  std::uint32_t numberOf(const Value& value) {
    Node* node = nodeOf(value);
    if (node == nullptr) return numberOfPlain(value);
    std::uint32_t& number = numbers_.at(node);
    if (number == kNoNumber) number = newNumber(value, node);
    return number;
  }

  /// The same for an element of the container that is looked at: when it is all that holds the
  /// element's node, that does not come again.
  std::uint32_t numberOfElement(const Value& value) {
    Node* node = nodeOf(value);
    const bool isSole = node != nullptr && !node->isForever &&
                        node->references.load(std::memory_order_relaxed) == 1;
    return isSole ? newNumber(value, node) : numberOf(value);
  }

  std::uint32_t numberOfText(std::string_view bytes) {
    const std::size_t begin = out_.size();
    putText(out_, bytes);
    return numberOfScalar(begin);
  }

  std::uint32_t numberOfKey(const Text& key) {
    const Node* node = Access::node(key);
    if (node == nullptr || !node->isForever) return numberOfText(key);
    std::uint32_t& number = names_.at(node);
    if (number == kNoNumber) number = numberOfText(key);
    return number;
  }

  Handle push(std::uint32_t number) {
    row_.push_back(number);
    return number;
  }

  void numberAll();
  void numberLast(WaitingContainers& waiting);
  void numberRest();
  Sizes sizes() const {
    return {out_.size(), contents_.size(), offsets_.size(), containers_.size(), references_.size()};
  }
  void makeRoom(const Sizes& before);
  void numberElements(std::size_t place);
  void takeOver(const BinaryWriter& other);
  void takeRow(Container& container, std::size_t from);
  void takeEntries(Container& container);
  bool isAccepted(const Text& key, const Value& value);
  const KnownLayout& known(const EntryLayout& layout);
  void writeContainers();
  void writeTable();

  void begin(const EntryLayout& layout) override { layout_ = &known(layout); }
  Handle add(Value value) override;
  Handle addText(std::string_view bytes) override { return push(numberOfText(bytes)); }
  Handle addLent(const Value& value) override;
  Handle addLent(const LentValue& value) override;
  void addAgain(Handle value) override { push(value); }
  void beginArray() override { begun_.push_back({row_.size(), true}); }
  void beginDictionary() override { begun_.push_back({row_.size(), false}); }
  Handle end() override;

  Error* error_;
  bool isRefused_ = false;
  Output out_;
  std::vector<std::uint64_t> offsets_;  // by number
  std::vector<Container> containers_;   // in the order in which they were met
  std::size_t next_ = 0;                // of them: whose elements are to be numbered
  std::vector<Taken> taken_;
  std::vector<std::uint32_t> references_;
  AddressTable numbers_;
  AddressTable lent_;   // of lent values that have been given
  AddressTable names_;  // of keys that are never freed
  ContentTable contents_;
  std::array<Recent, 64> recent_;
  std::vector<std::uint32_t> row_;  // of elements: their numbers
  std::vector<Begun> begun_;
  std::vector<Value> kept_;              // their addresses must not become those of others
  const KnownLayout* layout_ = nullptr;  // of the dictionary whose turn it is
  std::unordered_map<const EntryLayout*, KnownLayout> layouts_;
};

void BinaryWriter::numberAll() {
  while (next_ < containers_.size() && containers_.size() - next_ < kManyContainers) {
    numberElements(next_++);
  }
  if (containers_.size() - next_ > kMostContainers) numberRest();
  if (next_ == containers_.size() || isRefused_) return;
  constexpr std::size_t kScalarsEach = 8;
  WaitingContainers waiting(next_, containers_);
  next_ = containers_.size();
  Error otherError;
  BinaryWriter other(&otherError);
  contents_.expect(waiting.size() * kScalarsEach);
  other.contents_.expect(waiting.size() * kScalarsEach / 2);
  // On this thread when there can be no other.
  std::future<void> numbered = std::async([&other, &waiting] { other.numberLast(waiting); });
  for (auto places = waiting.takeFirst(); !places.isEmpty(); places = waiting.takeFirst()) {
    for (std::size_t i = places.begin; i < places.end && !isRefused_; ++i) numberElements(i);
    numberRest();
  }
  numbered.get();
  if (other.isRefused_ && !std::exchange(isRefused_, true)) fail(error_, std::move(otherError));
  if (!isRefused_) takeOver(other);
}

/// Numbers what those hold that nobody takes before.
void BinaryWriter::numberLast(WaitingContainers& waiting) {
  for (auto places = waiting.takeLast(); !places.isEmpty(); places = waiting.takeLast()) {
    for (std::size_t place = places.begin; place < places.end; ++place) {
      const Container& container = waiting.at(place);
      taken_.push_back({containers_.size(), place});
      containers_.push_back({container.node, nextNumber(0), container.isArray, 0, 0});
    }
    numberRest();
  }
}

void BinaryWriter::numberRest() {
  while (next_ < containers_.size() && !isRefused_) {
    // Those that wait are mostly of one kind, as the entries of a list are.
    const std::size_t end = containers_.size();
    const std::size_t some = next_ + (end - next_) / kSome;
    const Sizes before = sizes();
    for (; next_ < end && !isRefused_; ++next_) {
      if (next_ == some && end - next_ > kManyContainers) makeRoom(before);
      numberElements(next_);
    }
  }
}

/// For as many times what has come since it was `before` as that was a part.
void BinaryWriter::makeRoom(const Sizes& before) {
  const Sizes now = sizes();
  const auto more = [&](std::size_t Sizes::*size, std::size_t most = kMostRoom) {
    return std::min((now.*size - before.*size) * kSome, most);
  };
  // At least twice what there was: this may be asked for often.
  const auto reserve = [](auto& all, std::size_t count) {
    const std::size_t needed = all.size() + count;
    if (all.capacity() < needed) all.reserve(std::max(needed, 2 * all.capacity()));
  };
  out_.expect(more(&Sizes::bytes, kMostRoom * kMostBytes));
  contents_.expect(now.scalars + more(&Sizes::scalars));
  reserve(offsets_, more(&Sizes::objects));
  reserve(containers_, more(&Sizes::containers));
  reserve(references_, more(&Sizes::references));
}

/// Takes over what `other` has numbered, the containers that it took from this one among it.
void BinaryWriter::takeOver(const BinaryWriter& other) {
  std::vector<std::uint32_t> numbers(other.offsets_.size(), kNoNumber);
  for (const Taken& taken : other.taken_) {
    numbers[other.containers_[taken.place].number] = containers_[taken.origin].number;
  }
  for (const Container& container : other.containers_) {
    std::uint32_t& number = numbers[container.number];
    if (number == kNoNumber) number = nextNumber(0);
  }
  // The last ones first: so it is known where each ends.
  std::size_t end = other.out_.size();
  for (std::size_t number = other.offsets_.size(); number-- > 0;) {
    const std::size_t begin = other.offsets_[number];
    if (begin == 0) continue;  // a container
    const std::size_t copy = out_.size();
    out_.put({other.out_.data() + begin, end - begin});
    numbers[number] = numberOfScalar(copy);
    end = begin;
  }
  const std::size_t references = references_.size();
  references_.resize(references + other.references_.size());
  std::transform(other.references_.begin(), other.references_.end(),
                 references_.begin() + static_cast<std::ptrdiff_t>(references),
                 [&numbers](std::uint32_t number) { return numbers[number]; });
  auto taken = other.taken_.begin();
  for (std::size_t i = 0; i < other.containers_.size(); ++i) {
    Container container = other.containers_[i];
    container.number = numbers[container.number];
    container.firstReference += references;
    if (taken == other.taken_.end() || taken->place != i) {
      containers_.push_back(container);
    } else if (const std::size_t origin = taken++->origin; container.node != nullptr) {
      containers_[origin] = container;
    }
  }
}

void BinaryWriter::numberElements(std::size_t place) {
  Node* node = containers_[place].node;
  if (node == nullptr) return;
  row_.clear();
  if (const DictionarySource* source = value_internal::unusedSource(node)) {
    layout_ = nullptr;
    source->give(*this);
    return takeEntries(containers_[place]);
  }
  if (containers_[place].isArray) {
    for (std::size_t i = 0; i < node->size; ++i) {
      const Value& value = valuesOf(node)[i];
      if (!isWritable(value)) {
        return refuse(value, "at index " + std::to_string(i) + " of an array");
      }
      push(numberOfElement(value));
    }
  } else {
    node = elementsNode(node);
    for (std::size_t i = 0; i < node->size; ++i) {
      const Entry& entry = entriesOf(node)[i];
      if (!isAccepted(entry.key, entry.value)) return;
      push(numberOfKey(entry.key));
      push(numberOfElement(entry.value));
    }
  }
  takeRow(containers_[place], 0);
}

/// Makes the row from a place on the elements of a container.
void BinaryWriter::takeRow(Container& container, std::size_t from) {
  container.firstReference = references_.size();
  const std::uint32_t* row = row_.data() + from;
  const std::size_t size = row_.size() - from;
  if (container.isArray) {
    references_.insert(references_.end(), row, row + size);
  } else {
    const std::size_t entries = size / 2;
    references_.resize(references_.size() + 2 * entries);
    std::uint32_t* keys = references_.data() + container.firstReference;
    for (std::size_t i = 0; i < entries; ++i) {
      keys[i] = row[2 * i];
      keys[entries + i] = row[2 * i + 1];
    }
  }
  container.references = references_.size() - container.firstReference;
  row_.resize(from);
}

/// Makes the layout, with the row in its open places, the entries of a dictionary.
void BinaryWriter::takeEntries(Container& container) {
  container.firstReference = references_.size();
  if (layout_ == nullptr) return;
  references_.insert(references_.end(), layout_->keys.begin(), layout_->keys.end());
  std::size_t open = 0;
  for (std::uint32_t number : layout_->values) {
    if (number == kNoNumber) {
      number = open < row_.size() ? row_[open] : numberOfText({});
      ++open;
    }
    references_.push_back(number);
  }
  container.references = references_.size() - container.firstReference;
}

const BinaryWriter::KnownLayout& BinaryWriter::known(const EntryLayout& layout) {
  const auto [place, isNew] = layouts_.try_emplace(&layout);
  KnownLayout& made = place->second;
  if (isNew) {
    made.keys.reserve(layout.keys.size());
    made.values.reserve(layout.keys.size());
    for (std::size_t i = 0; i < layout.keys.size(); ++i) {
      const Value& value = layout.values[i];
      const bool isOpen = value.isNull();
      made.keys.push_back(numberOfKey(layout.keys[i]));
      made.values.push_back(!isOpen && isAccepted(layout.keys[i], value) ? numberOf(value)
                                                                         : kNoNumber);
    }
  }
  return made;
}

bool BinaryWriter::isAccepted(const Text& key, const Value& value) {
  if (isWritable(value)) return true;
  refuse(value, "under the key \"" + key.str() + "\"");
  return false;
}

EntrySink::Handle BinaryWriter::add(Value value) {
  if (nodeOf(value) == nullptr && isWritable(value)) return push(numberOfPlain(value));
  kept_.push_back(std::move(value));
  return addLent(kept_.back());
}

EntrySink::Handle BinaryWriter::addLent(const Value& value) {
  if (isWritable(value)) return push(numberOf(value));
  refuse(value, "in a dictionary");
  return push(0);
}

EntrySink::Handle BinaryWriter::addLent(const LentValue& value) {
  std::uint32_t& number = lent_.at(value.address);
  if (number != kNoNumber) return push(number);
  value.give(value.address, *this);
  return number = row_.back();
}

EntrySink::Handle BinaryWriter::end() {
  const Begun begun = begun_.back();
  begun_.pop_back();
  containers_.push_back({nullptr, nextNumber(0), begun.isArray, 0, 0});
  takeRow(containers_.back(), begun.place);
  return push(containers_.back().number);
}

void BinaryWriter::writeContainers() {
  const std::size_t width = widthFor(offsets_.size() - 1);
  out_.room(references_.size() * width + containers_.size() * kLongestCount +
            offsets_.size() * sizeof(std::uint32_t));
  const std::span<const std::uint32_t> all = references_;
  for (const Container& container : containers_) {
    offsets_[container.number] = out_.size();
    if (container.isArray) {
      putCount(out_, 0xA0, container.references);
    } else {
      putCount(out_, 0xD0, container.references / 2);
    }
    putAllBig(out_, all.subspan(container.firstReference, container.references), width);
  }
}

void BinaryWriter::writeTable() {
  const std::uint64_t table = out_.size();
  const std::size_t offsetSize = widthFor(table);
  putAllBig(out_, std::span<const std::uint64_t>(offsets_), offsetSize);
  putBig(out_, 0, 6);
  out_.put(static_cast<unsigned>(offsetSize));
  out_.put(static_cast<unsigned>(widthFor(offsets_.size() - 1)));
  putBig(out_, offsets_.size(), 8);
  putBig(out_, 0, 8);
  putBig(out_, table, 8);
}

}  // namespace

std::optional<std::string> writeBinaryPropertyList(const Value& root, Error* error) {
  return BinaryWriter(error).write(root);
}

}  // namespace thmp
