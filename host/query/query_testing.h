// SPDX-License-Identifier: Apache-2.0
//
// What the tests of the query language share: a fixed time, and questions asked in one line.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "base/value.h"
#include "host/query/dump.h"
#include "host/query/evaluator.h"
#include "host/query/message_view.h"
#include "host/query/parser.h"

namespace thmp::query {

/// The instant that an ISO 8601 text in UTC says.
inline Date at(std::string_view iso) {
  const std::optional<Date> date = Date::fromIso8601(iso);
  EXPECT_TRUE(date) << iso;
  return date.value_or(Date{});
}

/// Wednesday, 13 March 2024, 10:20:30 UTC.
inline QueryOptions testOptions() {
  QueryOptions options;
  options.now = at("2024-03-13T10:20:30Z");
  return options;
}

inline void PrintTo(const SyntaxError& error, std::ostream* out) {
  *out << "at " << error.offset << ": " << error.message << " (" << error.hint << ")";
}

inline std::optional<Query> parsed(std::string_view text,
                                   const QueryOptions& options = testOptions()) {
  SyntaxError error;
  std::optional<Query> query = parse(text, options, &error);
  EXPECT_TRUE(query) << text << "\n" << ::testing::PrintToString(error);
  return query;
}

/// The error of a text that must not parse.
inline SyntaxError errorOf(std::string_view text) {
  SyntaxError error;
  EXPECT_FALSE(parse(text, testOptions(), &error)) << text;
  EXPECT_FALSE(error.message.empty()) << text;
  EXPECT_LE(error.offset, text.size());
  return error;
}

inline std::string treeOf(std::string_view text) {
  const std::optional<Query> query = parsed(text);
  return query ? dumpTree(*query) : "";
}

inline bool isMatch(std::string_view text, const Dictionary& message,
                    const QueryOptions& options = testOptions()) {
  const std::optional<Query> query = parsed(text, options);
  return query && matches(*query, ValueMessageView(message));
}

/// Whether `a OPERATOR-AND-VALUE` is true of a message whose only attribute a has `stored`.
inline bool holdsFor(const Value& stored, std::string_view operatorAndValue,
                     const QueryOptions& options = testOptions()) {
  return isMatch("a" + std::string(operatorAndValue), Dictionary{{"a", stored}}, options);
}

}  // namespace thmp::query
