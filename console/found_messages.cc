// SPDX-License-Identifier: Apache-2.0
#include "console/found_messages.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <string_view>

namespace thmp::console {
namespace {

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

std::string localTime(Date date) {
  // The local calendar of years far off is nobody's concern.
  if (!(std::abs(date.unixSeconds()) < 2e11)) return {};
  const auto seconds = static_cast<std::time_t>(std::floor(date.unixSeconds()));
  std::tm local{};
  return ::localtime_r(&seconds, &local) != nullptr ? fmt::format("{:%Y-%m-%d %H:%M}", local)
                                                    : std::string();
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
  output.write(json.dump(-1, ' ', false, Json::error_handler_t::replace));
  output.write("\n");
}

TableRow tableRow(const Value& attributes) {
  TableRow row{"", firstText(attributes["kMDItemAuthors"]),
               firstText(attributes["kMDItemDisplayName"])};
  auto date = attributes["com_apple_mail_dateReceived"].asDate();
  if (!date) date = attributes["kMDItemContentCreationDate"].asDate();
  if (date) row.date = localTime(*date);
  return row;
}

void printRow(const TableRow& row, std::size_t indent, StandardOutput& output) {
  if (!output.isTerminal()) {
    output.write(row.date + "\t" + row.author + "\t" + row.subject + "\n");
    return;
  }
  const std::size_t columns = output.columns() - std::min(output.columns(), indent);
  constexpr std::size_t kDate = 16;
  std::string line;
  std::size_t used = 0;
  if (columns >= 40) {
    line += output.hasColor() ? "\x1b[2m" : "";
    line += fitted(row.date, kDate, /*pad=*/true);
    line += output.hasColor() ? "\x1b[0m  " : "  ";
    used += kDate + 2;
  }
  if (columns >= 60) {
    const std::size_t author = columns >= 100 ? 28 : 20;
    line += fitted(row.author, author, /*pad=*/true) + "  ";
    used += author + 2;
  }
  output.write(line + fitted(row.subject, columns - used, /*pad=*/false) + "\n");
}

}  // namespace thmp::console
