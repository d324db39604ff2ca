// SPDX-License-Identifier: Apache-2.0
//
// Writes the binary encoding in two passes: the first gives every object a number, breadth first,
// and collects the references of the containers in the order in which they will be written; the
// second writes. Equal scalars and texts get one number, a shared container is written once. Rows
// of one table usually have nearly the same keys and often the same values as the row before, so
// that row is looked at before the tables; and the values that many rows were lent by one
// dictionary are looked up once.
#include <bit>
#include <cmath>
#include <cstring>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "base/plist.h"
#include "base/value_nodes.h"

namespace thmp {
namespace {

using value_internal::Access;
using value_internal::entriesOf;
using value_internal::Loan;
using value_internal::Node;
using value_internal::valuesOf;

using Entry = Dictionary::Entry;
using Kind = Value::Kind;
using Byte = unsigned char;

/// An object to be written. The bits are those of the number, or the address of the node.
struct Object {
  Kind kind;
  std::uint64_t bits;

  Node* node() const { return std::bit_cast<Node*>(bits); }
  std::size_t size() const { return node() == nullptr ? 0 : node()->size; }
  /// False for a node that only one place refers to, and which therefore does not come again.
  bool mayComeAgain() const {
    return kind < Kind::kData || node() == nullptr || node()->place == value_internal::kForever ||
           node()->references.load(std::memory_order_relaxed) > 1;
  }
  friend bool operator==(const Object&, const Object&) = default;
};

Object objectOf(const Value& value) {
  if (value.kind() < Kind::kData) return {value.kind(), Access::bits(value)};
  return {value.kind(), std::bit_cast<std::uint64_t>(Access::node(value))};
}

Object objectOf(const Text& text) {
  return {Kind::kText, std::bit_cast<std::uint64_t>(Access::node(text))};
}

std::string_view bytesOf(const Object& object) {
  if (object.node() == nullptr) return {};
  return {value_internal::bytesOf(object.node()), object.size()};
}

/// Most of the time would go into waiting for nodes that are not in the cache: they are asked for
/// a few objects ahead.
void expect(const Object& object) {
  if (object.kind >= Kind::kData) __builtin_prefetch(object.node());
}

constexpr std::size_t kAhead = 6;

std::uint64_t mix(std::uint64_t a, std::uint64_t b) {
  std::uint64_t product = (a ^ (b >> 32 | b << 32)) * 0x9E3779B97F4A7C15;
  product ^= product >> 32;
  product *= 0xD6E8FEB86659FD93;
  return product ^ product >> 29;
}

constexpr std::uint32_t kNoNumber = UINT32_MAX;

/// The numbers of objects by kind and bits, with open addressing.
class IdentityTable {
 public:
  explicit IdentityTable(std::uint64_t seed, std::size_t slots = 1024)
      : seed_(seed), slots_(slots) {}

  /// The place of an object's number: kNoNumber when it is new, and for the caller to fill then.
  std::uint32_t& at(const Object& object) {
    if ((used_ + 1) * 2 > slots_.size()) grow();
    Slot& slot = slots_[indexOf(object.kind, object.bits)];
    if (slot.number == kNoNumber) {
      slot.bits = object.bits;
      slot.kind = object.kind;
      ++used_;
    }
    return slot.number;
  }

 private:
  struct Slot {
    std::uint64_t bits = 0;
    std::uint32_t number = kNoNumber;
    Kind kind = Kind::kNull;
  };

  std::size_t indexOf(Kind kind, std::uint64_t bits) const {
    const std::size_t mask = slots_.size() - 1;
    std::size_t i = mix(bits + static_cast<std::uint64_t>(kind), seed_) & mask;
    while (slots_[i].number != kNoNumber && (slots_[i].bits != bits || slots_[i].kind != kind)) {
      i = (i + 1) & mask;
    }
    return i;
  }

  void grow() {
    std::vector<Slot> old(slots_.size() * 2);
    old.swap(slots_);
    for (const Slot& slot : old) {
      if (slot.number != kNoNumber) slots_[indexOf(slot.kind, slot.bits)] = slot;
    }
  }

  std::uint64_t seed_;
  std::vector<Slot> slots_;
  std::size_t used_ = 0;
};

/// The numbers of texts and data by their bytes, with open addressing.
class ContentTable {
 public:
  ContentTable(std::uint64_t seed, const std::vector<Object>& objects)
      : seed_(seed), objects_(objects), slots_(1024) {}

  /// As IdentityTable::at.
  std::uint32_t& at(const Object& object) {
    if ((used_ + 1) * 2 > slots_.size()) grow();
    const std::string_view bytes = bytesOf(object);
    const std::uint32_t hash = hashOf(bytes);
    const std::size_t mask = slots_.size() - 1;
    std::size_t i = hash & mask;
    for (; slots_[i].number != kNoNumber; i = (i + 1) & mask) {
      if (slots_[i].hash != hash) continue;
      const Object& other = objects_[slots_[i].number];
      if (other.kind == object.kind && bytesOf(other) == bytes) return slots_[i].number;
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

  std::uint32_t hashOf(std::string_view bytes) const {
    std::uint64_t hash = mix(seed_, bytes.size());
    std::uint64_t word = 0;
    for (; bytes.size() > 8; bytes.remove_prefix(8)) {
      std::memcpy(&word, bytes.data(), 8);
      hash = mix(hash ^ word, seed_);
    }
    word = 0;
    if (!bytes.empty()) std::memcpy(&word, bytes.data(), bytes.size());
    return static_cast<std::uint32_t>(mix(hash ^ word, seed_));
  }

  void grow() {
    std::vector<Slot> old(slots_.size() * 2);
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
  const std::vector<Object>& objects_;
  std::vector<Slot> slots_;
  std::size_t used_ = 0;
};

std::size_t widthFor(std::uint64_t largest) {
  if (largest <= UINT8_MAX) return 1;
  if (largest <= UINT16_MAX) return 2;
  return largest <= UINT32_MAX ? 4 : 8;
}

void putBig(std::string& out, std::uint64_t number, std::size_t width) {
  char bytes[8];
  for (std::size_t i = 0; i < width; ++i) {
    bytes[i] = static_cast<char>(number >> (8 * (width - 1 - i)) & 0xFF);
  }
  out.append(bytes, width);
}

template <std::size_t kWidth, typename Number>
void storeBig(char* out, std::span<const Number> numbers) {
  for (const Number number : numbers) {
    for (std::size_t i = 0; i < kWidth; ++i) {
      *out++ = static_cast<char>(number >> (8 * (kWidth - 1 - i)) & 0xFF);
    }
  }
}

template <typename Number>
void putAllBig(std::string& out, std::span<const Number> numbers, std::size_t width) {
  const std::size_t start = out.size();
  out.resize(start + numbers.size() * width);
  char* place = out.data() + start;
  if (width == 1) return storeBig<1>(place, numbers);
  if (width == 2) return storeBig<2>(place, numbers);
  if (width == 4 || sizeof(Number) == 4) return storeBig<4>(place, numbers);
  storeBig<sizeof(Number)>(place, numbers);
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

bool isAscii(std::string_view text) {
  std::size_t i = 0;
  for (; i + 8 <= text.size(); i += 8) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + i, 8);
    if ((word & 0x8080808080808080) != 0) return false;
  }
  for (; i < text.size(); ++i) {
    if (static_cast<Byte>(text[i]) >= 0x80) return false;
  }
  return true;
}

/// Whether the dictionary has the value of entry `i` from its lender.
bool isLent(const Object& dictionary, const Loan& loan, std::size_t i, const Object& value) {
  if (!loan.lent[i]) return false;
  const bool isOwn = value.kind >= Kind::kData && value.node() != nullptr &&
                     value_internal::counterOf(value.node()) == dictionary.node();
  return !isOwn;
}

class BinaryWriter {
 public:
  explicit BinaryWriter(Error* error)
      : error_(error), identities_(seedOf(this)), contents_(seedOf(this), objects_) {}
  BinaryWriter(const BinaryWriter&) = delete;
  BinaryWriter& operator=(const BinaryWriter&) = delete;

  std::optional<std::string> write(const Value& root) {
    if (!isWritable(root)) {
      refuse(root, "as the root");
      return std::nullopt;
    }
    numberOf(objectOf(root));
    for (std::size_t i = 0; i < objects_.size(); ++i) {
      const Object object = objects_[i];
      if (i + kAhead < objects_.size()) expect(objects_[i + kAhead]);
      if (object.kind == Kind::kArray && !numberValues(object)) return std::nullopt;
      if (object.kind == Kind::kDictionary && !numberEntries(object)) return std::nullopt;
    }
    writeAll();
    return std::move(out_);
  }

 private:
  /// A dictionary whose members have their numbers.
  struct Row {
    const Entry* entries = nullptr;
    std::size_t size = 0;
    std::size_t firstReference = 0;
  };

  /// A dictionary that lends its values to others, and the numbers of those that were met.
  struct Lender {
    const Node* node;
    const Entry* entries;
    std::vector<std::uint32_t> numbers;
  };

  /// Differs from run to run, so that nobody outside can choose texts or numbers of one hash.
  static std::uint64_t seedOf(const BinaryWriter* writer) {
    return mix(reinterpret_cast<std::uintptr_t>(writer), 0x2545F4914F6CDD1D);
  }

  static bool isWritable(const Value& value) {
    if (value.kind() == Kind::kDate) return std::isfinite(value.asDate()->secondsSinceReference);
    return !value.isNull();
  }

  bool refuse(const Value& value, const std::string& where) {
    const std::string what =
        value.isNull() ? "A null value stands " : "A date that is no time stands ";
    return fail(error_, Error{std::string(kPropertyListErrorDomain),
                              static_cast<std::int64_t>(PropertyListError::kNotWritable),
                              what + where + "; property lists have no form for it", nullptr});
  }

  std::uint32_t append(const Object& object) {
    objects_.push_back(object);
    return static_cast<std::uint32_t>(objects_.size() - 1);
  }

  std::uint32_t numberOf(const Object& object) {
    if (!object.mayComeAgain()) return newNumber(object);
    std::uint32_t& number = identities_.at(object);
    if (number == kNoNumber) number = newNumber(object);
    return number;
  }

  /// The number of an object whose identity is new. Texts and data are looked up by their bytes.
  std::uint32_t newNumber(const Object& object) {
    if (object.kind != Kind::kText && object.kind != Kind::kData) return append(object);
    std::uint32_t& number = contents_.at(object);
    if (number == kNoNumber) number = append(object);
    return number;
  }

  bool numberValues(const Object& array);
  bool numberEntries(const Object& dictionary);
  Lender* lenderOf(const Loan* loan);
  void writeAll();
  void writeObject(const Object& object);
  void writeInteger(const Object& object);
  void writeCount(unsigned type, std::size_t count);
  void writeText(std::string_view text);
  void writeReferences(std::size_t count);

  Error* error_;
  std::vector<Object> objects_;
  std::vector<std::uint32_t> references_;
  IdentityTable identities_;
  ContentTable contents_;
  Row lastRow_;
  std::vector<Lender> lenders_;
  IdentityTable lenderPlaces_{0, 64};
  std::size_t lastLender_ = 0;
  std::string out_;
  std::size_t referenceSize_ = 0;
  std::size_t nextReference_ = 0;
};

bool BinaryWriter::numberValues(const Object& array) {
  for (std::size_t i = 0; i < array.size(); ++i) {
    const Value& value = valuesOf(array.node())[i];
    if (!isWritable(value)) return refuse(value, "at index " + std::to_string(i) + " of an array");
    references_.push_back(numberOf(objectOf(value)));
  }
  return true;
}

/// Null for a dictionary without one.
BinaryWriter::Lender* BinaryWriter::lenderOf(const Loan* loan) {
  if (loan == nullptr || loan->lender == nullptr) return nullptr;
  if (lastLender_ < lenders_.size() && lenders_[lastLender_].node == loan->lender) {
    return &lenders_[lastLender_];
  }
  std::uint32_t& place =
      lenderPlaces_.at({Kind::kDictionary, std::bit_cast<std::uint64_t>(loan->lender)});
  if (place == kNoNumber) {
    place = static_cast<std::uint32_t>(lenders_.size());
    lenders_.push_back({loan->lender, entriesOf(loan->lender),
                        std::vector<std::uint32_t>(loan->lender->size, kNoNumber)});
  }
  lastLender_ = place;
  return &lenders_[place];
}

bool BinaryWriter::numberEntries(const Object& dictionary) {
  const Row row{dictionary.size() == 0 ? nullptr : entriesOf(dictionary.node()), dictionary.size(),
                references_.size()};
  references_.resize(references_.size() + 2 * row.size);
  std::uint32_t* keys = references_.data() + row.firstReference;
  std::uint32_t* values = keys + row.size;
  const std::uint32_t* lastKeys = references_.data() + lastRow_.firstReference;
  const std::uint32_t* lastValues = lastKeys + lastRow_.size;
  std::size_t last = 0;  // entry of the last row
  std::size_t lent = 0;  // entry of the lender
  const Loan* loan = row.size == 0 ? nullptr : value_internal::loanOf(dictionary.node());
  Lender* lender = lenderOf(loan);
  for (std::size_t i = 0; i < row.size; ++i) {
    const Entry& entry = row.entries[i];
    if (i + kAhead < row.size) expect(objectOf(row.entries[i + kAhead].value));
    if (!isWritable(entry.value)) {
      return refuse(entry.value, "under the key \"" + entry.key.str() + "\"");
    }
    const Object key = objectOf(entry.key);
    const Object value = objectOf(entry.value);
    const auto lastHasKey = [&](std::size_t place) {
      return place < lastRow_.size && objectOf(lastRow_.entries[place].key) == key;
    };
    // One of the two rows may lack a key that the other has.
    const bool isInLast = lastHasKey(last) || (lastHasKey(last + 1) && ++last != 0);
    keys[i] = isInLast ? lastKeys[last] : numberOf(key);
    if (lender != nullptr && isLent(dictionary, *loan, i, value)) {
      // Entries that were left out are passed over: both are in the order of the keys.
      while (objectOf(lender->entries[lent].key) != key) ++lent;
      std::uint32_t& number = lender->numbers[lent++];
      if (number == kNoNumber) number = numberOf(value);
      values[i] = number;
    } else if (isInLast && objectOf(lastRow_.entries[last].value) == value) {
      values[i] = lastValues[last];
    } else {
      values[i] = numberOf(value);
    }
    if (isInLast) ++last;
  }
  lastRow_ = row;
  return true;
}

void BinaryWriter::writeAll() {
  referenceSize_ = widthFor(objects_.size() - 1);
  std::vector<std::uint64_t> offsets;
  offsets.reserve(objects_.size());
  out_.reserve(references_.size() * referenceSize_ + objects_.size() * 24 + 64);
  out_ = "bplist00";
  for (std::size_t i = 0; i < objects_.size(); ++i) {
    if (i + kAhead < objects_.size()) expect(objects_[i + kAhead]);
    offsets.push_back(out_.size());
    writeObject(objects_[i]);
  }
  const std::uint64_t table = out_.size();
  const std::size_t offsetSize = widthFor(table);
  putAllBig(out_, std::span<const std::uint64_t>(offsets), offsetSize);
  out_.append(6, '\0');
  out_ += static_cast<char>(offsetSize);
  out_ += static_cast<char>(referenceSize_);
  putBig(out_, objects_.size(), 8);
  putBig(out_, 0, 8);
  putBig(out_, table, 8);
}

void BinaryWriter::writeObject(const Object& object) {
  switch (object.kind) {
    case Kind::kNull:  // refused before
      break;
    case Kind::kBoolean:
      out_ += object.bits != 0 ? '\x09' : '\x08';
      break;
    case Kind::kInteger:
    case Kind::kUnsigned:
      writeInteger(object);
      break;
    case Kind::kReal:
      out_ += '\x23';
      putBig(out_, object.bits, 8);
      break;
    case Kind::kDate:
      out_ += '\x33';
      putBig(out_, object.bits, 8);
      break;
    case Kind::kData:
      writeCount(0x40, object.size());
      out_ += bytesOf(object);
      break;
    case Kind::kText:
      writeText(bytesOf(object));
      break;
    case Kind::kArray:
      writeCount(0xA0, object.size());
      writeReferences(object.size());
      break;
    case Kind::kDictionary:
      writeCount(0xD0, object.size());
      writeReferences(2 * object.size());
      break;
  }
}

/// Up to four bytes are read as unsigned, eight as signed, so a number above the largest signed one
/// takes sixteen.
void BinaryWriter::writeInteger(const Object& object) {
  if (object.kind == Kind::kUnsigned) {
    out_ += '\x14';
    putBig(out_, 0, 8);
    putBig(out_, object.bits, 8);
    return;
  }
  const std::size_t width = widthFor(object.bits);  // a negative number has its highest bit set
  out_ += static_cast<char>(0x10 + std::countr_zero(width));
  putBig(out_, object.bits, width);
}

void BinaryWriter::writeCount(unsigned type, std::size_t count) {
  if (count < 0x0F) {
    out_ += static_cast<char>(type | count);
    return;
  }
  const std::size_t width = widthFor(count);
  out_ += static_cast<char>(type | 0x0F);
  out_ += static_cast<char>(0x10 + std::countr_zero(width));
  putBig(out_, count, width);
}

void BinaryWriter::writeText(std::string_view text) {
  if (isAscii(text)) {
    writeCount(0x50, text.size());
    out_ += text;
    return;
  }
  std::size_t units = 0;
  for (CodePoints points(text); !points.atEnd();) units += points.take() >= 0x10000 ? 2 : 1;
  writeCount(0x60, units);
  for (CodePoints points(text); !points.atEnd();) {
    const std::uint32_t point = points.take();
    if (point < 0x10000) {
      putBig(out_, point, 2);
    } else {
      putBig(out_, 0xD800 + ((point - 0x10000) >> 10), 2);
      putBig(out_, 0xDC00 + (point & 0x3FF), 2);
    }
  }
}

void BinaryWriter::writeReferences(std::size_t count) {
  const auto references =
      std::span<const std::uint32_t>(references_).subspan(nextReference_, count);
  nextReference_ += count;
  putAllBig(out_, references, referenceSize_);
}

}  // namespace

std::optional<std::string> writeBinaryPropertyList(const Value& root, Error* error) {
  return BinaryWriter(error).write(root);
}

}  // namespace thmp
