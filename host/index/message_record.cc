// SPDX-License-Identifier: Apache-2.0
#include "host/index/message_record.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <initializer_list>

#include "base/DictionaryBuilder.h"
#include "host/index/ValuePool.h"
#include "host/store/message_attributes.h"

namespace thmp {

namespace {

static_assert(std::endian::native == std::endian::little, "records are stored little-endian");

bool isKnownKey(std::uint8_t number) {
  return number < static_cast<std::uint8_t>(AttributeKey::kFetchedCount) ||
         (number > static_cast<std::uint8_t>(AttributeKey::kBeforeQueryOnly) &&
          number < static_cast<std::uint8_t>(AttributeKey::kEnd));
}

constexpr std::size_t kRecordChecksumSize = 4;
constexpr int kMostDepth = 8;

// Texts shorter than this are stored again rather than referred to.
constexpr std::size_t kShortText = 6;
// What is longer is hardly the same in two messages.
constexpr std::size_t kLongestPooled = 2048;

enum Tag : std::uint8_t {
  kFalse = 1,
  kTrue,
  kInteger,
  kUnsigned,
  kReal,
  kWholeDate,
  kDate,
  kData,
  kText,
  kArray,
  kDictionary,
  kSameAs,     // the attribute with this key, stored before
  kPooled,     // this number of the pool
  kEarlier,    // the text that stands at this place of the record
  kAngled,     // that text between < and >
  kMessageUrl  // the link to the message of which that text is the Message-ID
};

constexpr std::size_t kKeys = 256;

// The place of each key in the order of the names, in which dictionaries and records are.
const std::array<std::uint16_t, kKeys>& nameRanks() {
  static const auto ranks = [] {
    std::vector<AttributeKey> keys;
    for (std::size_t number = 0; number < kKeys; ++number) {
      if (isKnownKey(static_cast<std::uint8_t>(number))) {
        keys.push_back(static_cast<AttributeKey>(number));
      }
    }
    std::sort(keys.begin(), keys.end(),
              [](AttributeKey a, AttributeKey b) { return keyText(a).view() < keyText(b).view(); });
    std::array<std::uint16_t, kKeys> all{};
    for (std::size_t i = 0; i < keys.size(); ++i) {
      all[static_cast<std::size_t>(keys[i])] = static_cast<std::uint16_t>(i);
    }
    return all;
  }();
  return ranks;
}

std::uint16_t rankOf(AttributeKey key) { return nameRanks()[static_cast<std::size_t>(key)]; }

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
constexpr std::uint8_t kLongMark = 0xFF;
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
    const auto number = pool_->intern(value, scratch_, /*always=*/false);
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

// Reads values, from a record or from one value by itself.
class Reader {
 public:
  Reader(std::string_view whole, std::size_t at, std::size_t end, const ValuePool* pool)
      : whole_(whole.data()), at_(whole.data() + at), end_(whole.data() + end), pool_(pool) {}

  void makeTextsIn(DictionaryBuilder& builder) { builder_ = &builder; }

  bool ok() const { return ok_; }
  bool atEnd() const { return at_ == end_; }
  std::size_t place() const { return static_cast<std::size_t>(at_ - whole_); }
  void rewind(std::size_t place) { at_ = whole_ + place; }
  void skip(std::size_t size) {
    if (need(size)) at_ += size;
  }

  std::uint8_t byte() { return need(1) ? static_cast<std::uint8_t>(*at_++) : std::uint8_t{0}; }

  std::uint64_t number() {
    std::uint64_t value = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
      const std::uint8_t next = byte();
      value |= static_cast<std::uint64_t>(next & 0x7F) << shift;
      if ((next & 0x80) == 0) return value;
    }
    ok_ = false;
    return 0;
  }

  std::int64_t signedNumber() {
    const std::uint64_t zigzag = number();
    return static_cast<std::int64_t>(zigzag >> 1) ^ -static_cast<std::int64_t>(zigzag & 1);
  }

  std::size_t length() {
    const std::uint8_t first = byte();
    if (first != kLongMark) return first;
    std::size_t size = 0;
    for (std::size_t i = 0; i < 3; ++i) size |= std::size_t{byte()} << (8 * i);
    return size;
  }

  double real() {
    double value = 0;
    if (!need(sizeof value)) return value;
    std::memcpy(&value, at_, sizeof value);
    at_ += sizeof value;
    return value;
  }

  std::string_view bytes() {
    const std::uint64_t size = number();
    if (!need(size)) return {};
    const std::string_view found(at_, size);
    at_ += size;
    return found;
  }

  Value value(int depth = 0) {
    const std::size_t begin = place();
    switch (byte()) {
      case kFalse:
        return Value(false);
      case kTrue:
        return Value(true);
      case kInteger:
        return Value(signedNumber());
      case kUnsigned:
        return Value(number());
      case kReal:
        return Value(real());
      case kWholeDate:
        return Value(Date{static_cast<double>(signedNumber())});
      case kDate:
        return Value(Date{real()});
      case kData:
        return Value(Data{std::string(bytes())});
      case kText:
        return text(bytes(), depth);
      case kArray:
        return array(depth);
      case kDictionary:
        return dictionary(depth);
      case kPooled: {
        const std::uint64_t place = number();
        const ValuePool::Entry* entry = pool_ == nullptr || place > UINT32_MAX
                                            ? nullptr
                                            : pool_->at(static_cast<std::uint32_t>(place));
        if (entry != nullptr) return entry->value;
        break;
      }
      case kEarlier:
        return text(earlier(begin), depth);
      case kAngled:
        return text("<" + std::string(earlier(begin)) + ">", depth);
      case kMessageUrl:
        return text(messageUrl(earlier(begin)), depth);
      default:
        break;
    }
    ok_ = false;
    return {};
  }

 private:
  bool need(std::uint64_t size) {
    if (size > static_cast<std::uint64_t>(end_ - at_)) {
      ok_ = false;
      at_ = end_;
    }
    return ok_;
  }

  // What an array or dictionary holds must not hold the dictionary that is built.
  Value text(std::string_view bytes, int depth) {
    return builder_ == nullptr || depth > 0 ? Value(bytes) : builder_->text(bytes);
  }

  // The text that stands at a place before `begin`; an empty one when there is none.
  std::string_view earlier(std::size_t begin) {
    const std::uint64_t place = number();
    if (place < begin) {
      Reader reader({whole_, begin}, static_cast<std::size_t>(place), begin, nullptr);
      const bool isText = reader.byte() == kText;
      const std::string_view found = reader.bytes();
      if (isText && reader.ok()) return found;
    }
    ok_ = false;
    return {};
  }

  // Each element takes a byte at least, so a count that cannot be is found before it is believed.
  std::size_t count(int depth) {
    const std::uint64_t many = number();
    if (depth >= kMostDepth && many > 0) ok_ = false;
    return need(many) ? static_cast<std::size_t>(many) : 0;
  }

  Value array(int depth) {
    const std::size_t size = count(depth);
    Array values;
    values.reserve(size);
    for (std::size_t i = 0; i < size && ok_; ++i) values.push_back(value(depth + 1));
    return Value(std::move(values));
  }

  Value dictionary(int depth) {
    const std::size_t size = count(depth);
    std::vector<Dictionary::Entry> entries;
    entries.reserve(size);
    for (std::size_t i = 0; i < size && ok_; ++i) {
      const std::optional<Text> key = value(depth + 1).asSharedText();
      if (!key) ok_ = false;
      if (ok_) entries.push_back({*key, value(depth + 1)});
    }
    return Value(Dictionary(std::move(entries)));
  }

  const char* const whole_;
  const char* at_;
  const char* const end_;
  const ValuePool* const pool_;
  DictionaryBuilder* builder_ = nullptr;
  bool ok_ = true;
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
  const auto number = pool.intern(whole, encodeValue(whole), /*always=*/true);
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

// Walks the attributes of a record that stand in it, without their values.
class Walk {
 public:
  Walk(std::string_view record, const ValuePool& pool)
      : reader_(record, std::min(kRecordChecksumSize, record.size()), record.size(), &pool) {
    const std::uint64_t shape = reader_.number();
    if (reader_.ok() && shape > 0 && shape <= UINT32_MAX) {
      shape_ = pool.at(static_cast<std::uint32_t>(shape - 1));
    }
    if (shape_ != nullptr && shape_->keys.empty()) shape_ = nullptr;
  }

  const ValuePool::Entry* shape() const { return shape_; }
  Dictionary shapeAttributes() const {
    return shape_ == nullptr ? Dictionary() : *shape_->value.asDictionary();
  }
  void makeTextsIn(DictionaryBuilder& builder) { reader_.makeTextsIn(builder); }
  AttributeKey key() const { return static_cast<AttributeKey>(key_); }

  /// To the next attribute with a known key; false at the end.
  bool next() {
    while (true) {
      if (hasValue_) reader_.skip(end_ - std::min(end_, reader_.place()));
      hasValue_ = false;
      if (reader_.atEnd() || !reader_.ok()) return false;
      key_ = reader_.byte();
      const std::size_t size = reader_.length();
      if (!reader_.ok()) return false;
      end_ = reader_.place() + size;
      hasValue_ = true;
      if (isKnownKey(key_)) return true;
    }
  }

  /// The value of the attribute in hand; once. Where it is that of another attribute, of which the
  /// number is given, `earlier` is asked for it. Null when it is not well formed.
  template <typename Earlier>
  Value value(const Earlier& earlier) {
    const std::size_t begin = reader_.place();
    Value found;
    if (reader_.byte() == kSameAs) {
      found = earlier(reader_.byte());
    } else {
      reader_.rewind(begin);
      found = reader_.value();
    }
    return reader_.ok() && reader_.place() == end_ ? found : Value();
  }

 private:
  Reader reader_;
  const ValuePool::Entry* shape_ = nullptr;
  std::uint8_t key_ = 0;
  std::size_t end_ = 0;
  bool hasValue_ = false;
};

// Both halves of a record, in the order of the names; only what is wanted is read. `earlier` gives
// what was visited under an attribute's number, null for one that was not. Both visitors may end
// the walk with false.
template <typename Wanted, typename Earlier, typename VisitShape, typename Visit>
void visitRecord(Walk& walk, std::string_view record, const ValuePool& pool, const Wanted& isWanted,
                 const Earlier& earlier, const VisitShape& visitShape, const Visit& visit) {
  const Dictionary shape = walk.shapeAttributes();
  const AttributeKey* keys = shape.empty() ? nullptr : walk.shape()->keys.data();
  std::size_t place = 0;
  const auto& ranks = nameRanks();
  const auto visitShapeBelow = [&](std::uint16_t rank) {
    for (; place < shape.size() && ranks[static_cast<std::size_t>(keys[place])] < rank; ++place) {
      if (isWanted(keys[place]) && !visitShape(keys[place], shape.begin()[place])) return false;
    }
    return true;
  };
  while (walk.next()) {
    if (!isWanted(walk.key())) continue;
    Value value = walk.value(earlier);
    if (value.isNull()) value = recordValue(record, walk.key(), pool);  // as one not wanted
    if (!visitShapeBelow(rankOf(walk.key()))) return;
    if (!value.isNull() && !visit(walk.key(), std::move(value))) return;
  }
  visitShapeBelow(UINT16_MAX);
}

// For those who keep nothing of what they visit.
template <typename Wanted>
void visitEach(std::string_view record, const ValuePool& pool, const Wanted& isWanted,
               const std::function<bool(AttributeKey key, const Value& value)>& visit) {
  std::array<Value, kKeys> seen;
  Walk walk(record, pool);
  const auto visitOne = [&](AttributeKey key, Value value) {
    const bool goesOn = visit(key, value);
    seen[static_cast<std::size_t>(key)] = std::move(value);
    return goesOn;
  };
  visitRecord(
      walk, record, pool, isWanted, [&seen](std::uint8_t number) { return seen[number]; },
      [&](AttributeKey key, const Dictionary::Entry& entry) { return visitOne(key, entry.value); },
      visitOne);
}

// Makes the dictionary of a record's attributes.
class AttributesOfRecord {
 public:
  AttributesOfRecord(std::string_view record, const ValuePool& pool,
                     const AttributeSelection& wanted, std::string_view identifier)
      : record_(record),
        pool_(pool),
        wanted_(wanted),
        identifier_(identifier),
        walk_(record, pool),
        builder_(std::min(kMostAttributes, wanted.count()), record.size() + kMoreTextBytes,
                 walk_.shapeAttributes()) {
    walk_.makeTextsIn(builder_);
  }

  Dictionary make() {
    visitRecord(
        walk_, record_, pool_, [this](AttributeKey key) { return isWanted(key); },
        [this](std::uint8_t number) { return earlier(number); },
        [this](AttributeKey key, const Dictionary::Entry& entry) {
          putIdentifierBefore(rank(key));
          putShared(key, entry);
          return true;
        },
        [this](AttributeKey key, Value value) {
          putIdentifierBefore(rank(key));
          put(key, std::move(value));
          return true;
        });
    putIdentifierBefore(UINT16_MAX);
    return disordered_ ? std::move(*disordered_) : builder_.finish();
  }

 private:
  // All that there are.
  static constexpr std::size_t kMostAttributes =
      static_cast<std::size_t>(AttributeKey::kFetchedCount) +
      static_cast<std::size_t>(AttributeKey::kEnd) -
      static_cast<std::size_t>(AttributeKey::kBeforeQueryOnly);
  static_assert(kMostAttributes <= DictionaryBuilder::kMostEntries);
  // The heads of texts, and those that a record has in a shorter form.
  static constexpr std::size_t kMoreTextBytes = 1024;

  bool isWanted(AttributeKey key) const { return wanted_[static_cast<std::size_t>(key)]; }

  int rank(AttributeKey key) const { return ranks_[static_cast<std::size_t>(key)]; }

  // In the order of the names, unless the record is not what was written.
  bool isNext(AttributeKey key) {
    if (disordered_) return false;
    if (rank(key) > last_) {
      last_ = rank(key);
      return true;
    }
    disordered_ = builder_.finish();
    places_.fill(0);
    return false;
  }

  void put(AttributeKey key, Value value) {
    if (!isNext(key)) return disordered_->set(keyText(key), std::move(value));
    builder_.append(keyText(key), std::move(value));
    places_[static_cast<std::size_t>(key)] = static_cast<std::uint8_t>(builder_.size());
  }

  void putShared(AttributeKey key, const Dictionary::Entry& entry) {
    if (!isNext(key)) return disordered_->set(entry.key, entry.value);
    builder_.appendLent(entry);
  }

  void putIdentifierBefore(int next) {
    if (!isIdentifierDue_ || next < rank(AttributeKey::kExternalID)) return;
    isIdentifierDue_ = false;
    put(AttributeKey::kExternalID, builder_.text(identifier_));
  }

  Value earlier(std::uint8_t number) const {
    return places_[number] == 0 ? Value() : builder_.begin()[places_[number] - 1].value;
  }

  const std::string_view record_;
  const ValuePool& pool_;
  const AttributeSelection& wanted_;
  const std::string_view identifier_;
  Walk walk_;
  DictionaryBuilder builder_;
  std::optional<Dictionary> disordered_;
  std::array<std::uint8_t, kKeys> places_{};  // of a key's entry, counted from 1
  const std::array<std::uint16_t, kKeys>& ranks_ = nameRanks();
  int last_ = -1;
  bool isIdentifierDue_ = isWanted(AttributeKey::kExternalID);
};

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
  Reader reader(record, std::min(kRecordChecksumSize, record.size()), record.size(), nullptr);
  const std::uint64_t shape = reader.number();
  if (!reader.ok() || shape == 0 || shape > UINT32_MAX) return std::nullopt;
  return static_cast<std::uint32_t>(shape - 1);
}

Value recordValue(std::string_view record, AttributeKey key, const ValuePool& pool) {
  Walk walk(record, pool);
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

Dictionary recordAttributes(std::string_view record, const ValuePool& pool,
                            const AttributeSelection& wanted, std::string_view identifier) {
  return AttributesOfRecord(record, pool, wanted, identifier).make();
}

std::string encodeValue(const Value& value) {
  std::string out;
  Writer(out, nullptr).put(value);
  return out;
}

Value decodeValue(std::string_view bytes) {
  Reader reader(bytes, 0, bytes.size(), nullptr);
  Value found = reader.value();
  return reader.ok() && reader.atEnd() ? found : Value();
}

}  // namespace thmp
