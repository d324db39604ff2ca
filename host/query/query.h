// SPDX-License-Identifier: Apache-2.0
//
// A parsed query: a tree of predicates over a message's attributes. Immutable and cheap to copy;
// any number of threads may evaluate one query at the same time. All that can be worked out from
// the text alone has been: aliases are resolved, literals folded, times fixed.
//
// A tree nests no deeper than the groups of its text may, so it can be walked by recursion.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "base/value.h"
#include "host/query/match.h"
#include "host/query/time_expression.h"

namespace thmp::query {

/// Which attributes a predicate looks at.
struct AttributeRef {
  enum class Scope : std::uint8_t {
    kNamed,          // the one called `name`
    kAny,            // *: those of isInAnyAttribute()
    kAnyAndContent,  // **: and the text of the body
  };

  Scope scope = Scope::kNamed;
  std::string name;  // no alias; as written for the other scopes
};

enum class Operator : std::uint8_t {
  kEqual,
  kNotEqual,
  kLess,
  kLessOrEqual,
  kGreater,
  kGreaterOrEqual,
};

/// A value as the query gives it, in each of the readings that its text allows.
struct Literal {
  enum class Form : std::uint8_t { kString, kWord, kNumber, kTime };

  Form form = Form::kWord;
  bool isPresence = false;  // nothing but *
  std::string source;       // as it stands in the text, without modifiers
  Modifiers modifiers;

  Value number;                     // null when it does not read as a number
  std::optional<bool> boolean;      // true, yes, 1 and false, no, 0
  std::optional<TimeSpan> time;     // $time, ISO 8601 text, or a number of seconds since 2001
  std::optional<TextMatcher> text;  // only in == and !=, and not for a $time or for presence
};

struct Node;

struct Constant {
  bool value;
};
struct Not {
  std::unique_ptr<const Node> operand;
};
struct And {
  std::vector<Node> operands;  // two or more
};
struct Or {
  std::vector<Node> operands;  // two or more
};
struct Comparison {
  AttributeRef attribute;
  Operator op;
  Literal value;
};
struct Bounds {
  Literal low;
  Literal high;
};
struct InRange {
  AttributeRef attribute;
  std::unique_ptr<const Bounds> bounds;  // apart, so that nodes stay small
};
struct FieldMatch {
  AttributeRef attribute;
  std::vector<Literal> values;  // one or more
};

struct Node {
  std::variant<Constant, Not, And, Or, Comparison, InRange, FieldMatch> predicate;
};

class Query {
 public:
  /// `root` is the tree of `text`.
  Query(std::string text, Node root)
      : state_(std::make_shared<const State>(State{std::move(text), std::move(root)})) {}

  const Node& root() const { return state_->root; }
  std::string_view text() const { return state_->text; }

 private:
  struct State {
    std::string text;
    Node root;
  };
  std::shared_ptr<const State> state_;
};

/// The names of the attributes that a query looks at, without repeats, in the order of their bytes;
/// "*" and "**" for any attribute.
std::vector<std::string> attributesReferenced(const Query& query);

/// Whether the answer can depend on the text of the body.
bool needsTextContent(const Query& query);

/// "==", "<" and so on.
std::string_view operatorText(Operator op);

}  // namespace thmp::query
