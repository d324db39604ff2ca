// SPDX-License-Identifier: Apache-2.0
#include "client/shorthand.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <span>
#include <utility>
#include <vector>

#include "base/nearest_name.h"
#include "client/ascii_case.h"

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
bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

Error notUnderstood(std::string what) {
  return Error{std::string(kErrorDomain), 1, std::move(what), nullptr};
}

std::string allKeys() {
  std::string keys;
  for (const std::string_view key : kKeys)
    keys += (keys.empty() ? "" : " ") + std::string(key) + ":";
  return keys;
}

// One term from `position` on, which is moved behind it. Quotes are taken off, and keep a colon
// inside from naming a key.
Result<Term> termAt(std::string_view shorthand, std::size_t& position) {
  Term term;
  if (shorthand[position] == '-' && position + 1 < shorthand.size() &&
      !isBlank(shorthand[position + 1])) {
    term.negated = true;
    ++position;
  }
  bool quoted = false;
  bool keyAllowed = true;
  for (; position < shorthand.size() && (quoted || !isBlank(shorthand[position])); ++position) {
    const char c = shorthand[position];
    if (c == '"') {
      quoted = !quoted;
      keyAllowed = false;
    } else if (c == ':' && keyAllowed && !term.text.empty()) {
      keyAllowed = false;
      term.key = std::exchange(term.text, {});
    } else {
      term.text += c;
    }
  }
  if (quoted) return notUnderstood("a quote is not closed; put one more behind \"" + term.text);
  return term;
}

bool isKnownKey(std::string_view key) {
  return std::find(kKeys.begin(), kKeys.end(), key) != kKeys.end();
}

// A colon also stands in words: in "Re:", "12:30" and addresses of pages. What else looks like a
// key is a slip more often than a word, and as a word it would quietly find nothing.
Result<Term> withKeyRead(Term term) {
  if (term.key.empty()) return term;
  const std::string key = lowerCase(term.key);
  if (isKnownKey(key)) {
    term.key = key;
    return term;
  }
  const std::string word = term.key + ":" + term.text;
  const bool looksLikeKey = std::all_of(term.key.begin(), term.key.end(), isLetter) &&
                            !term.text.empty() && !term.text.starts_with("//");
  if (!looksLikeKey) return Term{term.negated, {}, word};
  const std::string_view nearest = nearestName(key, kKeys);
  return notUnderstood("there is no key \"" + term.key + ":\"; " +
                       (nearest.empty() ? "use one of " + allKeys() + ", or"
                                        : "did you mean \"" + std::string(nearest) + ":\"? Or") +
                       " put the words in quotes to search for them");
}

// Cuts at blanks outside quotes.
Result<std::vector<Term>> termsOf(std::string_view shorthand) {
  std::vector<Term> terms;
  for (std::size_t i = 0; i < shorthand.size();) {
    if (isBlank(shorthand[i])) {
      ++i;
      continue;
    }
    Result<Term> term = termAt(shorthand, i);
    if (term) term = withKeyRead(*std::move(term));
    if (!term) return term.error();
    terms.push_back(*std::move(term));
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

int daysOf(int year, int month) {
  constexpr std::array kDays = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return kDays[static_cast<std::size_t>(month - 1)] + (leap && month == 2 ? 1 : 0);
}

// YYYY, YYYY-MM or YYYY-MM-DD as the first day meant, in full.
Result<std::string> firstDay(const std::string& text) {
  constexpr std::string_view kForm = "dddd-dd-dd";
  const bool formed = (text.size() == 4 || text.size() == 7 || text.size() == 10) &&
                      std::equal(text.begin(), text.end(), kForm.begin(), [](char c, char form) {
                        return form == 'd' ? c >= '0' && c <= '9' : c == form;
                      });
  if (!formed) {
    return notUnderstood("\"" + text + "\" is no date; write it as 2026, 2026-05 or 2026-05-31");
  }
  const std::string day = text + std::string("-01-01").substr(text.size() == 4   ? 0
                                                              : text.size() == 7 ? 3
                                                                                 : 6);
  const auto number = [&](std::size_t position, std::size_t digits) {
    int value = 0;
    std::from_chars(day.data() + position, day.data() + position + digits, value);
    return value;
  };
  const int month = number(5, 2);
  const bool exists = number(0, 4) >= 1 && month >= 1 && month <= 12 && number(8, 2) >= 1 &&
                      number(8, 2) <= daysOf(number(0, 4), month);
  if (!exists) return notUnderstood("there is no " + text + " in the calendar");
  return day;
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

// What "has:" and "is:" may stand before.
Result<std::string> flagPredicate(const Term& term) {
  std::vector<std::string_view> texts;
  for (const Flag& flag : kFlags) {
    if (flag.key == term.key) texts.push_back(flag.text);
    if (flag.key == term.key && flag.text == lowerCase(term.text)) {
      return std::string(flag.predicate);
    }
  }
  const std::string_view nearest = nearestName(term.text, texts);
  std::string hint = nearest.empty() ? "use " : "did you mean ";
  for (const std::string_view text : texts) {
    if (nearest.empty() || nearest == text) hint += term.key + ":" + std::string(text) + " ";
  }
  hint.back() = nearest.empty() ? '.' : '?';
  if (nearest.empty()) hint.pop_back();
  return notUnderstood("\"" + term.key + ":" + term.text + "\" is not understood; " + hint);
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
    Result<std::string> day = firstDay(text);
    if (!day) return day;
    return "com_apple_mail_dateReceived " + std::string(term.key == "after" ? ">=" : "<") +
           " $time.iso(" + *day + ")";
  }
  return flagPredicate(term);
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
  const Result<std::vector<Term>> terms = termsOf(shorthand);
  if (!terms) return terms.error();
  std::string predicate;
  for (const Term& term : *terms) {
    if (term.key.empty() && term.text.empty()) continue;
    Result<std::string> part = predicateOf(term);
    if (!part) return part;
    if (!predicate.empty()) predicate += " && ";
    const bool grouped = part->front() == '(';
    predicate += term.negated ? (grouped ? "!" + *part : "!(" + *part + ")") : *part;
  }
  return predicate;
}

}  // namespace thmp::client
