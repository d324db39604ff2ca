// SPDX-License-Identifier: Apache-2.0
#include "console/found_messages.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "console/calendar.h"

namespace thmp::console {
namespace {

constexpr std::size_t kDateWidth = 16;
constexpr std::size_t kDayWidth = 10;

std::string base64(std::string_view bytes) {
  constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const auto byte = [&](std::size_t at) -> unsigned {
      return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0U;
    };
    const unsigned group = byte(i) << 16 | byte(i + 1) << 8 | byte(i + 2);
    for (std::size_t sextet = 0; sextet < 4; ++sextet) {
      const bool there = i + sextet < bytes.size() + 1;
      text += there ? kAlphabet[group >> (18 - 6 * sextet) & 63] : '=';
    }
  }
  return text;
}

std::string firstText(const Value& value) {
  if (const auto array = value.asArray(); array && !array->empty()) return firstText((*array)[0]);
  return shown(value.asText().value_or(""));
}

std::string dimmed(const std::string& text, const StandardOutput& output) {
  return output.hasColor() ? "\x1b[2m" + text + "\x1b[0m" : text;
}

}  // namespace

Json jsonOf(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::kNull:
      return nullptr;
    case Value::Kind::kBoolean:
      return *value.asBoolean();
    case Value::Kind::kInteger:
      return *value.asInteger();
    case Value::Kind::kUnsigned:
      return *value.asUnsigned();
    case Value::Kind::kReal:
      return *value.asReal();
    case Value::Kind::kDate:
      return value.asDate()->iso8601();
    case Value::Kind::kData:
      return base64(*value.asData());
    case Value::Kind::kText:
      return std::string(*value.asText());
    case Value::Kind::kArray: {
      Json json = Json::array();
      const Array array = value.asArray().value_or(Array());
      for (const Value& element : array) json.push_back(jsonOf(element));
      return json;
    }
    case Value::Kind::kDictionary: {
      Json json = Json::object();
      const Dictionary dictionary = value.asDictionary().value_or(Dictionary());
      for (const auto& [key, member] : dictionary) json[key.str()] = jsonOf(member);
      return json;
    }
  }
  return nullptr;
}

Json foundEvent(const Dictionary& item) {
  return {{"event", "found"},
          {"index", jsonOf(item["index"])},
          {"libraryID", jsonOf(item["libraryID"])},
          {"path", jsonOf(item["kMDItemPath"])},
          {"attributes", jsonOf(item["attributes"])}};
}

void printLine(const Json& json, StandardOutput& output) {
  const std::string text = json.dump(-1, ' ', false, Json::error_handler_t::replace);
  output.write(output.isTerminal() ? shownJson(text) : text);
  output.write("\n");
}

std::optional<Date> messageDate(const Value& attributes) {
  const std::optional<Date> received = attributes["com_apple_mail_dateReceived"].asDate();
  return received ? received : attributes["kMDItemContentCreationDate"].asDate();
}

TableRow tableRow(const Value& attributes) {
  const std::optional<Date> date = messageDate(attributes);
  return {date ? localTime(*date, Precision::kMinutes) : std::string(),
          firstText(attributes["kMDItemAuthors"]), firstText(attributes["kMDItemDisplayName"])};
}

void printRow(const TableRow& row, std::size_t indent, StandardOutput& output) {
  if (!output.isTerminal()) {
    output.write(dimmed(row.date, output) + "\t" + row.author + "\t" + row.subject + "\n");
    return;
  }
  const std::size_t columns = output.columns() - std::min(output.columns(), indent);
  // The subject stays to the last; the day is what a date can do with.
  const std::size_t date = columns >= 40 ? kDateWidth : columns >= 30 ? kDayWidth : 0;
  const std::size_t author = columns >= 100 ? 28 : columns >= 60 ? 20 : 0;
  std::string line;
  std::size_t used = 0;
  if (date > 0) {
    line += dimmed(fitted(std::string_view(row.date).substr(0, date), date, /*pad=*/true), output);
    line += "  ";
    used += date + 2;
  }
  if (author > 0) {
    line += fitted(row.author, author, /*pad=*/true) + "  ";
    used += author + 2;
  }
  output.write(line + fitted(row.subject, columns - used, /*pad=*/false) + "\n");
}

}  // namespace thmp::console
