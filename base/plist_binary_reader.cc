// SPDX-License-Identifier: Apache-2.0
//
// Reads the binary encoding: a header, the objects, a table of their offsets and a trailer. Objects
// refer to each other by number. Each object that the root reaches is built once, from the leaves
// up, and carries its expanded node count and its height, so that shared references cost nothing
// twice. No object may overlap another: the sizes of all objects together then stay below that of
// the file, and with them the work and the memory.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "base/plist.h"
#include "base/value_nodes.h"

namespace thmp {
namespace {

using value_internal::Access;
using value_internal::entriesOf;
using value_internal::Node;
using value_internal::NodeRef;
using value_internal::retainUnpublished;
using value_internal::valuesOf;

using Entry = Dictionary::Entry;
using Kind = Value::Kind;
using Byte = unsigned char;

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;

std::uint64_t loadBig(const Byte* bytes, std::size_t size) {
  // Those of nearly all references, one instruction each.
  if (size == 2) return static_cast<std::uint64_t>(bytes[0] << 8 | bytes[1]);
  if (size == 4) {
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
           std::uint32_t{bytes[2]} << 8 | bytes[3];
  }
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < size; ++i) number = number << 8 | bytes[i];
  return number;
}

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

std::size_t utf8Size(std::uint32_t point) {
  if (point < 0x80) return 1;
  if (point < 0x800) return 2;
  return point < 0x10000 ? 3 : 4;
}

char* putUtf8(char* out, std::uint32_t point) {
  const std::size_t size = utf8Size(point);
  if (size == 1) {
    *out = static_cast<char>(point);
    return out + 1;
  }
  for (std::size_t i = size - 1; i > 0; --i, point >>= 6) {
    out[i] = static_cast<char>(0x80 | (point & 0x3F));
  }
  const std::uint32_t lead = (0xF0U << (4 - size)) & 0xFF;
  *out = static_cast<char>(lead | point);
  return out + size;
}

Node* textOfUtf16(const Byte* bytes, std::size_t count) {
  std::size_t size = 0;
  for (Utf16Units units(bytes, count); !units.atEnd();) size += utf8Size(units.take());
  Node* node = value_internal::newBytesNode(Kind::kText, size);
  if (node == nullptr) return nullptr;
  char* out = value_internal::bytesOf(node);
  for (Utf16Units units(bytes, count); !units.atEnd();) out = putUtf8(out, units.take());
  return node;
}

Node* nodeOfBytes(Kind kind, const Byte* bytes, std::size_t count) {
  Node* node = value_internal::newBytesNode(kind, count);
  if (node != nullptr) std::memcpy(value_internal::bytesOf(node), bytes, count);
  return node;
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

/// A copy of a value that no other thread can see yet.
Value sharedUnpublished(const Value& value) {
  if (value.kind() < Kind::kData) return value;
  retainUnpublished(Access::node(value));
  return Access::value(value.kind(), Access::node(value));
}

class BinaryReader {
 public:
  BinaryReader(std::string_view bytes, const PropertyListLimits& limits, Error* error)
      : bytes_(reinterpret_cast<const Byte*>(bytes.data())),
        size_(bytes.size()),
        limits_(limits),
        maxNodes_(std::min<std::uint64_t>(limits.maxNodes, kOpen - 1)),
        error_(error) {}

  std::optional<Value> read() {
    if (!readTrailer() || !readAll()) return std::nullopt;
    arrangeDictionaries();
    return std::move(slots_[root_].value);
  }

 private:
  static constexpr std::uint32_t kUnread = 0;
  static constexpr std::uint32_t kOpen = UINT32_MAX;
  static constexpr std::uint32_t kNoKey = UINT32_MAX;

  /// What is known of an object.
  struct Slot {
    Value value;
    std::uint32_t nodes = kUnread;  // after expansion, or kOpen while its members are read
    std::uint32_t height = 0;       // 1 for a scalar
  };

  /// A container whose members are being read. Node and references are null for an empty one.
  struct Frame {
    std::uint32_t object;
    Kind kind;
    NodeRef node;
    const Byte* references;  // of the values
    std::size_t count;
    std::size_t next;
    std::uint64_t nodes;
    std::uint32_t height;
  };

  /// A dictionary whose entries are still in the order of the file.
  struct Unarranged {
    Node* node;
    const Byte* keyReferences;
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
  bool open(std::size_t object);
  bool openHead(std::size_t object, Head& head);
  bool readCount(Head& head, std::size_t elementSize, std::size_t& count);
  bool charge(std::size_t position, std::size_t encodedSize, std::uint64_t nodes);
  bool keep(std::size_t object, const Head& head, std::size_t payloadSize, Value value);
  bool readSingle(std::size_t object, const Head& head);
  bool readInteger(std::size_t object, const Head& head);
  bool readReal(std::size_t object, const Head& head);
  bool readDate(std::size_t object, const Head& head);
  bool readBytes(std::size_t object, Head& head);
  bool openContainer(std::size_t object, Head& head);
  bool readKeys(Frame& frame);
  bool readKey(std::size_t object, std::size_t position);
  bool place(Frame& frame, const Slot& member);
  void close();
  void arrangeDictionaries();
  void rankKeys();
  void arrange(const Unarranged& dictionary);

  std::size_t position(const Byte* bytes) const { return static_cast<std::size_t>(bytes - bytes_); }

  const Byte* bytes_;
  std::size_t size_;
  PropertyListLimits limits_;
  std::uint64_t maxNodes_;
  Error* error_;

  std::size_t offsetSize_ = 0;
  std::size_t referenceSize_ = 0;
  std::size_t tableStart_ = 0;
  std::size_t root_ = 0;
  std::size_t encodedSize_ = 0;  // of all objects read so far
  std::uint64_t ownNodes_ = 0;   // of all objects read so far, without expansion

  std::vector<Slot> slots_;
  std::vector<Frame> frames_;
  std::vector<Unarranged> unarranged_;
  std::vector<std::uint32_t> keys_;   // the objects used as keys, each once
  std::vector<std::uint32_t> ranks_;  // of each object among the keys; kNoKey for the others
};

bool BinaryReader::readTrailer() {
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
  root_ = static_cast<std::size_t>(root);
  slots_.resize(static_cast<std::size_t>(count));
  ranks_.resize(static_cast<std::size_t>(count), kNoKey);
  return true;
}

bool BinaryReader::readAll() {
  if (!open(root_)) return false;
  while (!frames_.empty()) {
    Frame& frame = frames_.back();
    if (frame.next == frame.count) {
      close();
      continue;
    }
    const Byte* reference = frame.references + frame.next * referenceSize_;
    const std::uint64_t object = loadBig(reference, referenceSize_);
    if (object >= slots_.size()) {
      return damaged(position(reference), "a reference to an object that does not exist");
    }
    const Slot& member = slots_[static_cast<std::size_t>(object)];
    if (member.nodes == kUnread) {
      if (!open(static_cast<std::size_t>(object))) return false;
      if (member.nodes == kOpen) continue;
    }
    if (member.nodes == kOpen) {
      return damaged(position(reference), "an object that contains itself");
    }
    if (!place(frame, member)) return false;
  }
  return true;
}

/// Counts a finished member into its container and stores it there.
bool BinaryReader::place(Frame& frame, const Slot& member) {
  const Byte* reference = frame.references + frame.next * referenceSize_;
  frame.nodes += member.nodes;
  if (frame.nodes > maxNodes_) return tooLarge(position(reference), "too many values");
  if (frames_.size() + member.height > limits_.maxDepth) {
    return tooLarge(position(reference), "values nested too deeply");
  }
  frame.height = std::max(frame.height, member.height);
  Node* node = frame.node.get();
  Value shared = sharedUnpublished(member.value);
  if (frame.kind == Kind::kArray) {
    new (valuesOf(node) + frame.next) Value(std::move(shared));
    ++node->size;
  } else {
    entriesOf(node)[frame.next].value = std::move(shared);
  }
  ++frame.next;
  return true;
}

void BinaryReader::close() {
  Frame& frame = frames_.back();
  Slot& slot = slots_[frame.object];
  slot.value = Access::value(frame.kind, frame.node.release());
  slot.nodes = static_cast<std::uint32_t>(frame.nodes);
  slot.height = frame.height + 1;
  frames_.pop_back();
}

bool BinaryReader::openHead(std::size_t object, Head& head) {
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
bool BinaryReader::open(std::size_t object) {
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
bool BinaryReader::readCount(Head& head, std::size_t elementSize, std::size_t& count) {
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
bool BinaryReader::charge(std::size_t position, std::size_t encodedSize, std::uint64_t nodes) {
  encodedSize_ += encodedSize;
  if (encodedSize_ > tableStart_ - kHeaderSize) return damaged(position, "overlapping objects");
  ownNodes_ += nodes;
  if (ownNodes_ > maxNodes_) return tooLarge(position, "too many values");
  return true;
}

bool BinaryReader::keep(std::size_t object, const Head& head, std::size_t payloadSize,
                        Value value) {
  if (!charge(head.start, head.payload - head.start + payloadSize, 1)) return false;
  slots_[object].value = std::move(value);
  slots_[object].nodes = 1;
  slots_[object].height = 1;
  return true;
}

bool BinaryReader::readSingle(std::size_t object, const Head& head) {
  if (head.info == 0x8) return keep(object, head, 0, false);
  if (head.info == 0x9) return keep(object, head, 0, true);
  if (head.info == 0x0) return failAt(head.start, PropertyListError::kUnsupported, "a null");
  return damaged(head.start, "an unknown kind of object");
}

/// One, two and four bytes are unsigned, eight are signed; sixteen carry an unsigned number above
/// the largest signed one.
bool BinaryReader::readInteger(std::size_t object, const Head& head) {
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

bool BinaryReader::readReal(std::size_t object, const Head& head) {
  const std::size_t width = std::size_t{1} << head.info;
  if (width != 4 && width != 8) return damaged(head.start, "a real of unknown size");
  if (width > head.available) return damaged(head.start, "a real cut short");
  const std::uint64_t bits = loadBig(bytes_ + head.payload, width);
  const double real = width == 8 ? std::bit_cast<double>(bits)
                                 : std::bit_cast<float>(static_cast<std::uint32_t>(bits));
  return keep(object, head, width, real);
}

bool BinaryReader::readDate(std::size_t object, const Head& head) {
  if (head.info != 0x3) return damaged(head.start, "a date of unknown size");
  if (head.available < 8) return damaged(head.start, "a date cut short");
  const double seconds = std::bit_cast<double>(loadBig(bytes_ + head.payload, 8));
  if (!std::isfinite(seconds)) {
    return failAt(head.start, PropertyListError::kUnsupported, "a date that is no time");
  }
  return keep(object, head, 8, Date{seconds});
}

/// Data, ASCII text or UTF-16 text.
bool BinaryReader::readBytes(std::size_t object, Head& head) {
  const std::size_t unit = head.type == 0x6 ? 2 : 1;
  std::size_t count = 0;
  if (!readCount(head, unit, count)) return false;
  const Byte* payload = bytes_ + head.payload;
  if (head.type == 0x5 && !isAscii(payload, count)) {
    return damaged(head.start, "an ASCII text with other bytes");
  }
  // Charged first: what overlaps is refused before memory is taken for it.
  if (!keep(object, head, unit * count, Value())) return false;
  const Kind kind = head.type == 0x4 ? Kind::kData : Kind::kText;
  Node* node = unit == 2 ? textOfUtf16(payload, count) : nodeOfBytes(kind, payload, count);
  slots_[object].value = Access::value(kind, node);
  return true;
}

bool BinaryReader::openContainer(std::size_t object, Head& head) {
  const Kind kind = head.type == 0xA ? Kind::kArray : Kind::kDictionary;
  const std::size_t perMember = kind == Kind::kArray ? 1 : 2;
  std::size_t count = 0;
  if (!readCount(head, perMember * referenceSize_, count)) return false;
  const std::size_t references = perMember * count * referenceSize_;
  if (!charge(head.start, head.payload - head.start + references, 1)) return false;
  if (count > maxNodes_) return tooLarge(head.start, "too many values");
  const Byte* first = bytes_ + head.payload;
  Frame frame{static_cast<std::uint32_t>(object),
              kind,
              NodeRef(count == 0 ? nullptr : value_internal::newContainerNode(kind, count)),
              first,
              count,
              0,
              1,
              0};
  if (kind == Kind::kDictionary && count > 0) {
    if (!readKeys(frame)) return false;
    unarranged_.push_back({frame.node.get(), first});
    frame.references = first + count * referenceSize_;
  }
  slots_[object].nodes = kOpen;
  frames_.push_back(std::move(frame));
  return true;
}

/// Fills in all keys of a dictionary, each with a null value.
bool BinaryReader::readKeys(Frame& frame) {
  Node* node = frame.node.get();
  if (frames_.size() + 2 > limits_.maxDepth) {
    return tooLarge(position(frame.references), "values nested too deeply");
  }
  for (std::size_t i = 0; i < frame.count; ++i) {
    const Byte* reference = frame.references + i * referenceSize_;
    const std::uint64_t object = loadBig(reference, referenceSize_);
    if (object >= slots_.size()) {
      return damaged(position(reference), "a reference to an object that does not exist");
    }
    const auto key = static_cast<std::size_t>(object);
    if (ranks_[key] == kNoKey && !readKey(key, position(reference))) return false;
    Node* text = Access::node(slots_[key].value);
    retainUnpublished(text);
    new (entriesOf(node) + i) Entry{Access::text(text), Value()};
    ++node->size;
  }
  frame.nodes += frame.count;
  frame.height = 1;
  return true;
}

/// Takes note of an object that is used as a key for the first time.
bool BinaryReader::readKey(std::size_t object, std::size_t position) {
  if (slots_[object].nodes == kUnread) {
    Head head{};
    if (!openHead(object, head)) return false;
    if (head.type != 0x5 && head.type != 0x6) return damaged(position, "a key that is no text");
    if (!readBytes(object, head)) return false;
  }
  if (slots_[object].value.kind() != Kind::kText) return damaged(position, "a key that is no text");
  ranks_[object] = static_cast<std::uint32_t>(keys_.size());
  keys_.push_back(static_cast<std::uint32_t>(object));
  return true;
}

/// Brings all dictionaries into the order of their keys. The keys are compared with each other once
/// for the whole file, so that long keys in many dictionaries stay cheap.
void BinaryReader::arrangeDictionaries() {
  rankKeys();
  for (const Unarranged& dictionary : unarranged_) arrange(dictionary);
}

void BinaryReader::rankKeys() {
  const auto text = [this](std::uint32_t object) { return *slots_[object].value.asText(); };
  std::sort(keys_.begin(), keys_.end(),
            [&](std::uint32_t a, std::uint32_t b) { return text(a) < text(b); });
  std::uint32_t rank = 0;
  for (std::size_t i = 0; i < keys_.size(); ++i) {
    if (i > 0 && text(keys_[i - 1]) != text(keys_[i])) ++rank;
    ranks_[keys_[i]] = rank;
  }
}

void BinaryReader::arrange(const Unarranged& dictionary) {
  Entry* entries = entriesOf(dictionary.node);
  const std::size_t count = dictionary.node->size;
  const auto rankAt = [&](std::size_t i) -> std::uint64_t {
    const Byte* reference = dictionary.keyReferences + i * referenceSize_;
    return ranks_[static_cast<std::size_t>(loadBig(reference, referenceSize_))];
  };
  std::size_t ascending = 1;
  for (std::uint64_t last = rankAt(0); ascending < count; ++ascending) {
    const std::uint64_t rank = rankAt(ascending);
    if (rank <= last) break;
    last = rank;
  }
  if (ascending == count) return;

  std::vector<std::uint64_t> order(count);  // rank, then position
  for (std::size_t i = 0; i < count; ++i) order[i] = rankAt(i) << 32 | i;
  std::sort(order.begin(), order.end());
  std::vector<Entry> arranged;
  arranged.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    if (i + 1 < count && order[i] >> 32 == order[i + 1] >> 32) continue;  // the later one stays
    arranged.push_back(std::move(entries[order[i] & UINT32_MAX]));
  }
  for (std::size_t i = 0; i < arranged.size(); ++i) entries[i] = std::move(arranged[i]);
  for (std::size_t i = arranged.size(); i < count; ++i) entries[i].~Entry();
  dictionary.node->size = arranged.size();
}

}  // namespace

std::optional<Value> readBinaryPropertyList(std::string_view bytes,
                                            const PropertyListLimits& limits, Error* error) {
  return BinaryReader(bytes, limits, error).read();
}

}  // namespace thmp
