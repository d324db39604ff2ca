// SPDX-License-Identifier: Apache-2.0
//
// The binary encoding: a header, the objects, a table of their offsets and a trailer. Objects refer
// to each other by number. Each object that the root reaches is looked at once, from the leaves up,
// and gets its expanded node count and its height, so that shared references cost nothing twice. No
// object may overlap another: the sizes of all objects together then stay below that of the file,
// and with them the work and the memory.
#include "base/PropertyListView.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <deque>
#include <utility>

#include "base/big_endian.h"
#include "base/value_nodes.h"

namespace thmp {
namespace {

using value_internal::Access;

using Kind = Value::Kind;
using Byte = unsigned char;

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;

constexpr bool isHighSurrogate(std::uint32_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
constexpr bool isLowSurrogate(std::uint32_t unit) { return unit >= 0xDC00 && unit < 0xE000; }

/// UTF-16, big-endian. A lone surrogate stands for itself.
class Utf16Units {
 public:
  Utf16Units(const Byte* bytes, std::size_t count) : bytes_(bytes), count_(count) {}
  bool atEnd() const { return next_ == count_; }
  std::uint32_t take() {
    const std::uint32_t unit = at(next_++);
    if (!isHighSurrogate(unit) || atEnd() || !isLowSurrogate(at(next_))) return unit;
    return 0x10000 + ((unit - 0xD800) << 10) + (at(next_++) - 0xDC00);
  }

 private:
  std::uint32_t at(std::size_t i) const {
    return static_cast<std::uint32_t>(bytes_[2 * i] << 8 | bytes_[2 * i + 1]);
  }

  const Byte* bytes_;
  std::size_t count_;
  std::size_t next_ = 0;
};

/// A unit of UTF-16 takes no more in UTF-8.
constexpr std::size_t kMostUtf8 = 3;

char* putUtf8(char* out, std::uint32_t point) {
  const auto rest = [point](unsigned shift) {
    return static_cast<char>(0x80 | (point >> shift & 0x3F));
  };
  if (point < 0x80) {
    *out++ = static_cast<char>(point);
  } else if (point < 0x800) {
    *out++ = static_cast<char>(0xC0 | point >> 6);
    *out++ = rest(0);
  } else if (point < 0x10000) {
    *out++ = static_cast<char>(0xE0 | point >> 12);
    *out++ = rest(6);
    *out++ = rest(0);
  } else {
    *out++ = static_cast<char>(0xF0 | point >> 18);
    *out++ = rest(12);
    *out++ = rest(6);
    *out++ = rest(0);
  }
  return out;
}

bool isAscii(const Byte* bytes, std::size_t count) {
  std::uint64_t all = 0;
  for (std::uint64_t word = 0; count >= sizeof word; bytes += sizeof word, count -= sizeof word) {
    std::memcpy(&word, bytes, sizeof word);
    all |= word;
  }
  for (; count > 0; --count) all |= *bytes++;
  return (all & 0x8080808080808080) == 0;
}

}  // namespace

/// Fills a view.
class PropertyListCheck {
 public:
  PropertyListCheck(std::string_view bytes, const PropertyListLimits& limits, Error* error)
      : bytes_(reinterpret_cast<const Byte*>(bytes.data())),
        size_(bytes.size()),
        limits_(limits),
        maxNodes_(std::min<std::uint64_t>(limits.maxNodes, kOpen - 1)),
        error_(error) {}

  std::optional<PropertyListView> check() {
    if (!readTrailer() || !readAll()) return std::nullopt;
    arrangeDictionaries();
    return std::move(view_);
  }

 private:
  using Object = PropertyListView::Object;
  using Slot = PropertyListView::Slot;

  static constexpr std::uint32_t kUnread = 0;
  static constexpr std::uint32_t kOpen = UINT32_MAX;  // nodes, while members are looked at
  static constexpr std::uint32_t kNoKey = UINT32_MAX;

  /// A container whose members are looked at.
  struct Frame {
    Object object;
    const Byte* references;  // of the values
    std::size_t count;
    std::size_t next;
    std::uint64_t nodes;
    std::uint32_t height;
  };

  /// An object's first bytes, taken apart.
  struct Head {
    unsigned type;
    unsigned info;
    std::size_t start;
    std::size_t payload;  // position
    std::size_t available;
  };

  bool failAt(std::size_t position, PropertyListError code, std::string_view what) {
    return fail(error_, Error{std::string(kPropertyListErrorDomain), static_cast<int>(code),
                              "Binary property list: " + std::string(what) + " at byte " +
                                  std::to_string(position),
                              nullptr});
  }
  bool damaged(std::size_t position, std::string_view what) {
    return failAt(position, PropertyListError::kDamaged, what);
  }
  bool tooLarge(std::size_t position, std::string_view what) {
    return failAt(position, PropertyListError::kTooLarge, what);
  }

  bool readTrailer();
  bool readAll();
  bool readMembers();
  bool open(Object object);
  bool openHead(Object object, Head& head);
  bool readCount(Head& head, std::size_t elementSize, std::size_t& count);
  bool charge(std::size_t position, std::size_t encodedSize, std::uint64_t nodes);
  bool keep(Object object, const Head& head, std::size_t payloadSize, const Value& plain);
  bool readSingle(Object object, const Head& head);
  bool readInteger(Object object, const Head& head);
  bool readReal(Object object, const Head& head);
  bool readDate(Object object, const Head& head);
  bool readBytes(Object object, Head& head);
  bool openContainer(Object object, Head& head);
  bool readKeys(Frame& frame);
  bool readKey(Object object, std::size_t position);
  void arrangeDictionaries();
  void rankKeys();
  void arrange(Object dictionary);

  std::size_t position(const Byte* bytes) const { return static_cast<std::size_t>(bytes - bytes_); }
  Slot& slot(Object object) { return view_.slots_[object]; }

  const Byte* bytes_;
  std::size_t size_;
  PropertyListLimits limits_;
  std::uint64_t maxNodes_;
  Error* error_;
  PropertyListView view_;

  std::size_t offsetSize_ = 0;
  std::size_t referenceSize_ = 0;
  std::size_t tableStart_ = 0;
  std::size_t encodedSize_ = 0;  // of all objects read so far
  std::uint64_t ownNodes_ = 0;   // of all objects read so far, without expansion

  std::vector<Frame> frames_;
  std::vector<Object> dictionaries_;  // that are not empty
  std::vector<Object> keys_;          // the objects used as keys, each once
  std::vector<std::uint32_t> ranks_;  // of each object among the keys; kNoKey for the others
};

bool PropertyListCheck::readTrailer() {
  if (size_ > limits_.maxBytes) return tooLarge(size_, "too many bytes");
  if (size_ < kHeaderSize + kTrailerSize || std::memcmp(bytes_, "bplist00", kHeaderSize) != 0) {
    return damaged(0, "no header or no trailer");
  }
  const std::size_t trailer = size_ - kTrailerSize;
  offsetSize_ = bytes_[trailer + 6];
  referenceSize_ = bytes_[trailer + 7];
  const std::uint64_t count = loadBig(bytes_ + trailer + 8, 8);
  const std::uint64_t root = loadBig(bytes_ + trailer + 16, 8);
  const std::uint64_t table = loadBig(bytes_ + trailer + 24, 8);
  if (offsetSize_ < 1 || offsetSize_ > 8) return damaged(trailer + 6, "an offset size not 1 to 8");
  if (referenceSize_ < 1 || referenceSize_ > 8) {
    return damaged(trailer + 7, "a reference size not 1 to 8");
  }
  if (table <= kHeaderSize || table > trailer) {
    return damaged(trailer + 24, "an offset table outside the file");
  }
  if (count > (trailer - table) / offsetSize_) {
    return damaged(trailer + 8, "more objects than the offset table has room for");
  }
  if (root >= count) return damaged(trailer + 16, "a root object that does not exist");
  if (count > maxNodes_) return tooLarge(trailer + 8, "too many objects");
  tableStart_ = static_cast<std::size_t>(table);
  view_.bytes_ = bytes_;
  view_.referenceSize_ = referenceSize_;
  view_.root_ = static_cast<Object>(root);
  view_.slots_.resize(static_cast<std::size_t>(count));
  view_.reached_.reserve(static_cast<std::size_t>(count));
  ranks_.resize(static_cast<std::size_t>(count), kNoKey);
  return true;
}

bool PropertyListCheck::readAll() {
  if (!open(view_.root_)) return false;
  while (!frames_.empty()) {
    const std::size_t depth = frames_.size();
    if (!readMembers()) return false;
    if (frames_.size() > depth) continue;
    const Frame& frame = frames_.back();
    Slot& container = slot(frame.object);
    container.nodes = static_cast<std::uint32_t>(frame.nodes);
    container.height = frame.height + 1;
    view_.reached_.push_back(frame.object);
    frames_.pop_back();
  }
  return true;
}

/// Looks at the members of the last container, to the end or up to one that is a container itself
/// and the last one now.
bool PropertyListCheck::readMembers() {
  Frame& frame = frames_.back();
  for (; frame.next < frame.count; ++frame.next) {
    const Byte* reference = frame.references + frame.next * referenceSize_;
    const std::uint64_t number = loadBig(reference, referenceSize_);
    if (number >= view_.slots_.size()) {
      return damaged(position(reference), "a reference to an object that does not exist");
    }
    const auto object = static_cast<Object>(number);
    const Slot& member = slot(object);
    if (member.nodes == kUnread) {
      if (!open(object)) return false;
      if (member.nodes == kOpen) return true;
    } else if (member.nodes == kOpen) {
      return damaged(position(reference), "an object that contains itself");
    }
    frame.nodes += member.nodes;
    if (frame.nodes > maxNodes_) return tooLarge(position(reference), "too many values");
    if (frames_.size() + member.height > limits_.maxDepth) {
      return tooLarge(position(reference), "values nested too deeply");
    }
    frame.height = std::max(frame.height, member.height);
  }
  return true;
}

bool PropertyListCheck::openHead(Object object, Head& head) {
  const std::size_t entry = tableStart_ + object * offsetSize_;
  const std::uint64_t offset = loadBig(bytes_ + entry, offsetSize_);
  if (offset < kHeaderSize || offset >= tableStart_) {
    return damaged(entry, "an offset outside the objects");
  }
  head.start = static_cast<std::size_t>(offset);
  head.type = bytes_[head.start] >> 4;
  head.info = bytes_[head.start] & 0x0F;
  head.payload = head.start + 1;
  head.available = tableStart_ - head.payload;
  return true;
}

/// Reads a scalar, or begins a container.
bool PropertyListCheck::open(Object object) {
  Head head{};
  if (!openHead(object, head)) return false;
  if (frames_.size() >= limits_.maxDepth) return tooLarge(head.start, "values nested too deeply");
  switch (head.type) {
    case 0x0:
      return readSingle(object, head);
    case 0x1:
      return readInteger(object, head);
    case 0x2:
      return readReal(object, head);
    case 0x3:
      return readDate(object, head);
    case 0x4:
    case 0x5:
    case 0x6:
      return readBytes(object, head);
    case 0xA:
    case 0xD:
      return openContainer(object, head);
    case 0x8:
      return failAt(head.start, PropertyListError::kUnsupported, "an archiver's reference");
    case 0xB:
    case 0xC:
      return failAt(head.start, PropertyListError::kUnsupported, "a set");
    default:
      return damaged(head.start, "an unknown kind of object");
  }
}

/// The count of a text, data or container, which is in the low half of the first byte or in an
/// integer behind it.
bool PropertyListCheck::readCount(Head& head, std::size_t elementSize, std::size_t& count) {
  std::uint64_t number = head.info;
  if (head.info == 0x0F) {
    if (head.available == 0) return damaged(head.start, "a count cut short");
    const unsigned marker = bytes_[head.payload];
    const std::size_t width = std::size_t{1} << (marker & 0x0F);
    if ((marker & 0xF0) != 0x10 || width > 8) return damaged(head.payload, "a count of no integer");
    if (width > head.available - 1) return damaged(head.payload, "a count cut short");
    number = loadBig(bytes_ + head.payload + 1, width);
    head.payload += 1 + width;
    head.available -= 1 + width;
  }
  if (number > head.available / elementSize) {
    return damaged(head.start, "an object longer than the file");
  }
  count = static_cast<std::size_t>(number);
  return true;
}

/// Counts an object against the bytes of the file and against the limit on nodes.
bool PropertyListCheck::charge(std::size_t position, std::size_t encodedSize, std::uint64_t nodes) {
  encodedSize_ += encodedSize;
  if (encodedSize_ > tableStart_ - kHeaderSize) return damaged(position, "overlapping objects");
  ownNodes_ += nodes;
  if (ownNodes_ > maxNodes_) return tooLarge(position, "too many values");
  return true;
}

bool PropertyListCheck::keep(Object object, const Head& head, std::size_t payloadSize,
                             const Value& plain) {
  if (!charge(head.start, head.payload - head.start + payloadSize, 1)) return false;
  Slot& scalar = slot(object);
  scalar.content = Access::bits(plain);
  scalar.kind = plain.kind();
  scalar.nodes = 1;
  scalar.height = 1;
  view_.reached_.push_back(object);
  return true;
}

bool PropertyListCheck::readSingle(Object object, const Head& head) {
  if (head.info == 0x8) return keep(object, head, 0, false);
  if (head.info == 0x9) return keep(object, head, 0, true);
  if (head.info == 0x0) return failAt(head.start, PropertyListError::kUnsupported, "a null");
  return damaged(head.start, "an unknown kind of object");
}

/// One, two and four bytes are unsigned, eight are signed; sixteen carry an unsigned number above
/// the largest signed one.
bool PropertyListCheck::readInteger(Object object, const Head& head) {
  const std::size_t width = std::size_t{1} << head.info;
  if (width > 16) return damaged(head.start, "an integer of unknown size");
  if (width > head.available) return damaged(head.start, "an integer cut short");
  const Byte* payload = bytes_ + head.payload;
  if (width == 16) {
    if (loadBig(payload, 8) != 0) {
      return failAt(head.start, PropertyListError::kUnsupported, "an integer beyond 64 bits");
    }
    return keep(object, head, width, loadBig(payload + 8, 8));
  }
  return keep(object, head, width, static_cast<std::int64_t>(loadBig(payload, width)));
}

bool PropertyListCheck::readReal(Object object, const Head& head) {
  const std::size_t width = std::size_t{1} << head.info;
  if (width != 4 && width != 8) return damaged(head.start, "a real of unknown size");
  if (width > head.available) return damaged(head.start, "a real cut short");
  const std::uint64_t bits = loadBig(bytes_ + head.payload, width);
  const double real = width == 8 ? std::bit_cast<double>(bits)
                                 : std::bit_cast<float>(static_cast<std::uint32_t>(bits));
  return keep(object, head, width, real);
}

bool PropertyListCheck::readDate(Object object, const Head& head) {
  if (head.info != 0x3) return damaged(head.start, "a date of unknown size");
  if (head.available < 8) return damaged(head.start, "a date cut short");
  const double seconds = std::bit_cast<double>(loadBig(bytes_ + head.payload, 8));
  if (!std::isfinite(seconds)) {
    return failAt(head.start, PropertyListError::kUnsupported, "a date that is no time");
  }
  return keep(object, head, 8, Date{seconds});
}

/// Data, ASCII text or UTF-16 text.
bool PropertyListCheck::readBytes(Object object, Head& head) {
  const std::size_t unit = head.type == 0x6 ? 2 : 1;
  std::size_t count = 0;
  if (!readCount(head, unit, count)) return false;
  if (head.type == 0x5 && !isAscii(bytes_ + head.payload, count)) {
    return damaged(head.start, "an ASCII text with other bytes");
  }
  if (!keep(object, head, unit * count, Value())) return false;
  Slot& scalar = slot(object);
  scalar.kind = head.type == 0x4 ? Kind::kData : Kind::kText;
  scalar.isWide = unit == 2;
  scalar.content = head.payload;
  scalar.count = count;
  return true;
}

bool PropertyListCheck::openContainer(Object object, Head& head) {
  const bool isArray = head.type == 0xA;
  const std::size_t perMember = isArray ? 1 : 2;
  std::size_t count = 0;
  if (!readCount(head, perMember * referenceSize_, count)) return false;
  const std::size_t references = perMember * count * referenceSize_;
  if (!charge(head.start, head.payload - head.start + references, 1)) return false;
  if (count > maxNodes_) return tooLarge(head.start, "too many values");
  Frame frame{object, bytes_ + head.payload, count, 0, 1, 0};
  if (!isArray && count > 0) {
    if (!readKeys(frame)) return false;
    dictionaries_.push_back(object);
    frame.references += count * referenceSize_;
  }
  Slot& container = slot(object);
  container.kind = isArray ? Kind::kArray : Kind::kDictionary;
  container.content = head.payload;
  container.count = count;
  container.nodes = kOpen;
  frames_.push_back(frame);
  return true;
}

bool PropertyListCheck::readKeys(Frame& frame) {
  if (frames_.size() + 2 > limits_.maxDepth) {
    return tooLarge(position(frame.references), "values nested too deeply");
  }
  for (std::size_t i = 0; i < frame.count; ++i) {
    const Byte* reference = frame.references + i * referenceSize_;
    const std::uint64_t number = loadBig(reference, referenceSize_);
    if (number >= view_.slots_.size()) {
      return damaged(position(reference), "a reference to an object that does not exist");
    }
    const auto key = static_cast<Object>(number);
    if (ranks_[key] == kNoKey && !readKey(key, position(reference))) return false;
  }
  frame.nodes += frame.count;
  frame.height = 1;
  return true;
}

/// Takes note of an object that is used as a key for the first time.
bool PropertyListCheck::readKey(Object object, std::size_t position) {
  if (slot(object).nodes == kUnread) {
    Head head{};
    if (!openHead(object, head)) return false;
    if (head.type != 0x5 && head.type != 0x6) return damaged(position, "a key that is no text");
    if (!readBytes(object, head)) return false;
  }
  if (slot(object).kind != Kind::kText) return damaged(position, "a key that is no text");
  ranks_[object] = static_cast<std::uint32_t>(keys_.size());
  keys_.push_back(object);
  return true;
}

/// Brings all dictionaries into the order of their keys. The keys are compared with each other once
/// for the whole file, so that long keys in many dictionaries stay cheap.
void PropertyListCheck::arrangeDictionaries() {
  rankKeys();
  for (const Object dictionary : dictionaries_) arrange(dictionary);
}

void PropertyListCheck::rankKeys() {
  struct Key {
    std::string_view text;
    Object object;
  };
  std::deque<std::string> wide;
  std::string unused;
  std::vector<Key> keys;
  keys.reserve(keys_.size());
  for (const Object object : keys_) {
    keys.push_back(
        {view_.bytes(object, slot(object).isWide ? wide.emplace_back() : unused), object});
  }
  std::sort(keys.begin(), keys.end(), [](const Key& a, const Key& b) { return a.text < b.text; });
  std::uint32_t rank = 0;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (i > 0 && keys[i - 1].text != keys[i].text) ++rank;
    ranks_[keys[i].object] = rank;
  }
}

void PropertyListCheck::arrange(Object dictionary) {
  const PropertyListView::Members keys = view_.entries(dictionary).keys;
  std::size_t ascending = 1;
  for (std::uint32_t last = ranks_[keys[0]]; ascending < keys.size(); ++ascending) {
    const std::uint32_t rank = ranks_[keys[ascending]];
    if (rank <= last) break;
    last = rank;
  }
  if (ascending == keys.size()) return;

  std::vector<std::uint64_t> order(keys.size());  // rank, then place
  for (std::size_t i = 0; i < order.size(); ++i) {
    order[i] = std::uint64_t{ranks_[keys[i]]} << 32 | i;
  }
  std::sort(order.begin(), order.end());
  std::vector<std::uint32_t>& orders = view_.orders_;
  Slot& arranged = slot(dictionary);
  orders.push_back(static_cast<std::uint32_t>(order.size()));
  arranged.order = static_cast<std::uint32_t>(orders.size());
  for (std::size_t i = 0; i < order.size(); ++i) {
    if (i + 1 < order.size() && order[i] >> 32 == order[i + 1] >> 32) continue;  // the later stays
    orders.push_back(static_cast<std::uint32_t>(order[i]));
  }
  arranged.count = orders.size() - arranged.order;
}

std::optional<PropertyListView> PropertyListView::open(std::string_view bytes,
                                                       const PropertyListLimits& limits,
                                                       Error* error) {
  return PropertyListCheck(bytes, limits, error).check();
}

Value PropertyListView::plain(Object object) const noexcept {
  return Access::plain(slots_[object].kind, slots_[object].content);
}

std::string_view PropertyListView::bytes(Object object, std::string& room) const {
  const Slot& slot = slots_[object];
  const Byte* bytes = bytes_ + slot.content;
  if (!slot.isWide) return {reinterpret_cast<const char*>(bytes), slot.count};
  if (room.size() < kMostUtf8 * slot.count) room.resize(kMostUtf8 * slot.count);
  char* end = room.data();
  for (Utf16Units units(bytes, slot.count); !units.atEnd();) end = putUtf8(end, units.take());
  return {room.data(), static_cast<std::size_t>(end - room.data())};
}

PropertyListView::Members PropertyListView::elements(Object array) const noexcept {
  const Slot& slot = slots_[array];
  return {bytes_ + slot.content, referenceSize_, slot.count, nullptr};
}

PropertyListView::Entries PropertyListView::entries(Object dictionary) const noexcept {
  const Slot& slot = slots_[dictionary];
  const std::uint32_t* order = slot.order == 0 ? nullptr : orders_.data() + slot.order;
  const std::size_t all = order == nullptr ? slot.count : order[-1];
  const Byte* keys = bytes_ + slot.content;
  return {{keys, referenceSize_, slot.count, order},
          {keys + all * referenceSize_, referenceSize_, slot.count, order}};
}

std::optional<PropertyListView::Object> PropertyListView::find(Object object,
                                                               std::string_view key) const {
  if (kind(object) != Kind::kDictionary) return std::nullopt;
  const Entries all = entries(object);
  std::string room;
  std::size_t begin = 0;
  for (std::size_t count = all.keys.size(); count > 0;) {
    const std::size_t half = count / 2;
    if (bytes(all.keys[begin + half], room) < key) {
      begin += half + 1;
      count -= half + 1;
    } else {
      count = half;
    }
  }
  if (begin == all.keys.size() || bytes(all.keys[begin], room) != key) return std::nullopt;
  return all.values[begin];
}

}  // namespace thmp
