// SPDX-License-Identifier: Apache-2.0
#include "host/query/parser.h"

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/query/attributes.h"
#include "host/query/characters.h"
#include "host/query/lexer.h"
#include "host/query/literal.h"

namespace thmp::query {

namespace {

using Kind = Token::Kind;

constexpr std::string_view kTimePrefix = "$time.";

bool isAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

bool isAttributeName(std::string_view word) {
  const auto begins = [](char c) { return isAsciiLetter(c) || c == '_' || c == ':'; };
  const auto continues = [&](char c) {
    return begins(c) || isAsciiDigit(c) || c == '.' || c == '-';
  };
  return !word.empty() && begins(word.front()) && std::all_of(word.begin(), word.end(), continues);
}

std::optional<Operator> operatorOf(Kind kind) {
  switch (kind) {
    case Kind::kEqual:
      return Operator::kEqual;
    case Kind::kNotEqual:
      return Operator::kNotEqual;
    case Kind::kLess:
      return Operator::kLess;
    case Kind::kLessOrEqual:
      return Operator::kLessOrEqual;
    case Kind::kGreater:
      return Operator::kGreater;
    case Kind::kGreaterOrEqual:
      return Operator::kGreaterOrEqual;
    default:
      return std::nullopt;
  }
}

bool isEquality(Operator op) { return op == Operator::kEqual || op == Operator::kNotEqual; }

/// What to write in place of a word that other languages have for an operator of logic.
std::string logicHint(std::string_view word) {
  if (equalsIgnoringAsciiCase(word, "and")) return "write && for \"and\"";
  if (equalsIgnoringAsciiCase(word, "or")) return "write || for \"or\"";
  if (equalsIgnoringAsciiCase(word, "not")) return "write ! for \"not\"";
  return {};
}

/// Recursive descent with one token of lookahead. Each rule returns nothing when it has failed, and
/// nothing is tried after that.
class Parser {
 public:
  Parser(std::string_view text, const QueryOptions& options)
      : text_(text), options_(options), lexer_(text) {
    advance();
  }

  std::optional<Node> wholeQuery();
  /// A $time expression and nothing else.
  std::optional<TimeSpan> wholeTime();

  const SyntaxError& error() const { return error_; }

 private:
  // Rules of the grammar.
  std::optional<Node> disjunction();
  std::optional<Node> conjunction();
  std::optional<Node> negation();
  std::optional<Node> primary();
  std::optional<Node> group();
  std::optional<Node> beginningWith(const Token& word);
  std::optional<Node> comparison(const Token& name);
  std::optional<Node> inRange();
  std::optional<Node> fieldMatch();
  std::optional<AttributeRef> attribute(const Token& word);
  std::optional<AttributeRef> attributeArgument();
  bool brackets(Modifiers* modifiers);
  std::optional<Literal> value(Modifiers modifiers, bool forText);
  std::optional<Literal> bound();
  bool trailingModifiers(std::size_t valueEnd, Modifiers* modifiers);
  std::optional<Literal> textLiteral(const Token& token, Modifiers modifiers, bool forText);
  std::optional<TimeSpan> time(const Token& word);
  std::optional<TimeSpan> isoTime(const Token& word);

  // Tokens.
  bool at(Kind kind) const { return current_.kind == kind; }
  void advance();
  Token take();
  bool takeIf(Kind kind);
  bool expect(Kind kind, std::string_view what);

  // Failing.
  std::nullopt_t fail(std::size_t offset, std::string message, std::string hint = {});
  std::nullopt_t failAsTooLong(std::size_t offset);
  std::nullopt_t failHere(std::string_view expected, std::string hint = {});
  bool atEndOfPredicate(std::string_view closing);

  std::string_view text_;
  const QueryOptions& options_;
  Lexer lexer_;
  Token current_;
  std::size_t takenEnd_ = 0;  // where the last token taken ends
  std::size_t tokens_ = 0;
  std::size_t depth_ = 0;
  SyntaxError error_;
};

// --- tokens and errors ---

void Parser::advance() {
  current_ = lexer_.next();
  if (!at(Kind::kEnd) && ++tokens_ > kMaxTokens) {
    current_.kind = Kind::kInvalid;
    failAsTooLong(current_.offset);
    return;
  }
  if (!at(Kind::kInvalid)) return;
  const SyntaxError& error = lexer_.error();
  fail(error.offset, error.message, error.hint);
}

Token Parser::take() {
  const Token token = current_;
  takenEnd_ = token.end();
  advance();
  return token;
}

bool Parser::takeIf(Kind kind) {
  if (!at(kind)) return false;
  take();
  return true;
}

bool Parser::expect(Kind kind, std::string_view what) {
  if (takeIf(kind)) return true;
  failHere(what);
  return false;
}

std::nullopt_t Parser::fail(std::size_t offset, std::string message, std::string hint) {
  // The lexer is one token ahead, so that its error can come before one further to the left.
  if (error_.message.empty() || offset < error_.offset) {
    error_ = {offset, std::move(message), std::move(hint)};
  }
  return std::nullopt;
}

std::nullopt_t Parser::failAsTooLong(std::size_t offset) {
  return fail(offset, "the query goes on after " + std::to_string(kMaxTokens) + " words and signs");
}

std::nullopt_t Parser::failHere(std::string_view expected, std::string hint) {
  const std::string found = at(Kind::kEnd) ? "the end" : inQuotes(current_.source);
  return fail(current_.offset, "expected " + std::string(expected) + ", found " + found,
              std::move(hint));
}

/// Whether a predicate may end here: before an operator of logic, `closing`, or the end. Where a
/// list or a group goes on is for the caller to see.
bool Parser::atEndOfPredicate(std::string_view closing) {
  if (at(Kind::kAnd) || at(Kind::kOr)) return true;
  if (at(Kind::kEnd) || at(Kind::kCloseGroup) || at(Kind::kComma)) return true;
  failHere("&&, || or " + std::string(closing), logicHint(current_.source));
  return false;
}

// --- predicates ---

std::optional<Node> Parser::wholeQuery() {
  if (at(Kind::kEnd)) return fail(current_.offset, "the query is empty");
  std::optional<Node> node = disjunction();
  if (!node) return std::nullopt;
  if (at(Kind::kCloseGroup)) return fail(current_.offset, "no group is open here");
  if (!at(Kind::kEnd)) return failHere("&&, || or the end", logicHint(current_.source));
  return node;
}

std::optional<Node> Parser::disjunction() {
  std::optional<Node> first = conjunction();
  if (!first || !at(Kind::kOr)) return first;
  Or node;
  node.operands.push_back(*std::move(first));
  while (takeIf(Kind::kOr)) {
    std::optional<Node> operand = conjunction();
    if (!operand) return std::nullopt;
    node.operands.push_back(*std::move(operand));
  }
  return Node{std::move(node)};
}

std::optional<Node> Parser::conjunction() {
  std::optional<Node> first = negation();
  if (!first || !at(Kind::kAnd)) return first;
  And node;
  node.operands.push_back(*std::move(first));
  while (takeIf(Kind::kAnd)) {
    std::optional<Node> operand = negation();
    if (!operand) return std::nullopt;
    node.operands.push_back(*std::move(operand));
  }
  return Node{std::move(node)};
}

std::optional<Node> Parser::negation() {
  if (!at(Kind::kNot)) return primary();
  if (depth_ == kMaxNesting) return fail(current_.offset, "groups and ! nest too deep here");
  take();
  ++depth_;
  std::optional<Node> operand = negation();
  --depth_;
  if (!operand) return std::nullopt;
  return Node{Not{std::make_unique<const Node>(*std::move(operand))}};
}

std::optional<Node> Parser::primary() {
  if (at(Kind::kOpenGroup)) return group();
  if (at(Kind::kWord)) return beginningWith(take());
  if (at(Kind::kString)) {
    return fail(current_.offset, "a value cannot stand alone or before its attribute",
                "write ATTRIBUTE == " + inQuotes(current_.content()));
  }
  return failHere("an attribute, a group or a function");
}

std::optional<Node> Parser::group() {
  if (depth_ == kMaxNesting) return fail(current_.offset, "groups and ! nest too deep here");
  const Token open = take();
  if (at(Kind::kCloseGroup)) return fail(open.offset, "this group is empty");
  ++depth_;
  std::optional<Node> node = disjunction();
  --depth_;
  if (!node) return std::nullopt;
  if (at(Kind::kEnd)) return fail(open.offset, "this group is not closed");
  if (!expect(Kind::kCloseGroup, "&&, || or )")) return std::nullopt;
  return node;
}

/// A constant, a function or a comparison, told apart by what follows its first word.
std::optional<Node> Parser::beginningWith(const Token& word) {
  if (operatorOf(current_.kind) || at(Kind::kOpenBracket)) return comparison(word);
  if (at(Kind::kOpenGroup)) {
    if (equalsIgnoringAsciiCase(word.source, "InRange")) return inRange();
    if (equalsIgnoringAsciiCase(word.source, "FieldMatch")) return fieldMatch();
  }
  const bool isTrue = equalsIgnoringAsciiCase(word.source, "true");
  if (isTrue || equalsIgnoringAsciiCase(word.source, "false")) return Node{Constant{isTrue}};
  if (std::string hint = logicHint(word.source); !hint.empty()) {
    return fail(word.offset, inQuotes(word.source) + " is no operator", std::move(hint));
  }
  if (at(Kind::kOpenGroup)) {
    return fail(word.offset, "there is no function " + inQuotes(word.source),
                "the functions are InRange and FieldMatch");
  }
  return failHere("an operator after " + inQuotes(word.source),
                  "write ATTRIBUTE == VALUE, for example kMDItemSubject == \"*word*\"cd");
}

std::optional<Node> Parser::comparison(const Token& name) {
  std::optional<AttributeRef> attr = attribute(name);
  Modifiers modifiers;
  if (!attr || !brackets(&modifiers)) return std::nullopt;
  const std::optional<Operator> op = operatorOf(current_.kind);
  if (!op) return failHere("an operator");
  take();
  if (!brackets(&modifiers)) return std::nullopt;
  std::optional<Literal> literal = value(modifiers, isEquality(*op));
  if (!literal) return std::nullopt;
  return Node{Comparison{*std::move(attr), *op, *std::move(literal)}};
}

std::optional<Node> Parser::inRange() {
  take();
  std::optional<AttributeRef> attr = attributeArgument();
  if (!attr || !expect(Kind::kComma, "a comma")) return std::nullopt;
  std::optional<Literal> low = bound();
  if (!low || !expect(Kind::kComma, "a comma")) return std::nullopt;
  std::optional<Literal> high = bound();
  if (!high || !expect(Kind::kCloseGroup, ")")) return std::nullopt;
  auto bounds = std::make_unique<const Bounds>(Bounds{*std::move(low), *std::move(high)});
  return Node{InRange{*std::move(attr), std::move(bounds)}};
}

std::optional<Node> Parser::fieldMatch() {
  take();
  std::optional<AttributeRef> attr = attributeArgument();
  Modifiers modifiers;
  if (!attr || !brackets(&modifiers)) return std::nullopt;
  FieldMatch node{*std::move(attr), {}};
  if (!at(Kind::kComma)) return failHere("a comma and a value");
  while (takeIf(Kind::kComma)) {
    std::optional<Literal> literal = value(modifiers, /*forText=*/true);
    if (!literal) return std::nullopt;
    node.values.push_back(*std::move(literal));
  }
  if (!expect(Kind::kCloseGroup, "a comma or )")) return std::nullopt;
  return Node{std::move(node)};
}

// --- attributes, modifiers, values ---

std::optional<AttributeRef> Parser::attribute(const Token& word) {
  if (word.source == "*") return AttributeRef{AttributeRef::Scope::kAny, "*"};
  if (word.source == "**") return AttributeRef{AttributeRef::Scope::kAnyAndContent, "**"};
  if (isAttributeName(word.source)) {
    return AttributeRef{AttributeRef::Scope::kNamed, std::string(canonicalName(word.source))};
  }
  const bool wild = word.source.find_first_of("*?") != std::string_view::npos;
  return fail(word.offset, inQuotes(word.source) + " is no attribute name",
              wild ? "a name has no wildcards; * alone means any attribute" : "");
}

std::optional<AttributeRef> Parser::attributeArgument() {
  if (!at(Kind::kWord)) return failHere("an attribute");
  return attribute(take());
}

/// Adds what stands in brackets here, if brackets stand here.
bool Parser::brackets(Modifiers* modifiers) {
  if (!takeIf(Kind::kOpenBracket)) return true;
  if (!at(Kind::kWord) || !modifiers->add(current_.source)) {
    failHere("modifiers", "the modifiers are c, d, w and t");
    return false;
  }
  take();
  return expect(Kind::kCloseBracket, "]");
}

std::optional<Literal> Parser::value(Modifiers modifiers, bool forText) {
  if (!at(Kind::kString) && !at(Kind::kWord)) return failHere("a value");
  const Token token = take();
  if (token.source.starts_with('$')) {
    const std::optional<TimeSpan> span = time(token);
    if (!span || !atEndOfPredicate("the end")) return std::nullopt;
    return makeTimeLiteral(text_.substr(token.offset, takenEnd_ - token.offset), *span);
  }
  if (!trailingModifiers(token.end(), &modifiers) || !atEndOfPredicate("the end")) {
    return std::nullopt;
  }
  // Each of its words becomes a pattern, and it has at most as many.
  if (modifiers.has(Modifiers::kTokens)) tokens_ += token.content().size() / 2;
  if (tokens_ > kMaxTokens) return failAsTooLong(token.offset);
  return textLiteral(token, modifiers, forText);
}

std::optional<Literal> Parser::bound() {
  if (!at(Kind::kString) && !at(Kind::kWord)) return failHere("a value");
  const Token token = take();
  if (!token.source.starts_with('$')) return textLiteral(token, {}, /*forText=*/false);
  const std::optional<TimeSpan> span = time(token);
  if (!span) return std::nullopt;
  return makeTimeLiteral(text_.substr(token.offset, takenEnd_ - token.offset), *span);
}

bool Parser::trailingModifiers(std::size_t valueEnd, Modifiers* modifiers) {
  if (!at(Kind::kWord)) return true;
  if (modifiers->add(current_.source)) {
    take();
    return true;
  }
  if (current_.offset > valueEnd) return true;
  fail(current_.offset, inQuotes(current_.source) + " are no modifiers",
       "the modifiers are c, d, w and t");
  return false;
}

/// A string may also say in its text what a $time expression says.
std::optional<Literal> Parser::textLiteral(const Token& token, Modifiers modifiers, bool forText) {
  Literal literal = makeLiteral(token, modifiers, forText, options_);
  const std::string text = unescaped(token.content());
  if (text.starts_with(kTimePrefix)) literal.time = Parser(text, options_).wholeTime();
  return literal;
}

// --- times ---

std::optional<TimeSpan> Parser::wholeTime() {
  if (!at(Kind::kWord) || !current_.source.starts_with(kTimePrefix)) return std::nullopt;
  const std::optional<TimeSpan> result = time(take());
  return at(Kind::kEnd) ? result : std::nullopt;
}

/// The time whose first word has been taken, with what stands in its parentheses.
std::optional<TimeSpan> Parser::time(const Token& word) {
  if (!word.source.starts_with(kTimePrefix)) {
    return fail(word.offset, inQuotes(word.source) + " is no time", "write \\$ for a $ itself");
  }
  const std::string_view name = word.source.substr(kTimePrefix.size());
  if (name == "iso") return isoTime(word);
  Token offset = word;
  std::string_view offsetText;
  if (takeIf(Kind::kOpenGroup)) {
    if (at(Kind::kWord)) {
      offset = take();
      offsetText = offset.source;
    }
    if (!expect(Kind::kCloseGroup, ")")) return std::nullopt;
  }
  std::string problem;
  const std::optional<TimeSpan> result = evaluateTime(name, offsetText, options_, &problem);
  if (!result) {
    return fail(offset.offset, std::move(problem), "times are " + std::string(timeNames()));
  }
  return result;
}

std::optional<TimeSpan> Parser::isoTime(const Token& word) {
  if (!at(Kind::kOpenGroup)) {
    return fail(word.offset, "$time.iso needs a time in parentheses",
                "write $time.iso(2024-12-31T23:59:59Z)");
  }
  take();
  if (!at(Kind::kWord) && !at(Kind::kString)) return failHere("an ISO 8601 time");
  const Token argument = take();
  const std::optional<TimeSpan> result = readIsoTime(unescaped(argument.content()), options_);
  if (!result) {
    return fail(argument.offset, inQuotes(argument.content()) + " is no ISO 8601 time",
                "write 2024-12-31 or 2024-12-31T23:59:59Z");
  }
  if (!expect(Kind::kCloseGroup, ")")) return std::nullopt;
  return result;
}

}  // namespace

std::optional<Query> parse(std::string_view text, const QueryOptions& options, SyntaxError* error) {
  Parser parser(text, options);
  std::optional<Node> root = parser.wholeQuery();
  if (root) return Query(std::string(text), *std::move(root));
  if (error != nullptr) *error = parser.error();
  return std::nullopt;
}

}  // namespace thmp::query
