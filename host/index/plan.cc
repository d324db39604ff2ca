// SPDX-License-Identifier: Apache-2.0
#include "host/index/plan.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <functional>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/index/WordTable.h"
#include "host/index/words.h"
#include "host/query/attributes.h"
#include "host/query/dump.h"
#include "host/query/evaluator.h"
#include "host/query/fold.h"

namespace thmp {

namespace {

using query::AttributeRef;
using query::Comparison;
using query::FieldMatch;
using query::InRange;
using query::Literal;
using query::Modifiers;
using query::Node;
using query::Operator;
using query::Pattern;

// More words than this that a wildcard could mean, and looking at the messages is as quick.
constexpr std::size_t kMostWords = 2'000;

// A comparison, range or field match, taken apart.
struct Predicate {
  const Node& node;
  const AttributeRef& attribute;
  Operator op = Operator::kEqual;
  std::vector<const Literal*> literals;
  bool isNegated = false;
};

std::optional<Predicate> predicateOf(const Node& node) {
  if (const auto* comparison = std::get_if<Comparison>(&node.predicate)) {
    const bool isNegated = comparison->op == Operator::kNotEqual;
    return Predicate{node,
                     comparison->attribute,
                     isNegated ? Operator::kEqual : comparison->op,
                     {&comparison->value},
                     isNegated};
  }
  if (const auto* range = std::get_if<InRange>(&node.predicate)) {
    return Predicate{node,
                     range->attribute,
                     Operator::kGreaterOrEqual,
                     {&range->bounds->low, &range->bounds->high},
                     false};
  }
  if (const auto* match = std::get_if<FieldMatch>(&node.predicate)) {
    Predicate predicate{node, match->attribute, Operator::kEqual, {}, false};
    for (const Literal& literal : match->values) predicate.literals.push_back(&literal);
    return predicate;
  }
  return std::nullopt;
}

// How a predicate is answered, the ways that cost least first.
enum class Way : std::uint8_t {
  kNothing,     // it is true of no message
  kEverything,  // it is true of every message
  kEqualTexts,
  kIdentifiers,
  kTexts,
  kWords,
  kNumbers,
  kShapes,
  kSubjects,
  kAny,
  kID,
  kScan,
};

bool isByWords(const Literal& literal) {
  return literal.text && (literal.text->modifiers().has(Modifiers::kWords) ||
                          literal.text->modifiers().has(Modifiers::kTokens));
}

bool areTexts(const Predicate& predicate) {
  return predicate.op == Operator::kEqual &&
         std::all_of(predicate.literals.begin(), predicate.literals.end(),
                     [](const Literal* literal) { return literal->text.has_value(); });
}

// Whole texts without wildcards.
bool areEqualTexts(const Predicate& predicate) {
  return areTexts(predicate) && std::all_of(predicate.literals.begin(), predicate.literals.end(),
                                            [](const Literal* literal) {
                                              return !isByWords(*literal) &&
                                                     literal->text->patterns()[0].isLiteral();
                                            });
}

bool isPresence(const Predicate& predicate) {
  return predicate.literals.size() == 1 && predicate.literals[0]->isPresence;
}

// A text can make it true, and only a text.
Way wayForTexts(const Predicate& predicate, Way way) {
  if (predicate.op != Operator::kEqual) return Way::kNothing;
  const bool isAnyValue = std::any_of(predicate.literals.begin(), predicate.literals.end(),
                                      [](const Literal* literal) { return literal->isPresence; });
  return isAnyValue ? Way::kScan : way;
}

// Numbers and dates that no column has could match as well.
bool mayBeNumbers(const Predicate& predicate) {
  return std::any_of(predicate.literals.begin(), predicate.literals.end(),
                     [](const Literal* literal) {
                       return !literal->number.isNull() || literal->time || literal->boolean;
                     });
}

Way wayForAny(const Predicate& predicate) {
  if (isPresence(predicate)) {
    return predicate.op == Operator::kEqual ? Way::kEverything : Way::kNothing;
  }
  return areTexts(predicate) && !mayBeNumbers(predicate) ? Way::kAny : Way::kScan;
}

Way wayFor(const Predicate& predicate) {
  if (predicate.attribute.scope != AttributeRef::Scope::kNamed) return wayForAny(predicate);
  const auto key = keyNamed(predicate.attribute.name);
  if (!key) return Way::kNothing;
  if (*key == AttributeKey::kExternalID) return Way::kID;
  if (*key == AttributeKey::kTextContent) {
    return wayForTexts(predicate, Way::kWords);
  }
  switch (Columns::kindOf(*key)) {
    case ColumnKind::kShape:
      return Way::kShapes;
    case ColumnKind::kNumber:
      return Way::kNumbers;
    case ColumnKind::kTerms:
      return areEqualTexts(predicate) ? Way::kEqualTexts : Way::kTexts;
    case ColumnKind::kSubject:
      return isPresence(predicate) ? Way::kSubjects : wayForTexts(predicate, Way::kSubjects);
    case ColumnKind::kIdentifier:
      return isPresence(predicate) || areEqualTexts(predicate) ? Way::kIdentifiers : Way::kScan;
    case ColumnKind::kNone:
      break;
  }
  return Way::kScan;
}

std::string_view wayInWords(Way way) {
  switch (way) {
    case Way::kNothing:
      return "no message has it";
    case Way::kEverything:
      return "every message has it";
    case Way::kID:
      return "by the IDs alone";
    case Way::kShapes:
      return "by the kinds of messages: flags, mailboxes, types";
    case Way::kNumbers:
      return "by ranges in a column of numbers";
    case Way::kEqualTexts:
      return "looked up among the distinct texts";
    case Way::kTexts:
      return "by looking through the distinct texts";
    case Way::kSubjects:
      return "by searching the folded subjects; then each message found is looked at";
    case Way::kIdentifiers:
      return "by a column of hashes; then each message found is looked at";
    case Way::kWords:
      return "in the table of words; where case, diacritics or what stands between words count, "
             "each message found is looked at";
    case Way::kAny:
      return "in all columns and the table of words; then each message found is looked at";
    case Way::kScan:
      return "by looking at each message";
  }
  return "";
}

// What it costs to find its messages, in no unit: the ways stand in the order of that.
int costOf(const Node& node) {
  const auto costOfAll = [](const std::vector<Node>& nodes, bool isAny) {
    int cost = isAny ? 0 : INT_MAX;
    for (const Node& each : nodes) {
      cost = isAny ? std::max(cost, costOf(each)) : std::min(cost, costOf(each));
    }
    return cost;
  };
  if (const auto predicate = predicateOf(node)) return static_cast<int>(wayFor(*predicate));
  if (const auto* negation = std::get_if<query::Not>(&node.predicate)) {
    return costOf(*negation->operand);
  }
  if (const auto* both = std::get_if<query::And>(&node.predicate)) {
    return costOfAll(both->operands, /*isAny=*/false);
  }
  if (const auto* any = std::get_if<query::Or>(&node.predicate)) {
    return costOfAll(any->operands, /*isAny=*/true);
  }
  return 0;
}

// Every message of which it may be true, and those of them of which it may not.
struct Found {
  RowSet rows;
  RowSet doubtful;

  static Found inDoubt(const RowSet& rows) { return {rows, rows}; }
  RowSet certain() const {
    RowSet certain = rows;
    certain -= doubtful;
    return certain;
  }
};

class Planner {
 public:
  explicit Planner(const PlanInput& input)
      : columns_(input.columns),
        pool_(input.pool),
        reader_(input.reader),
        present_(columns_.present()) {}

  const RowSet& present() const { return present_; }
  int failure() const { return failure_; }

  Found find(const Node& node) {
    if (const auto predicate = predicateOf(node)) return find(*predicate);
    if (const auto* constant = std::get_if<query::Constant>(&node.predicate)) {
      return constant->value ? everything() : Found{};
    }
    if (const auto* negation = std::get_if<query::Not>(&node.predicate)) {
      return complement(find(*negation->operand));
    }
    if (const auto* both = std::get_if<query::And>(&node.predicate)) return intersection(*both);
    return unionOf(std::get<query::Or>(node.predicate));
  }

 private:
  Found everything() const { return {*within_, {}}; }
  Found unknown() const { return Found::inDoubt(*within_); }

  Found complement(const Found& found) const {
    RowSet rows = *within_;
    rows -= found.certain();
    RowSet doubtful = found.doubtful;
    doubtful &= rows;
    return {std::move(rows), std::move(doubtful)};
  }

  // What costs least comes first, and what follows is asked about the rows that are left.
  Found intersection(const query::And& node) {
    std::vector<std::pair<int, const Node*>> operands;
    operands.reserve(node.operands.size());
    for (const Node& operand : node.operands) operands.emplace_back(costOf(operand), &operand);
    std::stable_sort(operands.begin(), operands.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    const RowSet* outer = within_;
    Found all = everything();
    for (const auto& [cost, operand] : operands) {
      within_ = &all.rows;
      const Found found = find(*operand);
      all = intersection(std::move(all), found);
      if (all.rows.empty()) break;
    }
    within_ = outer;
    return all;
  }

  static Found intersection(Found a, const Found& b) {
    a.rows &= b.rows;
    a.doubtful |= b.doubtful;
    a.doubtful &= a.rows;
    return a;
  }

  Found unionOf(const query::Or& node) {
    Found any;
    for (const Node& operand : node.operands) any = unionOf(std::move(any), find(operand));
    return any;
  }

  static Found unionOf(Found a, const Found& b) {
    RowSet certain = a.certain();
    certain |= b.certain();
    a.rows |= b.rows;
    a.doubtful |= b.doubtful;
    a.doubtful -= certain;
    return a;
  }

  Found find(const Predicate& predicate) {
    Found found = findPositive(predicate);
    return predicate.isNegated ? complement(found) : found;
  }

  Found findPositive(const Predicate& predicate) {
    const auto key = keyNamed(predicate.attribute.name);
    switch (wayFor(predicate)) {
      case Way::kNothing:
        return {};
      case Way::kEverything:
        return everything();
      case Way::kID:
        return byID(predicate);
      case Way::kShapes:
        return {byShapes(predicate, *key), {}};
      case Way::kNumbers:
        return {
            columns_.rowsWithNumber(*key, breaksOf(predicate),
                                    [&](const Value& number) { return holds(predicate, number); }),
            {}};
      case Way::kEqualTexts:
      case Way::kTexts:
        return byTexts(predicate, columns_.terms(*key));
      case Way::kSubjects:
        return bySubject(predicate);
      case Way::kIdentifiers:
        return byIdentifier(predicate);
      case Way::kWords:
        return byWords(predicate, WordLookup::Where::kText);
      case Way::kAny:
        return byAny(predicate);
      case Way::kScan:
        break;
    }
    return unknown();
  }

  bool holds(const Predicate& predicate, const Value& value) {
    return query::valueHolds(predicate.node, value, /*isContent=*/false, scratch_);
  }

  // Shapes are many, the texts of one attribute few.
  RowSet byShapes(const Predicate& predicate, AttributeKey key) {
    std::unordered_map<std::string_view, bool> known;
    return columns_.rowsOfShapes(*within_, pool_, [&](const ValuePool::Entry& shape) {
      const auto found = std::find(shape.keys.begin(), shape.keys.end(), key);
      if (found == shape.keys.end()) return holdsInShape(predicate, Value());
      // The pool keeps what is viewed.
      const Dictionary attributes = *shape.value.asDictionary();
      const Value& value = attributes.begin()[found - shape.keys.begin()].value;
      const auto text = value.asText();
      if (!text) return holdsInShape(predicate, value);
      const auto [at, isNew] = known.try_emplace(*text);
      if (isNew) at->second = holdsInShape(predicate, value);
      return at->second;
    });
  }

  bool holdsInShape(const Predicate& predicate, const Value& value) {
    const auto array = value.asArray();
    if (!array) return holds(predicate, value);
    return std::any_of(array->begin(), array->end(),
                       [&](const Value& element) { return holds(predicate, element); });
  }

  Found byID(const Predicate& predicate) {
    Found found;
    within_->forEachDescending([&](Row row) {
      if (holds(predicate, Value(std::to_string(row)))) found.rows.insert(row);
      return true;
    });
    return found;
  }

  static std::vector<double> breaksOf(const Predicate& predicate) {
    std::vector<double> breaks;
    for (const Literal* literal : predicate.literals) {
      if (const auto number = literal->number.numberValue()) breaks.push_back(*number);
      if (literal->time) {
        breaks.push_back(literal->time->begin.secondsSinceReference);
        breaks.push_back(literal->time->end.secondsSinceReference);
      }
    }
    return breaks;
  }

  Found byTexts(const Predicate& predicate, const TermColumn& texts) {
    if (isPresence(predicate)) {
      return predicate.op == Operator::kEqual ? Found{texts.present(), {}} : Found{};
    }
    const auto isMatch = [&](const Text& text) { return holds(predicate, Value(text)); };
    if (!areEqualTexts(predicate)) return {texts.rowsWith(isMatch), {}};
    Found found;
    for (const Literal* literal : predicate.literals) {
      found.rows |= texts.rowsLike(literal->text->patterns()[0].literal(), isMatch);
    }
    return found;
  }

  // What a text must have in it to match, for each pattern of each literal.
  Found bySubject(const Predicate& predicate) {
    if (isPresence(predicate)) {
      return predicate.op == Operator::kEqual ? Found{columns_.subjects().rowsWith({}), {}}
                                              : Found{};
    }
    RowSet found;
    for (const Literal* literal : predicate.literals) {
      if (!literal->text) continue;  // such as a time, which no text equals
      RowSet rows = columns_.subjects().rowsWith({});
      for (const Pattern& pattern : literal->text->patterns()) {
        const std::string needle = query::foldText(pattern.longestLiteral(), kWordFolding);
        if (!needle.empty()) rows &= columns_.subjects().rowsWith(needle);
      }
      found |= rows;
    }
    return Found::inDoubt(found);
  }

  Found byIdentifier(const Predicate& predicate) {
    if (isPresence(predicate)) {
      return predicate.op == Operator::kEqual ? Found{columns_.rowsWithIdentifier({}), {}}
                                              : Found{};
    }
    RowSet found;
    for (const Literal* literal : predicate.literals) {
      found |= columns_.rowsWithIdentifier(literal->text->patterns()[0].literal());
    }
    return Found::inDoubt(found);
  }

  Found byWords(const Predicate& predicate, WordLookup::Where where) {
    Found found;
    for (const Literal* literal : predicate.literals) {
      if (!literal->text) continue;
      const std::vector<Pattern>& patterns = literal->text->patterns();
      if (patterns.empty()) continue;  // says nothing, so nothing matches
      Found all = everything();
      const bool isFolded = literal->text->modifiers().has(Modifiers::kCase) &&
                            literal->text->modifiers().has(Modifiers::kDiacritics);
      for (const Pattern& pattern : patterns) {
        const Found one = byPattern(pattern, where);
        all = intersection(std::move(all), isFolded ? one : Found::inDoubt(one.rows));
      }
      found = unionOf(std::move(found), all);
    }
    return found;
  }

  Found byPattern(const Pattern& pattern, WordLookup::Where where) {
    const std::optional<std::string_view> prefix = pattern.prefix();
    if (!prefix && !pattern.isLiteral()) return byPartOfWord(pattern, where);
    const std::string_view literal = prefix.value_or(pattern.literal());
    WordLookup lookup;
    lookup.where = where;
    lookup.phrase = wordsOfPattern(literal);
    if (lookup.phrase.empty()) return unknown();
    // A prefix that ends between words asks for no more than the words before.
    lookup.isPrefix =
        prefix && query::foldText(literal, kWordFolding).ends_with(lookup.phrase.back());
    RowSet rows;
    if (!addRows(lookup, rows)) return unknown();
    RowSet doubtful;
    if (std::any_of(lookup.phrase.begin(), lookup.phrase.end(), isLong)) {
      if (!addRows(lookupOf(kUncovered, where), doubtful)) return unknown();
      rows |= doubtful;
    }
    if (lookup.phrase.size() > 1 || lookup.phrase[0] != literal) return Found::inDoubt(rows);
    if (lookup.isPrefix && mayEndInCharacter(literal) &&
        !addRows(lookupOf(kExpanded, where), doubtful)) {
      return unknown();
    }
    doubtful &= rows;
    return {std::move(rows), std::move(doubtful)};
  }

  static WordLookup lookupOf(std::string_view word, WordLookup::Where where) {
    return {where, {std::string(word)}, false};
  }

  static bool isLong(const std::string& word) { return word.size() > kLongestSure; }

  // Of ASCII, folding makes these out of the first part of another character.
  static bool mayEndInCharacter(std::string_view prefix) {
    constexpr std::string_view kBegins = "afs";
    const char last = prefix.back();
    return static_cast<unsigned char>(last) >= 0x80 || kBegins.find(last) != std::string_view::npos;
  }

  // Every message with a word that has the longest word of the pattern in it.
  Found byPartOfWord(const Pattern& pattern, WordLookup::Where where) {
    std::string part;
    for (std::string& word : wordsOfPattern(pattern.longestLiteral())) {
      if (word.size() > part.size()) part = std::move(word);
    }
    if (part.empty()) return unknown();
    std::vector<std::string> words;
    const bool readAll = noted(forEachWord(reader_, [&](std::string_view word) {
      if (word.find(part) != std::string_view::npos) words.emplace_back(word);
      return words.size() <= kMostWords;
    }));
    if (!readAll || words.size() > kMostWords) return unknown();
    words.emplace_back(kUncovered);
    RowSet rows;
    for (const std::string& word : words) {
      if (!addRows(lookupOf(word, where), rows)) return unknown();
    }
    return Found::inDoubt(rows);
  }

  bool noted(int code) {
    if (code != SQLITE_OK) failure_ = code;
    return code == SQLITE_OK;
  }

  bool addRows(const WordLookup& lookup, RowSet& rows) {
    return noted(findWords(reader_, lookup, [&rows](std::int64_t row) {
      if (row > 0 && row <= INT32_MAX) rows.insert(static_cast<Row>(row));
    }));
  }

  Found byAny(const Predicate& predicate) {
    RowSet rows = columns_.rowsOfShapes(*within_, pool_, [&](const ValuePool::Entry& shape) {
      const Dictionary attributes = shape.value.asDictionary().value_or(Dictionary());
      return std::any_of(attributes.begin(), attributes.end(), [&](const Dictionary::Entry& entry) {
        return query::isInAnyAttribute(entry.key) && holdsInShape(predicate, entry.value);
      });
    });
    for (const AttributeKey key : Columns::termAttributes()) {
      rows |= byTexts(predicate, columns_.terms(key)).rows;
    }
    rows |= bySubject(predicate).rows;
    // A text that is equal as a whole has all its words.
    rows |= (areEqualTexts(predicate) ? byIdentifier(predicate)
                                      : byWords(predicate, WordLookup::Where::kRest))
                .rows;
    if (predicate.attribute.scope == AttributeRef::Scope::kAnyAndContent) {
      rows |= byWords(predicate, WordLookup::Where::kText).rows;
    }
    return Found::inDoubt(rows);
  }

  const Columns& columns_;
  const ValuePool& pool_;
  Connection& reader_;
  int failure_ = SQLITE_OK;
  const RowSet present_;
  /// The rows that are asked about; of others, what is found does not count.
  const RowSet* within_ = &present_;
  query::FoldedText scratch_;
};

class PlanText {
 public:
  void write(const Node& node) {
    if (const auto predicate = predicateOf(node)) {
      line(sourceOf(*predicate) + ": " + std::string(wayInWords(wayFor(*predicate))) +
           (predicate->isNegated ? "; the rest is what counts" : ""));
    } else if (const auto* constant = std::get_if<query::Constant>(&node.predicate)) {
      line(constant->value ? "every message" : "no message");
    } else if (const auto* negation = std::get_if<query::Not>(&node.predicate)) {
      group("all but", {negation->operand.get()});
    } else if (const auto* both = std::get_if<query::And>(&node.predicate)) {
      group("what all of these have in common", addressesOf(both->operands));
    } else {
      group("what any of these finds", addressesOf(std::get<query::Or>(node.predicate).operands));
    }
  }

  std::string text;

 private:
  static std::vector<const Node*> addressesOf(const std::vector<Node>& nodes) {
    std::vector<const Node*> addresses;
    addresses.reserve(nodes.size());
    for (const Node& node : nodes) addresses.push_back(&node);
    return addresses;
  }

  static std::string sourceOf(const Predicate& predicate) {
    std::string source = predicate.attribute.name;
    if (const auto* comparison = std::get_if<Comparison>(&predicate.node.predicate)) {
      source += " " + std::string(query::operatorText(comparison->op));
    } else {
      source += std::holds_alternative<InRange>(predicate.node.predicate) ? " in" : " is one of";
    }
    for (const Literal* literal : predicate.literals) {
      source += " " + query::visible(*literal);
    }
    return source;
  }

  void group(const std::string& name, const std::vector<const Node*>& nodes) {
    line(name);
    depth_ += 2;
    for (const Node* node : nodes) write(*node);
    depth_ -= 2;
  }

  void line(const std::string& content) {
    text.append(depth_, ' ');
    text += content + "\n";
  }

  std::size_t depth_ = 0;
};

}  // namespace

Candidates findCandidates(const query::Query& query, const PlanInput& input) {
  Planner planner(input);
  Found found = planner.find(query.root());
  const RowSet irregular = input.columns.irregular();
  Candidates candidates{std::move(found.rows), std::move(found.doubtful), planner.failure()};
  candidates.rows |= irregular;
  candidates.rows &= planner.present();
  candidates.doubtful |= irregular;
  return candidates;
}

std::string describePlan(const query::Query& query) {
  PlanText plan;
  plan.write(query.root());
  return std::move(plan.text);
}

}  // namespace thmp
