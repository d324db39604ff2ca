// SPDX-License-Identifier: Apache-2.0
//
// The words of all messages with their places, in SQLite's full-text table. It keeps no text, so a
// row cannot be taken out again; whoever asks knows which rows are dead.
//
// Each function uses a connection that prepareWordTable() has made ready, on that connection's
// thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "host/store/sqlite_connection.h"

namespace thmp {

/// What to look up: streams of words as words.h makes them.
struct MessageWords {
  std::string text;  // of the body
  std::string rest;  // of attributes that are in no column
};

/// What makes the table, once in the life of a database.
extern const char* const kWordTableSchema;

/// Makes the connection know the table's words. False when this SQLite has no full-text tables.
bool prepareWordTable(Connection& connection);

bool putWords(Connection& writer, std::int64_t row, const MessageWords& words);

/// One word in a lookup.
struct WordLookup {
  enum class Where : std::uint8_t { kText, kRest };
  Where where = Where::kText;
  /// Neighbours, in this order.
  std::vector<std::string> phrase;
  /// The last word may go on.
  bool isPrefix = false;
};

// Both give SQLITE_OK, or the code of what went wrong when the table cannot be read to its end.

/// Calls `visit` with each row that fits.
int findWords(Connection& reader, const WordLookup& lookup,
              const std::function<void(std::int64_t row)>& visit);

/// Calls `visit` with each word that stands anywhere, until it returns false.
int forEachWord(Connection& reader, const std::function<bool(std::string_view word)>& visit);

}  // namespace thmp
