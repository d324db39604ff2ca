// SPDX-License-Identifier: Apache-2.0
#include "host/query/numbers.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <system_error>

namespace thmp::query {

namespace {

/// The parts of a number's text.
struct NumberText {
  bool negative = false;
  std::string_view whole;
  std::string_view fraction;
  std::string_view exponent;  // with its sign
  bool isInteger = true;
};

std::string_view takeDigits(std::string_view& text) {
  const std::size_t end = std::min(text.find_first_not_of("0123456789"), text.size());
  const std::string_view digits = text.substr(0, end);
  text.remove_prefix(end);
  return digits;
}

bool takeSign(std::string_view& text, bool* negative) {
  if (!text.starts_with('+') && !text.starts_with('-')) return false;
  *negative = text.front() == '-';
  text.remove_prefix(1);
  return true;
}

std::optional<NumberText> split(std::string_view text) {
  NumberText parts;
  takeSign(text, &parts.negative);
  parts.whole = takeDigits(text);
  if (parts.whole.empty()) return std::nullopt;
  if (text.starts_with('.')) {
    text.remove_prefix(1);
    parts.fraction = takeDigits(text);
    parts.isInteger = false;
    if (parts.fraction.empty()) return std::nullopt;
  }
  if (text.starts_with('e') || text.starts_with('E')) {
    text.remove_prefix(1);
    const std::string_view exponent = text;
    bool negative = false;
    takeSign(text, &negative);
    if (takeDigits(text).empty()) return std::nullopt;
    parts.exponent = exponent;
    parts.isInteger = false;
  }
  if (!text.empty()) return std::nullopt;
  return parts;
}

/// Whether a number that no double holds is too large, and not too small.
bool isTooLarge(const NumberText& parts) {
  std::string_view exponentText = parts.exponent;
  bool negative = false;
  takeSign(exponentText, &negative);
  std::int64_t exponent = 0;
  constexpr std::int64_t kBeyondAllText = std::int64_t{1} << 40;
  for (const char digit : exponentText) {
    exponent = std::min(exponent * 10 + (digit - '0'), kBeyondAllText);
  }
  const std::size_t leading = parts.whole.find_first_not_of('0');
  const std::int64_t place =
      leading != std::string_view::npos
          ? static_cast<std::int64_t>(parts.whole.size() - leading)
          : -static_cast<std::int64_t>(
                std::min(parts.fraction.find_first_not_of('0'), parts.fraction.size()));
  return place + (negative ? -exponent : exponent) > 0;
}

Value real(std::string_view text, const NumberText& parts) {
  if (text.starts_with('+')) text.remove_prefix(1);
  double value = 0;
  const std::errc error = std::from_chars(text.data(), text.data() + text.size(), value).ec;
  if (error == std::errc()) return value;
  value = isTooLarge(parts) ? std::numeric_limits<double>::infinity() : 0.0;
  return parts.negative ? -value : value;
}

template <typename Integer>
std::optional<Value> integer(std::string_view text) {
  Integer value = 0;
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || rest != end) return std::nullopt;
  return Value(value);
}

double asDouble(const Value& value) { return value.numberValue().value_or(0); }

Value withoutBoolean(const Value& value) {
  const std::optional<bool> boolean = value.asBoolean();
  return boolean ? Value(*boolean ? 1 : 0) : value;
}

}  // namespace

std::optional<Value> readNumber(std::string_view text) {
  const std::optional<NumberText> parts = split(text);
  if (!parts) return std::nullopt;
  if (parts->isInteger) {
    const std::string_view digits = text.starts_with('+') ? text.substr(1) : text;
    if (auto value = integer<std::int64_t>(digits)) return value;
    if (auto value = integer<std::uint64_t>(digits)) return value;
  }
  return real(text, *parts);
}

std::partial_ordering compareNumbers(const Value& a, const Value& b) {
  if (!a.isNumber() || !b.isNumber()) return std::partial_ordering::unordered;
  const Value x = withoutBoolean(a);
  const Value y = withoutBoolean(b);
  const auto signedX = x.asInteger();
  const auto signedY = y.asInteger();
  if (signedX && signedY) return *signedX <=> *signedY;
  const bool integers = x.kind() != Value::Kind::kReal && y.kind() != Value::Kind::kReal;
  if (!integers) return asDouble(x) <=> asDouble(y);
  // One of them at least is above all signed integers.
  if (signedX) return std::partial_ordering::less;
  if (signedY) return std::partial_ordering::greater;
  return *x.asUnsigned() <=> *y.asUnsigned();
}

}  // namespace thmp::query
