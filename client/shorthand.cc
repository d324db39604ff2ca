// SPDX-License-Identifier: Apache-2.0
#include "client/shorthand.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace thmp::client {
namespace {

constexpr std::string_view kErrorDomain = "THMPShorthand";

constexpr std::array<std::string_view, 8> kKeys = {"from",  "to",     "with", "subject",
                                                   "after", "before", "has",  "is"};

struct Term {
  bool negated = false;
  std::string key;  // empty for plain words
  std::string text;
};

bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Cuts at blanks outside quotes; quotes are taken off, and keep a colon inside from naming a key.
std::vector<Term> termsOf(std::string_view shorthand) {
  std::vector<Term> terms;
  for (std::size_t i = 0; i < shorthand.size();) {
    if (isBlank(shorthand[i])) {
      ++i;
      continue;
    }
    Term term;
    if (shorthand[i] == '-' && i + 1 < shorthand.size() && !isBlank(shorthand[i + 1])) {
      term.negated = true;
      ++i;
    }
    bool quoted = false;
    bool keyAllowed = true;
    for (; i < shorthand.size() && (quoted || !isBlank(shorthand[i])); ++i) {
      const char c = shorthand[i];
      if (c == '"') {
        quoted = !quoted;
        keyAllowed = false;
      } else if (c == ':' && keyAllowed) {
        if (std::find(kKeys.begin(), kKeys.end(), term.text) != kKeys.end()) {
          term.key = std::exchange(term.text, {});
        } else {
          term.text += c;
        }
        keyAllowed = false;
      } else {
        term.text += c;
      }
    }
    terms.push_back(std::move(term));
  }
  return terms;
}

// A text as the query language reads it between double quotes.
std::string literal(std::string_view before, std::string_view text, std::string_view after) {
  std::string quoted = "\"";
  quoted += before;
  for (const char c : text) {
    if (c == '"' || c == '\\' || c == '*' || c == '?') quoted += '\\';
    quoted += c;
  }
  quoted += after;
  quoted += '"';
  return quoted;
}

std::string anyOf(std::span<const std::string_view> attributes, const std::string& value) {
  std::string predicate;
  for (const std::string_view attribute : attributes) {
    if (!predicate.empty()) predicate += " || ";
    predicate += std::string(attribute) + " == " + value;
  }
  return attributes.size() > 1 ? "(" + predicate + ")" : predicate;
}

std::string anyContains(std::initializer_list<std::string_view> attributes, std::string_view text) {
  return anyOf({attributes.begin(), attributes.size()}, literal("*", text, "*") + "cd");
}

// What a person means by words in a message: "any attribute" would also find the names of types and
// programs.
constexpr std::array<std::string_view, 6> kReadAttributes = {
    "kMDItemSubject",    "kMDItemTextContent",    "kMDItemAuthors",
    "kMDItemRecipients", "kMDItemEmailAddresses", "kMDItemAttachmentNames"};

std::string anyHasWord(std::string_view text) {
  return anyOf(kReadAttributes, literal("", text, "*") + "cdw");
}

// YYYY, YYYY-MM or YYYY-MM-DD as the first day meant.
std::optional<std::string> firstDay(std::string_view text) {
  std::array<int, 3> parts = {0, 1, 1};
  std::size_t count = 0;
  while (!text.empty() && count < parts.size()) {
    const std::size_t digits = count == 0 ? 4 : 2;
    if (text.size() < digits) return std::nullopt;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + digits, parts[count]);
    if (failure != std::errc() || end != text.data() + digits) return std::nullopt;
    text.remove_prefix(digits);
    ++count;
    if (text.empty()) break;
    if (text.front() != '-' || text.size() == 1) return std::nullopt;
    text.remove_prefix(1);
  }
  const auto [year, month, day] = parts;
  constexpr std::array kDays = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (!text.empty() || year < 1 || month < 1 || month > 12 || day < 1) return std::nullopt;
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  if (day > kDays[static_cast<std::size_t>(month - 1)] + (leap && month == 2 ? 1 : 0)) {
    return std::nullopt;
  }
  const auto padded = [](int number, std::size_t width) {
    const std::string digits = std::to_string(number);
    return std::string(width - digits.size(), '0') + digits;
  };
  return padded(year, 4) + "-" + padded(month, 2) + "-" + padded(day, 2);
}

struct Flag {
  std::string_view key;
  std::string_view text;
  std::string_view predicate;
};
constexpr std::array kFlags = {
    Flag{"has", "attachment", "kMDItemAttachmentNames == \"*\""},
    Flag{"is", "unread", "com_apple_mail_read != 1"},
    Flag{"is", "read", "com_apple_mail_read == 1"},
    Flag{"is", "flagged", "com_apple_mail_flagged == 1"},
    Flag{"is", "answered", "com_apple_mail_repliedTo == 1"},
};

Error notUnderstood(std::string what) {
  return Error{std::string(kErrorDomain), 1, std::move(what), nullptr};
}

Result<std::string> predicateOf(const Term& term) {
  const std::string& text = term.text;
  if (term.key.empty()) return anyHasWord(text);
  if (text.empty()) return notUnderstood("\"" + term.key + ":\" needs a text behind the colon");
  if (term.key == "from") {
    return anyContains({"kMDItemAuthors", "kMDItemAuthorEmailAddresses"}, text);
  }
  if (term.key == "to") {
    return anyContains({"kMDItemRecipients", "kMDItemRecipientEmailAddresses"}, text);
  }
  if (term.key == "with") {
    return anyContains({"kMDItemAuthors", "kMDItemRecipients", "kMDItemEmailAddresses"}, text);
  }
  if (term.key == "subject") return anyContains({"kMDItemSubject"}, text);
  if (term.key == "after" || term.key == "before") {
    const auto day = firstDay(text);
    if (!day)
      return notUnderstood("\"" + text + "\" is no date; write it as 2026, 2026-05 or 2026-05-31");
    return "com_apple_mail_dateReceived " + std::string(term.key == "after" ? ">=" : "<") +
           " $time.iso(" + *day + ")";
  }
  const auto flag = std::find_if(kFlags.begin(), kFlags.end(), [&](const Flag& candidate) {
    return candidate.key == term.key && candidate.text == text;
  });
  if (flag != kFlags.end()) return std::string(flag->predicate);
  return notUnderstood(
      "\"" + term.key + ":" + text +
      "\" is not understood; put it in quotes to search for these words, or use from: to: "
      "with: subject: after: before: has:attachment is:unread is:read is:flagged is:answered");
}

}  // namespace

bool isPredicate(std::string_view query) {
  char quote = 0;
  for (std::size_t i = 0; i < query.size(); ++i) {
    const char c = query[i];
    if (c == '\\') {
      ++i;
    } else if (quote != 0) {
      if (c == quote) quote = 0;
    } else if (c == '"' ||
               (c == '\'' && (i == 0 || isBlank(query[i - 1]) || query[i - 1] == '='))) {
      quote = c;  // an apostrophe inside a word is no quote
    } else if (c == '=' || c == '<' || c == '>' || c == '(' || c == ')') {
      return true;
    }
  }
  return false;
}

Result<std::string> predicateFromShorthand(std::string_view shorthand) {
  std::string predicate;
  for (const Term& term : termsOf(shorthand)) {
    if (term.key.empty() && term.text.empty()) continue;
    Result<std::string> part = predicateOf(term);
    if (!part) return part;
    if (!predicate.empty()) predicate += " && ";
    predicate += term.negated ? "!(" + *part + ")" : *part;
  }
  return predicate;
}

}  // namespace thmp::client
