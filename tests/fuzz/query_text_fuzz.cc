// SPDX-License-Identifier: Apache-2.0
//
// Any text as a query, and as a client's shorthand. It parses or has an error within it; what
// parses can be shown and explained in every form, and its truth on small messages follows the laws
// of logic when it is put into groups. A shorthand that is understood gives a predicate that
// parses.
#include <array>
#include <cstddef>
#include <optional>
#include <string>

#include "base/value.h"
#include "client/shorthand.h"
#include "host/query/dump.h"
#include "host/query/evaluator.h"
#include "host/query/explanation.h"
#include "host/query/message_view.h"
#include "host/query/parser.h"
#include "platform/linux/utf8.h"
#include "tests/fuzz/fuzzing.h"

namespace thmp::fuzz {
namespace {

// A client's own commands: what people type is short. A shorthand grows to eighty times its size.
constexpr std::size_t kMaxExplained = std::size_t{4} << 10;
constexpr std::size_t kMaxShorthand = std::size_t{4} << 10;
// Parsed some twenty times, and twice in one query.
constexpr std::size_t kMaxInGroups = std::size_t{32} << 10;

using query::matches;
using query::parse;
using query::Query;
using query::SyntaxError;
using query::ValueMessageView;

query::QueryOptions options() {
  query::QueryOptions options;
  options.now = Date{732'000'000};
  options.firstWeekday = 2;
  options.utcOffsetAt = [](std::int64_t unixSeconds) -> std::int64_t {
    return unixSeconds % 31'556'952 < 15'778'476 ? 3600 : 7200;
  };
  return options;
}

const std::array<Dictionary, 3>& messages() {
  static const std::array<Dictionary, 3> kMessages{
      Dictionary{},
      Dictionary{{"a", "x"},
                 {"b", 7},
                 {"kMDItemSubject",
                  "Plum cake, Gro\xC3\x9F"
                  "e Stra\xC3\x9F"
                  "e \xE6\x97\xA5\xE6\x9C\xAC"},
                 {"kMDItemTextContent", "An apple a day. MyWindowClass e\xCC\x81t\xC3\xA9"},
                 {"kMDItemContentCreationDate", Date{731'999'000}}},
      Dictionary{{"a", Array{"y", 2.5, true, Date{5}, Data{"z"}}},
                 {"b", Dictionary{{"k", "v"}}},
                 {"com_apple_mail_read", false},
                 {"kMDItemAuthors", Array{"Ada Brightwater", "\xF0\x9F\x8D\x8E apple"}}}};
  return kMessages;
}

bool isTrue(const std::string& text, const Dictionary& message, bool& parsed) {
  const std::optional<Query> query = parse(text, options());
  parsed = query.has_value();
  return query && matches(*query, ValueMessageView(message));
}

void checkError(std::string_view text, const SyntaxError& error) {
  THMP_FUZZ_CHECK(!error.message.empty());
  THMP_FUZZ_CHECK(error.message.find('\n') == std::string::npos);
  THMP_FUZZ_CHECK(error.offset <= text.size());
  THMP_FUZZ_CHECK(!query::pointOut(text, error).empty());
}

void checkLogic(const std::string& text, const Query& query) {
  const std::string group = "(" + text + ")";
  for (const Dictionary& message : messages()) {
    const bool truth = matches(query, ValueMessageView(message));
    THMP_FUZZ_CHECK(matches(query, ValueMessageView(message)) == truth);
    bool parsed = false;
    const bool inGroup = isTrue(group, message, parsed);
    if (!parsed) return;  // nested as deep as it may be already
    THMP_FUZZ_CHECK(inGroup == truth);
    const bool denied = isTrue("!" + group, message, parsed);
    if (parsed) THMP_FUZZ_CHECK(denied == !truth);
    THMP_FUZZ_CHECK(isTrue(group + "&&" + group, message, parsed) == truth && parsed);
    THMP_FUZZ_CHECK(isTrue("false || " + group, message, parsed) == truth && parsed);
    THMP_FUZZ_CHECK(!isTrue(group + " && false", message, parsed) && parsed);
  }
}

void parseOnce(std::string_view bytes) {
  SyntaxError error;
  parse(bytes, options(), &error);
}

}  // namespace

const Bounds kBounds{1, 64 * kMiB, parseOnce};

void runInput(std::string_view bytes) {
  const std::string text(bytes);
  SyntaxError error;
  const std::optional<Query> query = parse(text, options(), &error);
  query::dumpTokens(text);
  if (query) {
    THMP_FUZZ_CHECK(query->text() == text);
    THMP_FUZZ_CHECK(!query::dump(*query).empty());
    query::attributesReferenced(*query);
    if (text.size() <= kMaxExplained) {
      query::explainAttributes(*query);
      query::explainPredicates(*query, options());
      query::doubts(*query);
    }
    if (text.size() <= kMaxInGroups) checkLogic(text, *query);
  } else {
    checkError(text, error);
  }

  client::isPredicate(text);
  // What is no text in the query language is none in a shorthand; the host says so.
  if (text.size() > kMaxShorthand || !isUtf8(text) || text.find('\0') != std::string::npos) return;
  const auto predicate = client::predicateFromShorthand(text);
  if (predicate && !predicate->empty()) {
    SyntaxError inside;
    const bool understood = parse(*predicate, options(), &inside).has_value();
    THMP_FUZZ_CHECK(understood);
  }
}

}  // namespace thmp::fuzz
