// SPDX-License-Identifier: Apache-2.0
#include "host/query/explanation.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <utility>

#include "base/nearest_name.h"
#include "host/query/attributes.h"
#include "host/query/characters.h"
#include "host/query/dump.h"
#include "host/query/lexer.h"

namespace thmp::query {

namespace {

// --- attribute names ---

bool isOperator(Token::Kind kind) {
  return kind >= Token::Kind::kEqual && kind <= Token::Kind::kGreaterOrEqual;
}

bool isFunction(const Token& token) {
  return token.kind == Token::Kind::kWord && (equalsIgnoringAsciiCase(token.source, "InRange") ||
                                              equalsIgnoringAsciiCase(token.source, "FieldMatch"));
}

/// The attribute names of a query as they were written, each once, in their order.
std::vector<std::string_view> writtenNames(std::string_view text) {
  std::vector<std::string_view> names;
  const auto note = [&](const Token& token) {
    if (std::find(names.begin(), names.end(), token.source) == names.end()) {
      names.push_back(token.source);
    }
  };
  Lexer lexer(text);
  Token beforeLast;
  Token last;
  for (Token token = lexer.next(); token.kind != Token::Kind::kEnd; token = lexer.next()) {
    const bool asked = isOperator(token.kind) || token.kind == Token::Kind::kOpenBracket;
    if (asked && last.kind == Token::Kind::kWord) note(last);
    if (isFunction(beforeLast) && last.kind == Token::Kind::kOpenGroup) note(token);
    beforeLast = std::exchange(last, token);
  }
  return names;
}

/// A name without the prefix that many share, so that only the rest is compared.
std::string_view withoutPrefix(std::string_view name) {
  for (const std::string_view prefix : {"kMDItem", "_kMDItem", "com_apple_mail_"}) {
    const std::string_view start = name.substr(0, prefix.size());
    if (name.size() > prefix.size() && equalsIgnoringAsciiCase(start, prefix)) {
      return name.substr(prefix.size());
    }
  }
  return name;
}

/// The name or alias that `name` may have been meant to be; empty when none is near.
std::string_view nearestAttribute(std::string_view name) {
  std::vector<std::string_view> names;
  std::vector<std::string_view> compared;
  const auto add = [&](std::string_view known) {
    names.push_back(known);
    compared.push_back(withoutPrefix(known));
  };
  for (const AttributeInfo& info : attributes()) {
    if (!info.alias.empty()) add(info.alias);
    add(info.name);
  }
  const std::string_view rest = nearestName(withoutPrefix(name), compared);
  if (rest.empty()) return {};
  // Of those that differ in their prefix alone, the one that was begun is meant.
  std::vector<std::string_view> alike;
  for (const std::string_view known : names) {
    if (equalsIgnoringAsciiCase(withoutPrefix(known), rest)) alike.push_back(known);
  }
  const std::string_view nearest = nearestName(name, alike);
  return nearest.empty() ? alike.front() : nearest;
}

/// "; did you mean ...?" where there is a name to mean.
std::string nearestHint(std::string_view name) {
  const std::string_view near = nearestAttribute(name);
  return near.empty() ? std::string() : "; did you mean " + std::string(near) + "?";
}

std::string explainName(std::string_view name) {
  const std::string line = visible(name);
  if (name == "*") return line + ": any attribute but the text of the body, headers and places";
  if (name == "**") return line + ": any attribute but headers and places";
  const AttributeInfo* info = findAttribute(name);
  if (info == nullptr) return line + ": no message has it" + nearestHint(name);
  const std::string meaning = " (" + std::string(typeName(info->type)) +
                              "): " + std::string(info->meaning) +
                              (info->number ? "" : "; no message has it");
  return line + (info->name == name ? "" : " = " + std::string(info->name)) + meaning;
}

// --- values ---

std::string localIso(Date date, const QueryOptions& options) {
  const double seconds = std::floor(date.unixSeconds());
  const std::int64_t offset =
      options.utcOffsetAt ? options.utcOffsetAt(static_cast<std::int64_t>(seconds)) : 0;
  std::string text = Date::fromUnixSeconds(seconds + static_cast<double>(offset)).iso8601();
  if (offset == 0) return text;
  text.back() = offset < 0 ? '-' : '+';
  const auto twoDigits = [&](std::int64_t number) {
    text += static_cast<char>('0' + number / 10);
    text += static_cast<char>('0' + number % 10);
  };
  const std::int64_t minutes = std::abs(offset) / 60;
  twoDigits(minutes / 60);
  text += ':';
  twoDigits(minutes % 60);
  return text;
}

std::string visibleInQuotes(const std::string& text) { return "\"" + visible(text) + "\""; }

/// What of a value is compared: capitals and accents.
std::string countedText(Modifiers modifiers) {
  const bool capitals = !modifiers.has(Modifiers::kCase);
  const bool accents = !modifiers.has(Modifiers::kDiacritics);
  if (capitals && accents) return "; capitals and accents count (add cd to ignore them)";
  if (capitals) return "; capitals count, accents do not";
  if (accents) return "; accents count, capitals do not";
  return "; capitals and accents do not count";
}

/// "begins with", "contains" and so on, and what.
std::string wholeText(std::string pattern) {
  const auto isPlain = [](std::string_view text) {
    return text.find_first_of("*?") == std::string_view::npos;
  };
  if (isPlain(pattern)) {
    return "is, as a whole, " + visibleInQuotes(pattern) + " (for a part of it write \"*...*\")";
  }
  const bool openStart = pattern.front() == '*';
  const bool openEnd = pattern.size() > 1 && pattern.back() == '*';
  const std::string inner =
      pattern.substr(openStart ? 1 : 0, pattern.size() - (openStart ? 1 : 0) - (openEnd ? 1 : 0));
  if (!isPlain(inner)) return "is, as a whole, like " + visibleInQuotes(pattern);
  if (openStart && openEnd) return "contains " + visibleInQuotes(inner);
  return (openStart ? "ends with " : "begins with ") + visibleInQuotes(inner);
}

std::string wordsText(const TextMatcher& text) {
  if (text.patterns().empty()) return "has no word in it, so it never matches";
  if (text.patterns().size() > 1) {
    std::string result;
    for (const Pattern& pattern : text.patterns()) {
      result +=
          (result.empty() ? "has each of the words " : ", ") + visibleInQuotes(pattern.text());
    }
    return result;
  }
  const std::string pattern = text.patterns().front().text();
  const bool several = pattern.find(' ') != std::string::npos;
  return (several ? "has, one after the other, the words " : "has the word ") +
         visibleInQuotes(pattern);
}

/// Explains one predicate after the other.
class PredicateWriter {
 public:
  explicit PredicateWriter(const QueryOptions* options) : options_(options) {}

  void walk(const Node& node) { std::visit(*this, node.predicate); }

  void operator()(const Constant& node) {
    head(node.value ? "true" : "false");
    body(node.value ? "every message" : "no message");
  }
  void operator()(const Not& node) { walk(*node.operand); }
  void operator()(const And& node) { walkAll(node.operands); }
  void operator()(const Or& node) { walkAll(node.operands); }

  void operator()(const Comparison& node) {
    head(node.attribute.name + " " + std::string(operatorText(node.op)) + " " +
         visible(node.value));
    const bool negated = node.op == Operator::kNotEqual;
    std::string why = whyUnknown(node.attribute);
    const bool presence = isEquality(node.op) && node.value.isPresence;
    if (why.empty() && !presence) why = neverHolds(node);
    if (!why.empty() && negated) return body("true of every message: " + why);
    if (!why.empty()) return doubt(why);
    if (presence) return body(negated ? "messages without it" : "messages that have it");
    body(meaning(node.attribute, node.op, node.value));
    if (negated) body("negated: every other message, those without it included");
  }

  void operator()(const InRange& node) {
    const Bounds& bounds = *node.bounds;
    head("InRange " + node.attribute.name + " " + visible(bounds.low) + " " + visible(bounds.high));
    if (const std::string why = whyUnknown(node.attribute); !why.empty()) return doubt(why);
    for (const Literal* bound : {&bounds.low, &bounds.high}) {
      const std::string why = neverOrdered(node.attribute, *bound);
      if (!why.empty()) return doubt(why);
    }
    if (isDate(node.attribute)) {
      if (bounds.low.time->begin > bounds.high.time->begin) return doubt(emptyRange(bounds));
      body("from " + local(bounds.low.time->begin) + " to " + local(bounds.high.time->begin) +
           ", both included");
    } else if (bounds.low.number.numberValue() > bounds.high.number.numberValue()) {
      doubt(emptyRange(bounds));
    } else {
      body("both included");
    }
  }

  void operator()(const FieldMatch& node) {
    head("FieldMatch " + node.attribute.name);
    if (const std::string why = whyUnknown(node.attribute); !why.empty()) return doubt(why);
    for (const Literal& value : node.values) {
      const Comparison one{node.attribute, Operator::kEqual, value};
      const std::string why = value.isPresence ? std::string() : neverHolds(one);
      if (!why.empty()) {
        doubt(why);
      } else {
        body("or " + (value.isPresence ? "has it" : meaning(node.attribute, one.op, value)));
      }
    }
  }

  std::string text;
  std::vector<std::string> found;

 private:
  static bool isEquality(Operator op) {
    return op == Operator::kEqual || op == Operator::kNotEqual;
  }

  void walkAll(const std::vector<Node>& nodes) {
    for (const Node& node : nodes) walk(node);
  }
  void head(const std::string& line) { text += line + "\n"; }
  void body(const std::string& line) { text += "  " + line + "\n"; }
  void doubt(const std::string& why) {
    body("never true: " + why);
    if (std::find(found.begin(), found.end(), why) == found.end()) found.push_back(why);
  }

  static std::string shownValue(const Literal& literal) { return visible(literal.source); }

  std::string local(Date date) const {
    return options_ == nullptr ? date.iso8601() : localIso(date, *options_);
  }

  static const AttributeInfo* infoOf(const AttributeRef& attribute) {
    return attribute.scope == AttributeRef::Scope::kNamed ? findAttribute(attribute.name) : nullptr;
  }
  static bool isDate(const AttributeRef& attribute) {
    const AttributeInfo* info = infoOf(attribute);
    return info != nullptr && info->type == AttributeType::kDate;
  }

  /// Why no message has the attribute; empty when some can.
  static std::string whyUnknown(const AttributeRef& attribute) {
    if (attribute.scope != AttributeRef::Scope::kNamed) return {};
    const AttributeInfo* info = infoOf(attribute);
    if (info == nullptr) {
      return "no message has " + visible(attribute.name) + nearestHint(attribute.name);
    }
    if (info->number) return {};
    return "no message has " + attribute.name + " (" + std::string(info->source) + ")";
  }

  /// Why a comparison for equality or order holds for no value of the attribute; empty otherwise.
  static std::string neverHolds(const Comparison& node) {
    if (!isEquality(node.op)) return neverOrdered(node.attribute, node.value);
    const AttributeInfo* info = infoOf(node.attribute);
    if (info == nullptr) return {};
    const std::string name(info->name);
    const std::string value = shownValue(node.value);
    switch (info->type) {
      case AttributeType::kString:
      case AttributeType::kStrings:
        return node.value.text ? std::string() : name + " is text, " + value + " a time";
      case AttributeType::kNumber:
      case AttributeType::kDate:
        return neverOrdered(node.attribute, node.value);
      case AttributeType::kBoolean:
        if (node.value.boolean || !node.value.number.isNull()) return {};
        return name + " is true or false, " + value + " neither";
      case AttributeType::kDictionary:
      case AttributeType::kDatas:
        break;
    }
    return name + " can only be asked for with == \"*\" or != \"*\"";
  }

  static std::string neverOrdered(const AttributeRef& attribute, const Literal& literal) {
    const AttributeInfo* info = infoOf(attribute);
    if (info == nullptr) return {};
    const std::string name(info->name);
    const bool isNumber = !literal.number.isNull();
    switch (info->type) {
      case AttributeType::kNumber:
        return isNumber || literal.time
                   ? std::string()
                   : name + " is a number, " + shownValue(literal) + " is none";
      case AttributeType::kBoolean:
        return isNumber ? std::string() : name + " is compared with 0 and 1";
      case AttributeType::kDate:
        if (literal.time) return {};
        return name + " is a date, " + shownValue(literal) +
               " is none; write YYYY-MM-DD, YYYY-MM-DDTHH:MM or $time.today";
      case AttributeType::kString:
      case AttributeType::kStrings:
      case AttributeType::kDictionary:
      case AttributeType::kDatas:
        break;
    }
    return name + " is no number and no date, so it has no order; use == with * in the value";
  }

  static std::string emptyRange(const Bounds& bounds) {
    return shownValue(bounds.low) + " lies above " + shownValue(bounds.high);
  }

  std::string meaning(const AttributeRef& attribute, Operator op, const Literal& literal) const {
    if (isDate(attribute)) return dateMeaning(op, *literal.time);
    const AttributeInfo* info = infoOf(attribute);
    const bool isText = info == nullptr || info->type == AttributeType::kString ||
                        info->type == AttributeType::kStrings;
    if (!isText || !literal.text) return "compared as a number";
    return textMeaning(*literal.text, attribute.name == kTextContentAttribute);
  }

  static std::string textMeaning(const TextMatcher& matcher, bool byWords) {
    const Modifiers modifiers = matcher.modifiers();
    const bool words =
        byWords || modifiers.has(Modifiers::kWords) || modifiers.has(Modifiers::kTokens);
    return (words ? wordsText(matcher) : wholeText(matcher.patterns().front().text())) +
           countedText(modifiers);
  }

  std::string dateMeaning(Operator op, const TimeSpan& time) const {
    const std::string begin = local(time.begin);
    switch (op) {
      case Operator::kEqual:
      case Operator::kNotEqual:
        return time.isPeriod ? "from " + begin + " up to, not including, " + local(time.end)
                             : "at " + begin + " exactly";
      case Operator::kLess:
        return "before " + begin;
      case Operator::kLessOrEqual:
        return "at " + begin + " or before";
      case Operator::kGreater:
        return "after " + begin;
      case Operator::kGreaterOrEqual:
        return "at " + begin + " or after";
    }
    return {};
  }

  const QueryOptions* const options_;
};

}  // namespace

std::string explainAttributes(const Query& query) {
  std::string result;
  for (const std::string_view name : writtenNames(query.text())) result += explainName(name) + "\n";
  return result;
}

std::string explainPredicates(const Query& query, const QueryOptions& options) {
  PredicateWriter writer(&options);
  writer.walk(query.root());
  return std::move(writer.text);
}

std::vector<std::string> doubts(const Query& query) {
  PredicateWriter writer(nullptr);
  writer.walk(query.root());
  return std::move(writer.found);
}

}  // namespace thmp::query
