// SPDX-License-Identifier: Apache-2.0
#include "host/index/message_record.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <optional>
#include <vector>

namespace thmp {

namespace {

static_assert(std::endian::native == std::endian::little, "records are stored little-endian");

constexpr std::size_t kChecksumSize = 4;
constexpr int kMostDepth = 8;

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
  kSameAs,
  kConstant,
};

// What every message has alike; the places in this list are part of the stored form.
const std::array<Value, 5>& constants() {
  static const auto& all = *new std::array<Value, 5>{
      Value("com.apple.mail"), Value("public.email-message"), Value("Mail Message"),
      Value(Array{Value("com.apple.mail.email"), Value("public.data"), Value("public.item"),
                  Value("public.email-message"), Value("public.message")}),
      Value(Array{Value("com.apple.mail.emlx"), Value("public.data"), Value("public.item"),
                  Value("public.email-message"), Value("public.message")})};
  return all;
}

bool mayBeConstant(AttributeKey key) {
  return key == AttributeKey::kBundleID || key == AttributeKey::kContentType ||
         key == AttributeKey::kKind || key == AttributeKey::kContentTypeTree;
}

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

// Attributes nest two levels; what nests deeper than a reader would follow is left out.
void putValue(std::string& out, const Value& value, int depth = 0) {
  switch (value.kind()) {
    case Value::Kind::kNull:
      break;
    case Value::Kind::kBoolean:
      out.push_back(*value.asBoolean() ? kTrue : kFalse);
      break;
    case Value::Kind::kInteger:
      out.push_back(kInteger);
      putSigned(out, *value.asInteger());
      break;
    case Value::Kind::kUnsigned:
      out.push_back(kUnsigned);
      putNumber(out, *value.asUnsigned());
      break;
    case Value::Kind::kReal:
      out.push_back(kReal);
      putReal(out, *value.asReal());
      break;
    case Value::Kind::kDate:
      putDate(out, *value.asDate());
      break;
    case Value::Kind::kData:
      out.push_back(kData);
      putBytes(out, *value.asData());
      break;
    case Value::Kind::kText:
      out.push_back(kText);
      putBytes(out, *value.asText());
      break;
    case Value::Kind::kArray: {
      const Array array = *value.asArray();
      out.push_back(kArray);
      putNumber(out, depth < kMostDepth ? array.size() : 0);
      if (depth >= kMostDepth) break;
      for (const Value& element : array) putValue(out, element, depth + 1);
      break;
    }
    case Value::Kind::kDictionary: {
      const Dictionary dictionary = *value.asDictionary();
      out.push_back(kDictionary);
      putNumber(out, depth < kMostDepth ? dictionary.size() : 0);
      if (depth >= kMostDepth) break;
      for (const Dictionary::Entry& entry : dictionary) {
        putBytes(out, entry.key);
        putValue(out, entry.value, depth + 1);
      }
      break;
    }
  }
}

class Reader {
 public:
  explicit Reader(std::string_view bytes) : at_(bytes.data()), end_(bytes.data() + bytes.size()) {}

  bool ok() const { return ok_; }
  bool atEnd() const { return at_ == end_; }

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
        return Value(bytes());
      case kArray:
        return array(depth);
      case kDictionary:
        return dictionary(depth);
      case kConstant: {
        const std::uint8_t place = byte();
        if (place < constants().size()) return constants()[place];
        break;
      }
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

  // Each element takes a byte at least, so a count that cannot be is found before it is believed.
  std::size_t count(int depth) {
    const std::uint64_t many = number();
    if (depth >= kMostDepth && many > 0) ok_ = false;
    return need(many) ? static_cast<std::size_t>(many) : 0;
  }

  Value array(int depth) {
    const std::size_t size = count(depth);
    std::vector<Value> values;
    values.reserve(size);
    for (std::size_t i = 0; i < size && ok_; ++i) values.push_back(value(depth + 1));
    return Value(Array(std::move(values)));
  }

  Value dictionary(int depth) {
    const std::size_t size = count(depth);
    std::vector<Dictionary::Entry> entries;
    entries.reserve(size);
    for (std::size_t i = 0; i < size && ok_; ++i) {
      Text key(bytes());
      entries.push_back({std::move(key), value(depth + 1)});
    }
    return Value(Dictionary(std::move(entries)));
  }

  const char* at_;
  const char* end_;
  bool ok_ = true;
};

std::string_view body(std::string_view record) {
  return record.size() < kChecksumSize ? std::string_view() : record.substr(kChecksumSize);
}

bool isKnown(std::uint8_t number) {
  return number < static_cast<std::uint8_t>(AttributeKey::kFetchedCount) ||
         (number > static_cast<std::uint8_t>(AttributeKey::kBeforeQueryOnly) &&
          number < static_cast<std::uint8_t>(AttributeKey::kEnd));
}

struct Item {
  AttributeKey key;
  const Value* value;
};

std::vector<Item> itemsOf(const Dictionary& attributes, const Dictionary& queryOnly) {
  std::vector<Item> items;
  for (const Dictionary* dictionary : {&attributes, &queryOnly}) {
    for (const Dictionary::Entry& entry : *dictionary) {
      const auto key = keyNamed(entry.key);
      if (key) items.push_back({*key, &entry.value});
    }
  }
  std::sort(items.begin(), items.end(), [](const Item& a, const Item& b) { return a.key < b.key; });
  return items;
}

void putAttribute(std::string& out, const std::vector<Item>& items, std::size_t place) {
  const Item& item = items[place];
  if (mayBeConstant(item.key)) {
    for (std::size_t i = 0; i < constants().size(); ++i) {
      if (!Value::identical(constants()[i], *item.value)) continue;
      out.push_back(kConstant);
      out.push_back(static_cast<char>(i));
      return;
    }
  }
  const void* identity = item.value->identity();
  for (std::size_t i = 0; identity != nullptr && i < place; ++i) {
    if (items[i].value->identity() != identity) continue;
    out.push_back(kSameAs);
    out.push_back(static_cast<char>(items[i].key));
    return;
  }
  putValue(out, *item.value);
}

}  // namespace

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

std::string encodeRecord(const Dictionary& attributes, const Dictionary& queryOnly) {
  const std::vector<Item> items = itemsOf(attributes, queryOnly);
  std::string out(kChecksumSize, '\0');
  std::string value;
  for (std::size_t i = 0; i < items.size(); ++i) {
    value.clear();
    putAttribute(value, items, i);
    out.push_back(static_cast<char>(items[i].key));
    putBytes(out, value);
  }
  const auto checksum = static_cast<std::uint32_t>(fingerprint(body(out)));
  std::memcpy(out.data(), &checksum, kChecksumSize);
  return out;
}

bool isIntactRecord(std::string_view record) noexcept {
  std::uint32_t stored = 0;
  if (record.size() < kChecksumSize) return false;
  std::memcpy(&stored, record.data(), kChecksumSize);
  return stored == static_cast<std::uint32_t>(fingerprint(body(record)));
}

Value recordValue(std::string_view record, AttributeKey key) {
  Reader reader(body(record));
  while (!reader.atEnd() && reader.ok()) {
    const std::uint8_t number = reader.byte();
    const std::string_view bytes = reader.bytes();
    if (number != static_cast<std::uint8_t>(key)) continue;
    if (bytes.size() == 2 && bytes[0] == kSameAs) {
      const auto other = static_cast<AttributeKey>(bytes[1]);
      return other < key ? recordValue(record, other) : Value();
    }
    Reader value(bytes);
    Value found = value.value();
    return value.ok() ? found : Value();
  }
  return {};
}

void forEachInRecord(std::string_view record,
                     const std::function<bool(AttributeKey key, const Value& value)>& visit) {
  std::array<Value, 256> seen;
  Reader reader(body(record));
  while (!reader.atEnd() && reader.ok()) {
    const std::uint8_t number = reader.byte();
    const std::string_view bytes = reader.bytes();
    if (!reader.ok() || !isKnown(number)) continue;
    if (bytes.size() == 2 && bytes[0] == kSameAs) {
      seen[number] = seen[static_cast<std::uint8_t>(bytes[1])];
    } else {
      Reader value(bytes);
      seen[number] = value.value();
      if (!value.ok()) continue;
    }
    if (seen[number].isNull()) continue;
    if (!visit(static_cast<AttributeKey>(number), seen[number])) return;
  }
}

}  // namespace thmp
