// SPDX-License-Identifier: Apache-2.0
#include "host/query/dump.h"

#include "host/query/characters.h"
#include "host/query/lexer.h"

namespace thmp::query {

namespace {

std::string timeText(const Literal& literal) {
  if (literal.form != Literal::Form::kTime) return {};
  std::string result = " (" + literal.time->begin.iso8601();
  if (literal.time->isPeriod) result += " up to " + literal.time->end.iso8601();
  return result + ")";
}

std::string literalText(const Literal& literal) {
  std::string result = " " + visible(literal.source);
  if (!literal.modifiers.empty()) result += " [" + literal.modifiers.letters() + "]";
  return result + timeText(literal);
}

class TreeWriter {
 public:
  void write(const Node& node) { std::visit(*this, node.predicate); }

  void operator()(const Constant& node) { line(node.value ? "true" : "false"); }
  void operator()(const Not& node) {
    line("not");
    Indent indent(*this);
    write(*node.operand);
  }
  void operator()(const And& node) { operands("and", node.operands); }
  void operator()(const Or& node) { operands("or", node.operands); }
  void operator()(const Comparison& node) {
    line(node.attribute.name + " " + std::string(operatorText(node.op)) + literalText(node.value));
  }
  void operator()(const InRange& node) {
    line("InRange " + node.attribute.name + literalText(node.bounds->low) +
         literalText(node.bounds->high));
  }
  void operator()(const FieldMatch& node) {
    line("FieldMatch " + node.attribute.name);
    Indent indent(*this);
    for (const Literal& literal : node.values) line("value" + literalText(literal));
  }

  std::string text;

 private:
  struct Indent {
    explicit Indent(TreeWriter& tree) : writer(tree) { writer.depth_ += 2; }
    ~Indent() { writer.depth_ -= 2; }
    Indent(const Indent&) = delete;
    Indent& operator=(const Indent&) = delete;
    TreeWriter& writer;
  };

  void operands(const std::string& name, const std::vector<Node>& nodes) {
    line(name);
    Indent indent(*this);
    for (const Node& node : nodes) write(node);
  }
  void line(const std::string& content) {
    text.append(depth_, ' ');
    text += content + "\n";
  }

  std::size_t depth_ = 0;
};

std::string indented(const std::string& lines) {
  std::string result;
  for (std::size_t begin = 0; begin < lines.size();) {
    const std::size_t end = lines.find('\n', begin) + 1;
    result += "  " + lines.substr(begin, end - begin);
    begin = end;
  }
  return result;
}

}  // namespace

std::string visible(const Literal& literal) {
  const std::string letters = literal.modifiers.letters();
  const bool isQuoted = literal.source.ends_with('"') || literal.source.ends_with('\'');
  if (letters.empty() || isQuoted) return visible(literal.source) + letters;
  return visible(literal.source) + " [" + letters + "]";
}

std::string visible(std::string_view source) {
  constexpr std::string_view kHexDigits = "0123456789ABCDEF";
  std::string result;
  for (std::size_t position = 0; position < source.size();) {
    const char32_t c = decodeNext(source, position);
    if (c >= 0x20 && (c < 0x7F || c >= 0xA0)) {
      appendUtf8(c, result);
    } else {
      result += "\\u{";
      result.push_back(kHexDigits[c >> 4U]);
      result.push_back(kHexDigits[c & 0xFU]);
      result += "}";
    }
  }
  return result;
}

std::string dumpTokens(std::string_view text) {
  std::string result;
  Lexer lexer(text);
  for (Token token = lexer.next(); token.kind != Token::Kind::kEnd; token = lexer.next()) {
    result += std::to_string(token.offset) + " ";
    if (token.kind == Token::Kind::kInvalid) return result + lexer.error().message + "\n";
    result += std::string(kindName(token.kind)) + " " + visible(token.source) + "\n";
  }
  return result;
}

std::string dumpTree(const Query& query) {
  TreeWriter writer;
  writer.write(query.root());
  return writer.text;
}

std::string dump(const Query& query) {
  return "tokens\n" + indented(dumpTokens(query.text())) + "tree\n" + indented(dumpTree(query));
}

}  // namespace thmp::query
