// SPDX-License-Identifier: Apache-2.0
//
// Found messages as both programs print them: a JSON object, or a row of a table. An item is a
// dictionary as it stands in a results batch: "attributes", "libraryID", "kMDItemPath", "index".
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "base/value.h"
#include "console/PropertyListJson.h"
#include "console/terminal.h"

namespace thmp::console {

using Json = nlohmann::ordered_json;

/// Prints the `found` event on one line: "event", "index", "libraryID", "path", "attributes".
void printFoundEvent(const Dictionary& item, StandardOutput& output);
/// The same for one that stands in a list.
void printFoundEvent(PropertyListJson& list, PropertyListView::Object item, StandardOutput& output);

/// One line. What is no UTF-8 is shown as U+FFFD.
void printLine(const Json& json, StandardOutput& output);

/// When a message was received; for one that does not tell, when it was sent.
std::optional<Date> messageDate(const Value& attributes);

/// What the table shows of a message, safe for a terminal.
struct TableRow {
  std::string date;  // local time
  std::string author;
  std::string subject;
};
TableRow tableRow(const Value& attributes);

/// On a terminal in columns that fit it less `indent`, else apart by tabs and whole.
void printRow(const TableRow& row, std::size_t indent, StandardOutput& output);

}  // namespace thmp::console
