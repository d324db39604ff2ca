// SPDX-License-Identifier: Apache-2.0
#include "search/delivery_order.h"

#include <utf8proc.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <utility>

#include "base/value.h"

namespace thmp {

namespace {

// An array is kArray, its elements, kEnd; so the shorter of two arrays comes first.
enum class Rank : std::uint8_t { kEnd, kAbsent, kNumber, kDate, kText, kArray, kOther };

/// One step of a sort key. A key is flat: comparing it needs no recursion however deep arrays nest.
struct Token {
  Rank rank = Rank::kAbsent;
  double number = 0;
  /// What `number` lacks of an integer too large for a double.
  std::int64_t rest = 0;
  std::string text;
};

using SortKey = std::vector<Token>;

bool isAscii(std::string_view text) {
  return std::none_of(text.begin(), text.end(), [](char c) { return (c & 0x80) != 0; });
}

/// Bytes of UTF-8 are in the order of its code points. What cannot be composed is compared as it
/// is.
std::string composed(std::string_view text) {
  if (isAscii(text)) return std::string(text);
  utf8proc_uint8_t* result = nullptr;
  const utf8proc_ssize_t length =
      utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                   static_cast<utf8proc_ssize_t>(text.size()), &result,
                   static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
  const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(result, &std::free);
  if (length < 0) return std::string(text);
  return std::string(reinterpret_cast<const char*>(result), static_cast<std::size_t>(length));
}

/// The integer that `number`, a rounded 64-bit integer, stands for, modulo 2^64.
std::uint64_t wrapped(double number) {
  constexpr double kTwoTo64 = 18446744073709551616.0;
  if (number < 0) return static_cast<std::uint64_t>(static_cast<std::int64_t>(number));
  return number < kTwoTo64 ? static_cast<std::uint64_t>(number) : 0;
}

Token integerToken(double rounded, std::uint64_t exact) {
  return {Rank::kNumber, rounded, static_cast<std::int64_t>(exact - wrapped(rounded)), {}};
}

Token tokenOf(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::kNull:
      return {Rank::kAbsent, 0, 0, {}};
    case Value::Kind::kBoolean:
      return {Rank::kNumber, value.booleanValue() ? 1.0 : 0.0, 0, {}};
    case Value::Kind::kInteger: {
      const std::int64_t integer = *value.asInteger();
      return integerToken(static_cast<double>(integer), static_cast<std::uint64_t>(integer));
    }
    case Value::Kind::kUnsigned: {
      const std::uint64_t integer = *value.asUnsigned();
      return integerToken(static_cast<double>(integer), integer);
    }
    case Value::Kind::kReal:
      return {Rank::kNumber, *value.asReal(), 0, {}};
    case Value::Kind::kDate:
      return {Rank::kDate, value.asDate()->secondsSinceReference, 0, {}};
    case Value::Kind::kText:
      return {Rank::kText, 0, 0, composed(*value.asText())};
    case Value::Kind::kArray:
      return {Rank::kArray, 0, 0, {}};
    case Value::Kind::kData:
    case Value::Kind::kDictionary:
      break;
  }
  return {Rank::kOther, 0, 0, {}};
}

/// Appends `value` to `key`, nested arrays without recursion.
void append(SortKey& key, const Value& value) {
  struct Level {
    Array array;
    std::size_t next = 0;
  };
  std::vector<Level> levels;
  const auto add = [&](const Value& element) {
    key.push_back(tokenOf(element));
    if (auto array = element.asArray()) levels.push_back({std::move(*array)});
  };
  add(value);
  while (!levels.empty()) {
    Level& level = levels.back();
    if (level.next < level.array.size()) {
      add(level.array[level.next++]);
    } else {
      key.push_back({Rank::kEnd, 0, 0, {}});
      levels.pop_back();
    }
  }
}

std::weak_ordering compareNumbers(double a, double b) {
  if (a < b) return std::weak_ordering::less;
  if (a > b) return std::weak_ordering::greater;
  return std::isnan(a) <=> std::isnan(b);
}

std::weak_ordering compare(const Token& a, const Token& b) {
  if (a.rank != b.rank) return a.rank <=> b.rank;
  if (const auto order = compareNumbers(a.number, b.number); order != 0) return order;
  if (a.rest != b.rest) return a.rest <=> b.rest;
  return a.text.compare(b.text) <=> 0;
}

bool less(const SortKey& a, const SortKey& b) {
  // Keys that are equal so far have the same structure so far: their tokens correspond.
  const std::size_t common = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < common; ++i) {
    if (const auto order = compare(a[i], b[i]); order != 0) return order < 0;
  }
  return a.size() < b.size();
}

}  // namespace

std::vector<std::string> sortAttributes(std::string_view sortingAttribute) {
  constexpr char kCreated[] = "kMDItemContentCreationDate";
  constexpr char kReceived[] = "com_apple_mail_dateReceived";
  std::vector<std::string> attributes = {std::string(sortingAttribute)};
  if (sortingAttribute == "kMDItemFSContentChangeDate" ||
      sortingAttribute == "kMDItemFSCreationDate") {
    attributes.insert(attributes.end(), {kCreated, kReceived});
  } else if (sortingAttribute == kReceived) {
    // Deliberate: the date received stands twice.
    attributes.insert(attributes.end(), {kReceived, kCreated});
  }
  return attributes;
}

std::vector<const SpotlightItem*> sortedItems(std::span<const SpotlightItem> items,
                                              const std::vector<std::string>& attributes,
                                              bool ascending) {
  struct Keyed {
    SortKey key;
    const SpotlightItem* item;
  };
  std::vector<Keyed> keyed;
  keyed.reserve(items.size());
  for (const SpotlightItem& item : items) {
    SortKey key;
    for (const std::string& attribute : attributes) append(key, item.attributes.get(attribute));
    keyed.push_back({std::move(key), &item});
  }
  if (!attributes.empty()) {
    std::stable_sort(keyed.begin(), keyed.end(), [ascending](const Keyed& a, const Keyed& b) {
      return ascending ? less(a.key, b.key) : less(b.key, a.key);
    });
  }
  std::vector<const SpotlightItem*> sorted;
  sorted.reserve(keyed.size());
  for (const Keyed& entry : keyed) sorted.push_back(entry.item);
  return sorted;
}

}  // namespace thmp
