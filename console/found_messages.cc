// SPDX-License-Identifier: Apache-2.0
#include "console/found_messages.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "console/calendar.h"
#include "console/json_text.h"

namespace thmp::console {
namespace {

constexpr std::size_t kDateWidth = 16;
constexpr std::size_t kDayWidth = 10;

std::string firstText(const Value& value) {
  if (const auto array = value.asArray(); array && !array->empty()) return firstText((*array)[0]);
  return shown(value.asText().value_or(""));
}

/// `line` ends in its newline, for what is written at once is whole.
void writeLine(std::string_view line, StandardOutput& output) {
  if (output.isTerminal()) {
    output.write(shownJson(line.substr(0, line.size() - 1)) + '\n');
  } else {
    output.write(line);
  }
}

/// `appendValue` appends what stands under a key.
template <typename AppendValue>
void printEvent(const AppendValue& appendValue, StandardOutput& output) {
  fmt::memory_buffer json;
  json.reserve(std::size_t{8} << 10);  // more than most messages take
  const auto add = [&](std::string_view before, std::string_view key) {
    json.append(before);
    appendValue(key, json);
  };
  add(R"({"event":"found","index":)", "index");
  add(R"(,"libraryID":)", "libraryID");
  add(R"(,"path":)", "kMDItemPath");
  add(R"(,"attributes":)", "attributes");
  json.append(std::string_view("}\n"));
  writeLine({json.data(), json.size()}, output);
}

std::string dimmed(const std::string& text, const StandardOutput& output) {
  return output.hasColor() ? "\x1b[2m" + text + "\x1b[0m" : text;
}

}  // namespace

void printFoundEvent(const Dictionary& item, StandardOutput& output) {
  printEvent(
      [&item](std::string_view key, fmt::memory_buffer& json) { appendJson(item[key], json); },
      output);
}

void printFoundEvent(PropertyListJson& list, PropertyListView::Object item,
                     StandardOutput& output) {
  printEvent(
      [&list, item](std::string_view key, fmt::memory_buffer& json) {
        if (const auto value = list.list().find(item, key)) {
          list.append(*value, json);
        } else {
          appendJson(Value(), json);
        }
      },
      output);
}

void printLine(const Json& json, StandardOutput& output) {
  writeLine(json.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n', output);
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
