// SPDX-License-Identifier: Apache-2.0
#include "host/query/query.h"

#include <algorithm>
#include <set>

#include "host/query/attributes.h"

namespace thmp::query {

namespace {

/// Gathers attribute names over a tree.
class NameCollector {
 public:
  void walk(const Node& node) { std::visit(*this, node.predicate); }

  void operator()(const Constant&) {}
  void operator()(const Not& node) { walk(*node.operand); }
  void operator()(const And& node) { walkAll(node.operands); }
  void operator()(const Or& node) { walkAll(node.operands); }
  template <typename Predicate>
  void operator()(const Predicate& node) {
    names.insert(node.attribute.name);
  }

  std::set<std::string> names;

 private:
  void walkAll(const std::vector<Node>& nodes) {
    for (const Node& node : nodes) walk(node);
  }
};

}  // namespace

std::vector<std::string> attributesReferenced(const Query& query) {
  NameCollector collector;
  collector.walk(query.root());
  return {collector.names.begin(), collector.names.end()};
}

bool needsTextContent(const Query& query) {
  const std::vector<std::string> names = attributesReferenced(query);
  return std::any_of(names.begin(), names.end(), [](const std::string& name) {
    return name == "**" || name == kTextContentAttribute;
  });
}

std::string_view operatorText(Operator op) {
  switch (op) {
    case Operator::kEqual:
      return "==";
    case Operator::kNotEqual:
      return "!=";
    case Operator::kLess:
      return "<";
    case Operator::kLessOrEqual:
      return "<=";
    case Operator::kGreater:
      return ">";
    case Operator::kGreaterOrEqual:
      return ">=";
  }
  return "";
}

}  // namespace thmp::query
