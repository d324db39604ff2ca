// SPDX-License-Identifier: Apache-2.0
#include "host/query/evaluator.h"

#include <algorithm>
#include <compare>

#include "host/query/attributes.h"
#include "host/query/numbers.h"

namespace thmp::query {

namespace {

using Scope = AttributeRef::Scope;

/// Values that are never stored count as absent.
bool isStored(const Value& value) {
  if (const auto text = value.asText()) return !text->empty();
  return !value.isNull();
}

bool holds(Operator op, std::partial_ordering order) {
  switch (op) {
    case Operator::kEqual:
      return order == 0;
    case Operator::kNotEqual:
      return order != 0;
    case Operator::kLess:
      return order < 0;
    case Operator::kLessOrEqual:
      return order <= 0;
    case Operator::kGreater:
      return order > 0;
    case Operator::kGreaterOrEqual:
      return order >= 0;
  }
  return false;
}

/// A period counts as its first instant, except in an equality.
bool timeHolds(Operator op, double seconds, const TimeSpan& span) {
  if (op == Operator::kEqual) return span.contains(seconds);
  return holds(op, seconds <=> span.begin.secondsSinceReference);
}

bool numberHolds(Operator op, const Value& number, const Literal& literal) {
  if (literal.form == Literal::Form::kTime) {
    return timeHolds(op, number.numberValue().value_or(0), *literal.time);
  }
  return !literal.number.isNull() && holds(op, compareNumbers(number, literal.number));
}

bool booleanHolds(Operator op, const Value& boolean, const Literal& literal) {
  if (literal.form == Literal::Form::kNumber) {
    return holds(op, compareNumbers(boolean, literal.number));
  }
  return literal.boolean && holds(op, compareNumbers(boolean, Value(*literal.boolean)));
}

/// Whether the element stands in the relation `op` (never kNotEqual) to the literal.
bool elementHolds(Operator op, const Value& element, const Literal& literal, bool isContent,
                  FoldedText& scratch) {
  if (literal.isPresence) return op == Operator::kEqual;
  switch (element.kind()) {
    case Value::Kind::kText:
      // The body is compared by words even where the query does not say so: nobody means all of it.
      return op == Operator::kEqual && literal.text &&
             literal.text->matches(*element.asText(), isContent, scratch);
    case Value::Kind::kBoolean:
      return booleanHolds(op, element, literal);
    case Value::Kind::kInteger:
    case Value::Kind::kUnsigned:
    case Value::Kind::kReal:
      return numberHolds(op, element, literal);
    case Value::Kind::kDate:
      return literal.time && timeHolds(op, element.asDate()->secondsSinceReference, *literal.time);
    case Value::Kind::kNull:
    case Value::Kind::kData:
    case Value::Kind::kArray:
    case Value::Kind::kDictionary:
      return false;
  }
  return false;
}

bool rangeHolds(const InRange& node, const Value& element, bool isContent, FoldedText& scratch) {
  return elementHolds(Operator::kGreaterOrEqual, element, node.bounds->low, isContent, scratch) &&
         elementHolds(Operator::kLessOrEqual, element, node.bounds->high, isContent, scratch);
}

/// Evaluates one query for one message.
class Evaluation {
 public:
  explicit Evaluation(const MessageView& message) : message_(message) {}

  bool holdsFor(const Node& node) { return std::visit(*this, node.predicate); }

  bool operator()(const Constant& node) { return node.value; }
  bool operator()(const Not& node) { return !holdsFor(*node.operand); }
  bool operator()(const And& node) {
    return std::all_of(node.operands.begin(), node.operands.end(),
                       [this](const Node& operand) { return holdsFor(operand); });
  }
  bool operator()(const Or& node) {
    return std::any_of(node.operands.begin(), node.operands.end(),
                       [this](const Node& operand) { return holdsFor(operand); });
  }
  bool operator()(const Comparison& node) {
    if (node.op == Operator::kNotEqual)
      return !satisfies(node.attribute, Operator::kEqual, node.value);
    return satisfies(node.attribute, node.op, node.value);
  }
  bool operator()(const InRange& node) {
    return anyElement(node.attribute, [&](const Value& element, bool isContent) {
      return rangeHolds(node, element, isContent, scratch_);
    });
  }
  bool operator()(const FieldMatch& node) {
    return std::any_of(node.values.begin(), node.values.end(), [&](const Literal& literal) {
      return satisfies(node.attribute, Operator::kEqual, literal);
    });
  }

 private:
  bool satisfies(const AttributeRef& attribute, Operator op, const Literal& literal);
  template <typename Predicate>
  bool anyElement(const AttributeRef& attribute, const Predicate& predicate);
  template <typename Predicate>
  bool anyElementOf(std::string_view name, const Predicate& predicate);

  const MessageView& message_;
  FoldedText scratch_;
};

/// Whether some element of the attribute, or of any attribute in its scope, stands in the relation
/// `op` (never kNotEqual) to the literal.
bool Evaluation::satisfies(const AttributeRef& attribute, Operator op, const Literal& literal) {
  if (literal.isPresence) {
    if (op != Operator::kEqual) return false;
    if (attribute.scope != Scope::kNamed) return true;
  }
  return anyElement(attribute, [&](const Value& element, bool isContent) {
    return elementHolds(op, element, literal, isContent, scratch_);
  });
}

template <typename Predicate>
bool Evaluation::anyElement(const AttributeRef& attribute, const Predicate& predicate) {
  if (attribute.scope == Scope::kNamed) return anyElementOf(attribute.name, predicate);
  bool found = false;
  message_.forEachAttributeName([&](std::string_view name) {
    found = isInAnyAttribute(name) && anyElementOf(name, predicate);
    return !found;
  });
  if (found || attribute.scope == Scope::kAny) return found;
  return anyElementOf(kTextContentAttribute, predicate);
}

template <typename Predicate>
bool Evaluation::anyElementOf(std::string_view name, const Predicate& predicate) {
  const bool isContent = name == kTextContentAttribute;
  const auto test = [&](const Value& element) {
    return isStored(element) && predicate(element, isContent);
  };
  const Value value = message_.attribute(name);
  const std::optional<Array> array = value.asArray();
  return array ? std::any_of(array->begin(), array->end(), test) : test(value);
}

}  // namespace

bool matches(const Query& query, const MessageView& message) {
  return matches(query.root(), message);
}

bool matches(const Node& node, const MessageView& message) {
  return Evaluation(message).holdsFor(node);
}

bool valueHolds(const Node& node, const Value& value, bool isContent, FoldedText& scratch) {
  if (!isStored(value)) return false;
  if (const auto* comparison = std::get_if<Comparison>(&node.predicate)) {
    const Operator op = comparison->op == Operator::kNotEqual ? Operator::kEqual : comparison->op;
    return elementHolds(op, value, comparison->value, isContent, scratch);
  }
  if (const auto* range = std::get_if<InRange>(&node.predicate)) {
    return rangeHolds(*range, value, isContent, scratch);
  }
  if (const auto* match = std::get_if<FieldMatch>(&node.predicate)) {
    return std::any_of(match->values.begin(), match->values.end(), [&](const Literal& literal) {
      return elementHolds(Operator::kEqual, value, literal, isContent, scratch);
    });
  }
  return false;
}

}  // namespace thmp::query
