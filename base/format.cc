// SPDX-License-Identifier: Apache-2.0
//
// The interpreter takes a format apart directive by directive and never looks at the locale.
#include "base/format.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <vector>

namespace thmp {
namespace {

using Kind = Value::Kind;

constexpr std::size_t kMaxWidth = 1024;
constexpr std::size_t kMaxLength = std::size_t{64} << 10;

/// Text up to a length; what comes after is dropped.
class BoundedText {
 public:
  explicit BoundedText(std::size_t limit) : limit_(limit) {}
  bool full() const { return full_; }
  void append(std::string_view text) {
    if (full_) return;
    if (text.size() > limit_ - text_.size()) {
      full_ = true;
      text = text.substr(0, limit_ - text_.size());
    }
    text_ += text;
  }
  void append(std::size_t count, char c) { append(std::string(count, c)); }
  /// Gives up the text. A character cut in two by the limit is left out.
  std::string take() {
    if (full_) dropCutCharacter();
    return std::move(text_);
  }

 private:
  void dropCutCharacter() {
    std::size_t lead = text_.size();
    while (lead > 0 && text_.size() - lead < 3 && isContinuation(text_[lead - 1])) --lead;
    if (lead == 0 || isContinuation(text_[lead - 1])) return;
    const auto byte = static_cast<unsigned char>(text_[lead - 1]);
    const std::size_t size = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
    if (text_.size() - (lead - 1) < size) text_.resize(lead - 1);
  }
  static bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

  std::size_t limit_;
  std::string text_;
  bool full_ = false;
};

template <typename Number, typename... Options>
std::string numberText(Number number, Options... options) {
  std::array<char, kMaxWidth + 512> buffer;
  const auto result =
      std::to_chars(buffer.data(), buffer.data() + buffer.size(), number, options...);
  return {buffer.data(), result.ptr};
}

/// The shortest decimal form that reads back as the same number.
std::string realText(double real) {
  if (std::isnan(real)) return "nan";
  return numberText(real);
}

// ---- Descriptions of objects ----

void describeData(std::string_view bytes, BoundedText& out) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  out.append("<");
  for (std::size_t i = 0; i < bytes.size() && !out.full(); ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    const char digits[2] = {kDigits[byte >> 4], kDigits[byte & 0xF]};
    out.append({digits, 2});
  }
  out.append(">");
}

/// An array or dictionary that is being described, up to a member.
struct OpenContainer {
  std::optional<Array> array;
  std::optional<Dictionary> dictionary;
  std::size_t next = 0;

  std::size_t size() const { return array ? array->size() : dictionary->size(); }
};

/// Describes all but the members of an array or dictionary.
void describeShallow(const Value& value, BoundedText& out) {
  switch (value.kind()) {
    case Kind::kNull:
      return out.append("(null)");
    case Kind::kBoolean:
      return out.append(*value.asBoolean() ? "1" : "0");
    case Kind::kInteger:
      return out.append(numberText(*value.asInteger()));
    case Kind::kUnsigned:
      return out.append(numberText(*value.asUnsigned()));
    case Kind::kReal:
      return out.append(realText(*value.asReal()));
    case Kind::kDate:
      return out.append(value.asDate()->iso8601());
    case Kind::kData:
      return describeData(*value.asData(), out);
    case Kind::kText:
      return out.append(*value.asText());
    case Kind::kArray:
      return out.append("(");
    case Kind::kDictionary:
      return out.append("{");
  }
}

void describe(const Value& root, BoundedText& out) {
  std::vector<OpenContainer> open;
  const auto begin = [&](const Value& value) {
    describeShallow(value, out);
    if (value.kind() >= Kind::kArray) open.push_back({value.asArray(), value.asDictionary(), 0});
  };
  begin(root);
  while (!open.empty() && !out.full()) {
    OpenContainer& container = open.back();
    if (container.next == container.size()) {
      out.append(container.array ? ")" : "}");
      open.pop_back();
      continue;
    }
    const std::size_t i = container.next++;
    if (container.array) {
      if (i > 0) out.append(", ");
      begin((*container.array)[i]);
    } else {
      if (i > 0) out.append("; ");
      const Dictionary::Entry& entry = container.dictionary->begin()[i];
      out.append(entry.key);
      out.append(" = ");
      begin(entry.value);
    }
  }
}

// ---- Directives ----

/// A directive taken apart: "%", position, flags, width, precision, length modifier, conversion.
struct Directive {
  std::optional<std::size_t> position;  // from 1
  bool left = false;
  bool plus = false;
  bool space = false;
  bool alternate = false;
  bool zero = false;
  std::size_t width = 0;
  std::optional<std::size_t> precision;
  char conversion = '\0';
};

/// Reads the directives of one format; arguments for "*" are taken as they come.
class Interpreter {
 public:
  Interpreter(std::string_view format, std::span<const LogArg> arguments)
      : format_(format), arguments_(arguments) {}

  std::string run() {
    while (next_ < format_.size() && !out_.full()) {
      const std::size_t percent = std::min(format_.find('%', next_), format_.size());
      out_.append(format_.substr(next_, percent - next_));
      next_ = percent;
      if (next_ < format_.size()) interpretDirective();
    }
    return out_.take();
  }

 private:
  void interpretDirective();
  bool parse(Directive& directive);
  std::optional<std::size_t> parseNumber();
  std::optional<std::size_t> parsePosition();
  void parseFlags(Directive& directive);
  bool parseStar(std::int64_t& number);
  bool parseWidth(Directive& directive);
  bool parsePrecision(Directive& directive);
  const LogArg* takeArgument(std::optional<std::size_t> position);
  bool accept(char c);

  void format(const Directive& directive, const LogArg* argument);
  void formatObject(const Directive& directive, const LogArg* argument);
  bool formatInteger(const Directive& directive, const LogArg& argument);
  bool formatReal(const Directive& directive, const LogArg& argument);
  bool formatCharacter(const Directive& directive, const LogArg& argument);
  void putNumber(const Directive& directive, std::string_view sign, std::string digits,
                 bool mayFillWithZeros);
  void pad(const Directive& directive, std::string_view text);

  std::string_view format_;
  std::span<const LogArg> arguments_;
  std::size_t next_ = 0;
  std::size_t nextArgument_ = 0;
  BoundedText out_{kMaxLength};
};

bool isOneOf(char c, std::string_view set) { return set.find(c) != std::string_view::npos; }

/// An unknown directive stays as it is, and takes no arguments.
void Interpreter::interpretDirective() {
  const std::size_t start = next_;
  const std::size_t startArgument = nextArgument_;
  Directive directive;
  ++next_;
  if (!parse(directive)) {
    next_ = std::max(next_, start + 1);
    nextArgument_ = startArgument;
    return out_.append(format_.substr(start, next_ - start));
  }
  if (directive.conversion == '%') return out_.append("%");
  const LogArg* argument = takeArgument(directive.position);
  if (directive.conversion != 'n') format(directive, argument);
}

bool Interpreter::accept(char c) {
  if (next_ >= format_.size() || format_[next_] != c) return false;
  ++next_;
  return true;
}

/// Leaves off at what ends an unknown directive, so that a "%" there begins the next one.
bool Interpreter::parse(Directive& directive) {
  directive.position = parsePosition();
  if (directive.position == 0) return false;
  parseFlags(directive);
  if (!parseWidth(directive) || !parsePrecision(directive)) return false;
  while (next_ < format_.size() && isOneOf(format_[next_], "hlqjztL")) ++next_;
  if (next_ >= format_.size()) return false;
  directive.conversion = format_[next_];
  if (!isOneOf(directive.conversion, "@diuxXocsfgepn%")) return false;
  ++next_;
  return true;
}

/// Digits; numbers too large to matter are read as one.
std::optional<std::size_t> Interpreter::parseNumber() {
  constexpr std::size_t kLarge = 1'000'000;
  std::size_t number = 0;
  const std::size_t start = next_;
  for (; next_ < format_.size() && format_[next_] >= '0' && format_[next_] <= '9'; ++next_) {
    number = std::min(number * 10 + static_cast<std::size_t>(format_[next_] - '0'), kLarge);
  }
  if (next_ == start) return std::nullopt;
  return number;
}

/// "2$"; digits without "$" are left for the flags and the width.
std::optional<std::size_t> Interpreter::parsePosition() {
  const std::size_t start = next_;
  const std::optional<std::size_t> number = parseNumber();
  if (number && accept('$')) return number;
  next_ = start;
  return std::nullopt;
}

void Interpreter::parseFlags(Directive& directive) {
  for (; next_ < format_.size(); ++next_) {
    switch (format_[next_]) {
      case '-':
        directive.left = true;
        break;
      case '+':
        directive.plus = true;
        break;
      case ' ':
        directive.space = true;
        break;
      case '#':
        directive.alternate = true;
        break;
      case '0':
        directive.zero = true;
        break;
      case '\'':
        break;
      default:
        return;
    }
  }
}

/// The argument of a "*"; false for a position that cannot be. What is no number counts as 0.
bool Interpreter::parseStar(std::int64_t& number) {
  const std::optional<std::size_t> position = parsePosition();
  if (position == 0) return false;
  const LogArg* argument = takeArgument(position);
  number = 0;
  if (argument == nullptr) return true;
  if (const auto* integer = std::get_if<std::int64_t>(&argument->value())) number = *integer;
  if (const auto* large = std::get_if<std::uint64_t>(&argument->value())) {
    number = Value(*large).integerValue();
  }
  if (const auto* real = std::get_if<double>(&argument->value())) {
    number = Value(*real).integerValue();
  }
  if (const auto* object = std::get_if<Value>(&argument->value())) {
    if (object->isNumber()) number = object->integerValue();
  }
  return true;
}

bool Interpreter::parseWidth(Directive& directive) {
  constexpr auto kMax = static_cast<std::int64_t>(kMaxWidth);
  if (accept('*')) {
    std::int64_t number = 0;
    if (!parseStar(number)) return false;
    directive.left = directive.left || number < 0;
    number = std::clamp(number, -kMax, kMax);
    directive.width = static_cast<std::size_t>(number < 0 ? -number : number);
    return true;
  }
  directive.width = std::min(parseNumber().value_or(0), kMaxWidth);
  return true;
}

/// A negative precision from an argument is none.
bool Interpreter::parsePrecision(Directive& directive) {
  if (!accept('.')) return true;
  if (!accept('*')) {
    directive.precision = std::min(parseNumber().value_or(0), kMaxWidth);
    return true;
  }
  std::int64_t number = 0;
  if (!parseStar(number)) return false;
  if (number >= 0) {
    directive.precision = std::min(static_cast<std::size_t>(number), kMaxWidth);
  }
  return true;
}

const LogArg* Interpreter::takeArgument(std::optional<std::size_t> position) {
  const std::size_t index = position ? *position - 1 : nextArgument_++;
  return index < arguments_.size() ? &arguments_[index] : nullptr;
}

void Interpreter::format(const Directive& directive, const LogArg* argument) {
  const bool real = isOneOf(directive.conversion, "fge");
  const bool object = isOneOf(directive.conversion, "@s");
  const LogArg zero = real ? LogArg(0.0) : LogArg(0);
  if (argument == nullptr && !object) argument = &zero;
  if (object) return formatObject(directive, argument);
  if (real && formatReal(directive, *argument)) return;
  if (directive.conversion == 'c' && formatCharacter(directive, *argument)) return;
  if (isOneOf(directive.conversion, "diuxXop") && formatInteger(directive, *argument)) return;
  // An argument of another kind shows in its own form; a precision means nothing to it.
  Directive natural = directive;
  natural.precision.reset();
  formatObject(natural, argument);
}

/// Any argument in its natural form. The precision cuts texts, never within a character.
void Interpreter::formatObject(const Directive& directive, const LogArg* argument) {
  BoundedText text(directive.precision ? *directive.precision : kMaxLength);
  if (argument == nullptr) {
    text.append("(null)");
  } else if (const auto* object = std::get_if<Value>(&argument->value())) {
    describe(*object, text);
  } else if (const auto* integer = std::get_if<std::int64_t>(&argument->value())) {
    text.append(numberText(*integer));
  } else if (const auto* large = std::get_if<std::uint64_t>(&argument->value())) {
    text.append(numberText(*large));
  } else {
    text.append(realText(std::get<double>(argument->value())));
  }
  pad(directive, text.take());
}

/// False when the argument is no integer.
bool Interpreter::formatInteger(const Directive& directive, const LogArg& argument) {
  std::uint64_t magnitude = 0;
  bool negative = false;
  const bool decimal = isOneOf(directive.conversion, "diu");
  if (const auto* integer = std::get_if<std::int64_t>(&argument.value())) {
    // Hexadecimal and octal show the 64 bits of a negative number.
    negative = *integer < 0 && decimal;
    magnitude = static_cast<std::uint64_t>(*integer);
    if (negative) magnitude = 0 - magnitude;
  } else if (const auto* large = std::get_if<std::uint64_t>(&argument.value())) {
    magnitude = *large;
  } else {
    return false;
  }
  const bool octal = directive.conversion == 'o';
  std::string digits = numberText(magnitude, decimal ? 10 : octal ? 8 : 16);
  if (directive.precision) {
    if (magnitude == 0 && *directive.precision == 0) digits.clear();
    if (digits.size() < *directive.precision) {
      digits.insert(0, *directive.precision - digits.size(), '0');
    }
  }
  std::string sign;
  if (decimal && directive.conversion != 'u') {
    sign = negative ? "-" : directive.plus ? "+" : directive.space ? " " : "";
  } else if (negative) {
    sign = "-";
  } else if (octal && directive.alternate && !digits.starts_with('0')) {
    digits.insert(0, 1, '0');
  } else if (directive.conversion == 'p' ||
             (isOneOf(directive.conversion, "xX") && directive.alternate && magnitude != 0)) {
    sign = "0x";
  }
  if (directive.conversion == 'X') {
    for (char& c : digits) c = c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c;
    if (sign == "0x") sign = "0X";
  }
  putNumber(directive, sign, std::move(digits), !directive.precision);
  return true;
}

/// %g by C's rule, from the exponent that the number has after rounding.
std::string generalText(double magnitude, std::size_t precision, bool keepZeros) {
  const int digits = static_cast<int>(std::max<std::size_t>(precision, 1));
  if (!keepZeros) return numberText(magnitude, std::chars_format::general, digits);
  std::string text = numberText(magnitude, std::chars_format::scientific, digits - 1);
  const std::size_t mark = text.find('e');
  int exponent = 0;
  const char* first = text.data() + mark + (text[mark + 1] == '+' ? 2 : 1);
  std::from_chars(first, text.data() + text.size(), exponent);
  if (exponent >= -4 && exponent < digits) {
    return numberText(magnitude, std::chars_format::fixed, digits - 1 - exponent);
  }
  return text;
}

/// False when the argument is no real.
bool Interpreter::formatReal(const Directive& directive, const LogArg& argument) {
  const auto* real = std::get_if<double>(&argument.value());
  if (real == nullptr) return false;
  const double magnitude = std::fabs(*real);
  const bool negative = std::signbit(*real) && !std::isnan(*real);
  const std::size_t precision = directive.precision.value_or(6);
  const std::string_view sign = negative ? "-" : directive.plus ? "+" : directive.space ? " " : "";
  if (!std::isfinite(*real)) {
    putNumber(directive, sign, std::isnan(*real) ? "nan" : "inf", /*mayFillWithZeros=*/false);
    return true;
  }
  std::string digits;
  if (directive.conversion == 'g') {
    digits = generalText(magnitude, precision, directive.alternate);
  } else {
    digits = numberText(
        magnitude,
        directive.conversion == 'f' ? std::chars_format::fixed : std::chars_format::scientific,
        static_cast<int>(precision));
  }
  if (directive.alternate && digits.find('.') == std::string::npos) {
    digits.insert(std::min(digits.find('e'), digits.size()), 1, '.');
  }
  putNumber(directive, sign, std::move(digits), /*mayFillWithZeros=*/true);
  return true;
}

/// False when the argument is no character: a NUL would end the line at some sinks.
bool Interpreter::formatCharacter(const Directive& directive, const LogArg& argument) {
  const auto* integer = std::get_if<std::int64_t>(&argument.value());
  const auto* large = std::get_if<std::uint64_t>(&argument.value());
  if (integer == nullptr && large == nullptr) return false;
  const std::uint64_t point = integer == nullptr ? *large : static_cast<std::uint64_t>(*integer);
  if (point == 0 || point > 0x10FFFF || (point >= 0xD800 && point < 0xE000)) return false;
  std::string text;
  const auto put = [&](std::uint64_t byte) { text += static_cast<char>(byte); };
  if (point < 0x80) {
    put(point);
  } else if (point < 0x800) {
    put(0xC0 | point >> 6);
    put(0x80 | (point & 0x3F));
  } else {
    if (point < 0x10000) {
      put(0xE0 | point >> 12);
    } else {
      put(0xF0 | point >> 18);
      put(0x80 | (point >> 12 & 0x3F));
    }
    put(0x80 | (point >> 6 & 0x3F));
    put(0x80 | (point & 0x3F));
  }
  pad(directive, text);
  return true;
}

void Interpreter::putNumber(const Directive& directive, std::string_view sign, std::string digits,
                            bool mayFillWithZeros) {
  const std::size_t size = sign.size() + digits.size();
  if (directive.zero && !directive.left && mayFillWithZeros && size < directive.width) {
    digits.insert(0, directive.width - size, '0');
  }
  pad(directive, std::string(sign) + digits);
}

/// The width counts bytes.
void Interpreter::pad(const Directive& directive, std::string_view text) {
  const std::size_t fill = text.size() < directive.width ? directive.width - text.size() : 0;
  if (!directive.left) out_.append(fill, ' ');
  out_.append(text);
  if (directive.left) out_.append(fill, ' ');
}

}  // namespace

LogArg::LogArg(const Error& error) : value_(error.isSet() ? Value(error.text()) : Value()) {}

std::string formatLog(std::string_view format, std::span<const LogArg> arguments) noexcept {
  try {
    return Interpreter(format, arguments).run();
  } catch (...) {  // no memory: an empty text stands for a format that yields nothing
    return {};
  }
}

std::string describe(const Value& value) {
  BoundedText text(std::numeric_limits<std::size_t>::max());
  describe(value, text);
  return text.take();
}

}  // namespace thmp
