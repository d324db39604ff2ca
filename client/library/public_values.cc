// SPDX-License-Identifier: Apache-2.0
#include "client/library/public_values.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "messaging/message_names.h"

namespace thmp::client {
namespace {

using tallyhive::Attribute;
using tallyhive::Bytes;
using tallyhive::Instant;

Instant instant(Date date) {
  // Past these a count of milliseconds would not hold it; mail says anything.
  constexpr double kMost = 9.2e18;
  const double milliseconds = std::floor(date.unixSeconds() * 1000);
  const double held = std::isnan(milliseconds) ? 0 : std::clamp(milliseconds, -kMost, kMost);
  return Instant(std::chrono::milliseconds(static_cast<std::int64_t>(held)));
}

Bytes bytesOf(std::string_view data) {
  const auto bytes = std::as_bytes(std::span(data));
  return {bytes.begin(), bytes.end()};
}

std::vector<std::string> texts(const Array& array) {
  std::vector<std::string> out;
  for (const Value& element : array) {
    if (const auto text = element.asText()) out.emplace_back(*text);
  }
  return out;
}

Attribute arrayAttribute(const Array& array) {
  if (array.empty() || array[0].kind() != Value::Kind::kData) return texts(array);
  std::vector<Bytes> datas;
  for (const Value& element : array) {
    if (const auto data = element.asData()) datas.push_back(bytesOf(*data));
  }
  return datas;
}

Attribute headersAttribute(const Dictionary& dictionary) {
  tallyhive::Headers headers;
  for (const auto& [name, values] : dictionary) {
    headers.emplace(name.str(), texts(values.asArray().value_or(Array())));
  }
  return headers;
}

std::optional<Attribute> attribute(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::kBoolean:
      return *value.asBoolean();
    case Value::Kind::kInteger:
      return *value.asInteger();
    case Value::Kind::kUnsigned:
    case Value::Kind::kReal:
      return *value.numberValue();
    case Value::Kind::kDate:
      return instant(*value.asDate());
    case Value::Kind::kText:
      return std::string(*value.asText());
    case Value::Kind::kArray:
      return arrayAttribute(*value.asArray());
    case Value::Kind::kDictionary:
      return headersAttribute(*value.asDictionary());
    case Value::Kind::kData:
    case Value::Kind::kNull:
      break;
  }
  return std::nullopt;
}

}  // namespace

tallyhive::Message publicMessage(const Dictionary& item) {
  tallyhive::Message message;
  message.libraryID = item[kLibraryIDKey].asUnsigned().value_or(0);
  message.index = item[kIndexKey].asUnsigned().value_or(0);
  message.path = item[kPathKey].asText().value_or("");
  for (const auto& [name, value] : item[kAttributesKey].asDictionary().value_or(Dictionary())) {
    if (std::optional<Attribute> known = attribute(value)) {
      message.attributes.emplace(name.str(), *std::move(known));
    }
  }
  return message;
}

std::vector<tallyhive::Message> publicMessages(const Value& resultsBatch) {
  std::vector<tallyhive::Message> messages;
  for (const Value& item : resultsBatch[kMessagesKey].asArray().value_or(Array())) {
    messages.push_back(publicMessage(item.asDictionary().value_or(Dictionary())));
  }
  return messages;
}

std::vector<std::uint64_t> publicRemovals(const Value& removalBatch) {
  std::vector<std::uint64_t> ids;
  for (const Value& element : removalBatch[kMessageIDsKey].asArray().value_or(Array())) {
    const std::string_view text = element.asText().value_or("");
    std::uint64_t id = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), id);
    if (failure == std::errc() && end == text.data() + text.size()) ids.push_back(id);
  }
  return ids;
}

}  // namespace thmp::client
