// SPDX-License-Identifier: Apache-2.0
#include "host/index/message_record.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <initializer_list>

#include "host/index/ValuePool.h"
#include "host/index/record_reader.h"
#include "host/store/message_attributes.h"

namespace thmp {

namespace {

using namespace record_format;

static_assert(std::endian::native == std::endian::little, "records are stored little-endian");

// Texts shorter than this are stored again rather than referred to.
constexpr std::size_t kShortText = 6;
// What is longer is hardly the same in two messages.
constexpr std::size_t kLongestPooled = 2048;

void putNumber(std::string& out, std::uint64_t number) {
  while (number >= 0x80) {
    out.push_back(static_cast<char>(number | 0x80));
    number >>= 7;
  }
  out.push_back(static_cast<char>(number));
}

void putSigned(std::string& out, std::int64_t number) {
  putNumber(out,
            (static_cast<std::uint64_t>(number) << 1) ^ static_cast<std::uint64_t>(number >> 63));
}

// A length is written after what it counts, so room for it is kept: one byte, or for a long value
// a mark and three.
constexpr std::size_t kMostLength = (std::size_t{1} << 24) - 1;

void putReal(std::string& out, double real) {
  std::array<char, sizeof real> bytes;
  std::memcpy(bytes.data(), &real, sizeof real);
  out.append(bytes.data(), bytes.size());
}

void putBytes(std::string& out, std::string_view bytes) {
  putNumber(out, bytes.size());
  out.append(bytes);
}

void putDate(std::string& out, Date date) {
  const double seconds = date.secondsSinceReference;
  if (seconds > -1e15 && seconds < 1e15 &&
      seconds == static_cast<double>(static_cast<std::int64_t>(seconds))) {
    out.push_back(kWholeDate);
    putSigned(out, static_cast<std::int64_t>(seconds));
  } else {
    out.push_back(kDate);
    putReal(out, seconds);
  }
}

std::string_view body(std::string_view record) {
  return record.size() < kRecordChecksumSize ? std::string_view()
                                             : record.substr(kRecordChecksumSize);
}

// Writes values. With a pool, what other messages have too becomes a number, and what stands in
// the record already a reference; without one, values stand by themselves.
class Writer {
 public:
  Writer(std::string& out, ValuePool* pool) : out_(out), pool_(pool) {}

  void put(const Value& value, int depth = 0) {
    switch (value.kind()) {
      case Value::Kind::kNull:
        break;
      case Value::Kind::kBoolean:
        out_.push_back(*value.asBoolean() ? kTrue : kFalse);
        break;
      case Value::Kind::kInteger:
        out_.push_back(kInteger);
        putSigned(out_, *value.asInteger());
        break;
      case Value::Kind::kUnsigned:
        out_.push_back(kUnsigned);
        putNumber(out_, *value.asUnsigned());
        break;
      case Value::Kind::kReal:
        out_.push_back(kReal);
        putReal(out_, *value.asReal());
        break;
      case Value::Kind::kDate:
        putDate(out_, *value.asDate());
        break;
      case Value::Kind::kData:
        out_.push_back(kData);
        putBytes(out_, *value.asData());
        break;
      case Value::Kind::kText:
        if (!putPooled(value)) putText(*value.asText());
        break;
      case Value::Kind::kArray:
        if (!putPooled(value)) putArray(*value.asArray(), depth);
        break;
      case Value::Kind::kDictionary:
        putDictionary(*value.asDictionary(), depth);
        break;
    }
  }

  /// What stood there has been taken out again.
  void forgetFrom(std::size_t place) {
    while (!earlier_.empty() && earlier_.back().place >= place) earlier_.pop_back();
  }

 private:
  struct Earlier {
    std::size_t place;
    std::string text;
  };

  bool putPooled(const Value& value) {
    if (pool_ == nullptr) return false;
    scratch_.clear();
    Writer(scratch_, nullptr).put(value);
    if (scratch_.size() < kShortText || scratch_.size() > kLongestPooled) return false;
    const auto number = pool_->intern(scratch_, /*always=*/false);
    if (!number) return false;
    out_.push_back(kPooled);
    putNumber(out_, *number);
    return true;
  }

  void putText(std::string_view text) {
    if (pool_ != nullptr && text.size() >= kShortText) {
      for (const Earlier& earlier : earlier_) {
        if (putEarlier(earlier, text)) return;
      }
      earlier_.push_back({out_.size(), std::string(text)});
    }
    out_.push_back(kText);
    putBytes(out_, text);
  }

  bool putEarlier(const Earlier& earlier, std::string_view text) {
    const std::string_view known = earlier.text;
    Tag tag = kEarlier;
    if (text.size() == known.size() + 2 && text.front() == '<' && text.back() == '>' &&
        text.substr(1, known.size()) == known) {
      tag = kAngled;
    } else if (text.starts_with("message:%3C") && text == messageUrl(known)) {
      tag = kMessageUrl;
    } else if (text != known) {
      return false;
    }
    out_.push_back(static_cast<char>(tag));
    putNumber(out_, earlier.place);
    return true;
  }

  // Attributes nest two levels; what nests deeper than a reader would follow is left out.
  void putArray(const Array& array, int depth) {
    out_.push_back(kArray);
    putNumber(out_, depth < kMostDepth ? array.size() : 0);
    if (depth >= kMostDepth) return;
    for (const Value& element : array) put(element, depth + 1);
  }

  void putDictionary(const Dictionary& dictionary, int depth) {
    out_.push_back(kDictionary);
    putNumber(out_, depth < kMostDepth ? dictionary.size() : 0);
    if (depth >= kMostDepth) return;
    for (const Dictionary::Entry& entry : dictionary) {
      put(Value(entry.key), depth + 1);
      put(entry.value, depth + 1);
    }
  }

  std::string& out_;
  ValuePool* const pool_;
  std::string scratch_;
  std::vector<Earlier> earlier_;
};

struct Item {
  AttributeKey key;
  const Value* value;
};

// In the order of the names.
std::vector<Item> itemsOf(const Dictionary& attributes, const Dictionary& queryOnly) {
  std::vector<Item> items;
  items.reserve(attributes.size() + queryOnly.size());
  for (const Dictionary* dictionary : {&attributes, &queryOnly}) {
    for (const Dictionary::Entry& entry : *dictionary) {
      const auto key = keyNamed(entry.key);
      if (key) items.push_back({*key, &entry.value});
    }
  }
  std::sort(items.begin(), items.end(),
            [](const Item& a, const Item& b) { return rankOf(a.key) < rankOf(b.key); });
  return items;
}

// Takes the attributes of the shape out of `items` and returns the shape's number.
std::optional<std::uint32_t> takeShape(std::vector<Item>& items, ValuePool& pool) {
  std::vector<Dictionary::Entry> shape;
  for (const Item& item : items) {
    if (isShapeAttribute(item.key)) shape.push_back({keyText(item.key), *item.value});
  }
  if (shape.empty()) return std::nullopt;
  const Value whole{Dictionary(std::move(shape))};
  const auto number = pool.intern(encodeValue(whole), /*always=*/true);
  if (number) {
    std::erase_if(items, [](const Item& item) { return isShapeAttribute(item.key); });
  }
  return number;
}

// Text and arrays are often one object under several names.
std::optional<AttributeKey> sameBefore(const std::vector<Item>& items, std::size_t place) {
  const void* identity = items[place].value->identity();
  for (std::size_t i = 0; identity != nullptr && i < place; ++i) {
    if (items[i].value->identity() == identity) return items[i].key;
  }
  return std::nullopt;
}

// Whether it may well take more bytes than a short length says.
bool mayBeLong(const Value& value) {
  if (const auto text = value.asText()) return text->size() > kLongMark - 16U;
  if (const auto array = value.asArray()) return array->size() > 4;
  return value.asDictionary().has_value();
}

// False, and nothing is written, when the value is too long for its length.
bool putItem(const Item& item, const std::optional<AttributeKey>& same, bool isLong, Writer& writer,
             std::string& out) {
  const std::size_t begin = out.size();
  out.push_back(static_cast<char>(item.key));
  out.append(isLong ? 4 : 1, static_cast<char>(kLongMark));
  const std::size_t valueBegin = out.size();
  if (same) {
    out.push_back(kSameAs);
    out.push_back(static_cast<char>(*same));
  } else {
    writer.put(*item.value);
  }
  const std::size_t length = out.size() - valueBegin;
  if (length > (isLong ? kMostLength : kLongMark - 1U)) {
    out.resize(begin);
    writer.forgetFrom(begin);
    return false;
  }
  for (std::size_t i = 0; isLong && i < 3; ++i) {
    out[valueBegin - 3 + i] = static_cast<char>((length >> (8 * i)) & 0xFF);
  }
  if (!isLong) out[valueBegin - 1] = static_cast<char>(length);
  return true;
}

// Both halves of a record, in the order of the names; only what is wanted is read.
template <typename Wanted>
void visitEach(std::string_view record, const ValuePool& pool, const Wanted& isWanted,
               const std::function<bool(AttributeKey key, const Value& value)>& visit) {
  std::array<Value, kKeys> seen;
  RecordWalk walk(record, pool);
  const Dictionary shape = walk.shapeAttributes();
  const AttributeKey* keys = shape.empty() ? nullptr : walk.shape()->keys.data();
  std::size_t place = 0;
  const auto visitOne = [&](AttributeKey key, Value value) {
    const bool goesOn = visit(key, value);
    seen[static_cast<std::size_t>(key)] = std::move(value);
    return goesOn;
  };
  const auto visitShapeBelow = [&](std::uint16_t rank) {
    for (; place < shape.size() && rankOf(keys[place]) < rank; ++place) {
      if (isWanted(keys[place]) && !visitOne(keys[place], shape.begin()[place].value)) return false;
    }
    return true;
  };
  while (walk.next()) {
    if (!isWanted(walk.key())) continue;
    Value value = walk.value([&seen](std::uint8_t number) { return seen[number]; });
    if (value.isNull()) value = recordValue(record, walk.key(), pool);  // as one not wanted
    if (!visitShapeBelow(rankOf(walk.key()))) return;
    if (!value.isNull() && !visitOne(walk.key(), std::move(value))) return;
  }
  visitShapeBelow(UINT16_MAX);
}

}  // namespace

bool isShapeAttribute(AttributeKey key) noexcept {
  switch (key) {
    case AttributeKey::kBundleID:
    case AttributeKey::kDeviceId:
    case AttributeKey::kContentType:
    case AttributeKey::kContentTypeTree:
    case AttributeKey::kKind:
    case AttributeKey::kAccountHandles:
    case AttributeKey::kRead:
    case AttributeKey::kFlagged:
    case AttributeKey::kRepliedTo:
    case AttributeKey::kPriority:
    case AttributeKey::kGmailLabels:
    case AttributeKey::kIsLikelyJunk:
    case AttributeKey::kAttachmentTypes:
    case AttributeKey::kMailAttachmentTypes:
    case AttributeKey::kAttachmentKinds:
    case AttributeKey::kFSOwnerUserID:
    case AttributeKey::kOwnerUserID:
    case AttributeKey::kFSOwnerGroupID:
    case AttributeKey::kOwnerGroupID:
    case AttributeKey::kFSInvisible:
    case AttributeKey::kFSIsExtensionHidden:
    case AttributeKey::kIsExtensionHidden:
    case AttributeKey::kFSFinderFlags:
    case AttributeKey::kFinderFlags:
    case AttributeKey::kFSLabel:
    case AttributeKey::kFinderLabel:
    case AttributeKey::kMailboxes:
      return true;
    default:
      return false;
  }
}

std::uint64_t fingerprint(std::string_view bytes) noexcept {
  constexpr std::uint64_t kFirst = 0x9E3779B97F4A7C15;
  constexpr std::uint64_t kSecond = 0xD6E8FEB86659FD93;
  std::uint64_t hash = kFirst ^ (bytes.size() * kSecond);
  const auto mix = [&hash](std::uint64_t word) {
    hash = (hash ^ word) * kSecond;
    hash ^= hash >> 32;
  };
  std::uint64_t word = 0;
  for (; bytes.size() >= sizeof word; bytes.remove_prefix(sizeof word)) {
    std::memcpy(&word, bytes.data(), sizeof word);
    mix(word);
  }
  word = 0;
  if (!bytes.empty()) std::memcpy(&word, bytes.data(), bytes.size());
  mix(word);
  mix(kFirst);
  return hash;
}

std::string encodeRecord(const Dictionary& attributes, const Dictionary& queryOnly,
                         ValuePool& pool) {
  std::vector<Item> items = itemsOf(attributes, queryOnly);
  std::string out(kRecordChecksumSize, '\0');
  const auto shape = takeShape(items, pool);
  putNumber(out, shape ? std::uint64_t{*shape} + 1 : 0);
  Writer writer(out, &pool);
  for (std::size_t i = 0; i < items.size(); ++i) {
    const auto same = sameBefore(items, i);
    // A second try would let the pool see its values a second time.
    const bool isLong = !same && mayBeLong(*items[i].value);
    if (!putItem(items[i], same, isLong, writer, out) && !isLong) {
      putItem(items[i], same, /*isLong=*/true, writer, out);
    }
  }
  const auto checksum = static_cast<std::uint32_t>(fingerprint(body(out)));
  std::memcpy(out.data(), &checksum, kRecordChecksumSize);
  return out;
}

bool isIntactRecord(std::string_view record) noexcept {
  std::uint32_t stored = 0;
  if (record.size() < kRecordChecksumSize) return false;
  std::memcpy(&stored, record.data(), kRecordChecksumSize);
  return stored == static_cast<std::uint32_t>(fingerprint(body(record)));
}

std::optional<std::uint32_t> recordShape(std::string_view record) noexcept {
  RecordReader reader(record, std::min(kRecordChecksumSize, record.size()), record.size(), nullptr);
  const std::uint64_t shape = reader.number();
  if (!reader.ok() || shape == 0 || shape > UINT32_MAX) return std::nullopt;
  return static_cast<std::uint32_t>(shape - 1);
}

Value recordValue(std::string_view record, AttributeKey key, const ValuePool& pool) {
  RecordWalk walk(record, pool);
  if (walk.shape() != nullptr && isShapeAttribute(key)) {
    const auto& keys = walk.shape()->keys;
    const auto found = std::find(keys.begin(), keys.end(), key);
    if (found == keys.end()) return {};
    return walk.shape()->value.asDictionary()->begin()[found - keys.begin()].value;
  }
  while (walk.next()) {
    if (walk.key() != key) continue;
    return walk.value([&](std::uint8_t number) {
      const auto other = static_cast<AttributeKey>(number);
      // Only what stands before can be meant, so this comes to an end.
      return isKnownKey(number) && rankOf(other) < rankOf(key) ? recordValue(record, other, pool)
                                                               : Value();
    });
  }
  return {};
}

void forEachInRecord(std::string_view record, const ValuePool& pool,
                     const std::function<bool(AttributeKey key, const Value& value)>& visit) {
  visitEach(
      record, pool, [](AttributeKey) { return true; }, visit);
}

void forEachInRecord(std::string_view record, const ValuePool& pool,
                     const std::function<bool(AttributeKey key)>& isWanted,
                     const std::function<bool(AttributeKey key, const Value& value)>& visit) {
  visitEach(record, pool, isWanted, visit);
}

bool hasRecordValue(std::string_view record, AttributeKey key, const ValuePool& pool) {
  RecordWalk walk(record, pool);
  if (walk.shape() != nullptr && isShapeAttribute(key)) {
    const auto& keys = walk.shape()->keys;
    return std::find(keys.begin(), keys.end(), key) != keys.end();
  }
  while (walk.next()) {
    if (walk.key() == key) return true;
  }
  return false;
}

std::string encodeValue(const Value& value) {
  std::string out;
  Writer(out, nullptr).put(value);
  return out;
}

Value decodeValue(std::string_view bytes) {
  RecordReader reader(bytes, 0, bytes.size(), nullptr);
  Value found = reader.value();
  return reader.ok() && reader.atEnd() ? found : Value();
}

bool isPoolValue(std::string_view bytes) {
  RecordReader reader(bytes, 0, bytes.size(), nullptr);
  if (reader.tag() != kDictionary) {
    reader.skipValue(0);
  } else {
    reader.byte();
    for (std::size_t left = reader.count(0); left > 0 && reader.ok(); --left) {
      if (reader.tag() != kText || !keyNamed(reader.text())) return false;
      reader.skipValue(1);
    }
  }
  return reader.ok() && reader.atEnd();
}

}  // namespace thmp
