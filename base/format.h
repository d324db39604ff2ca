// SPDX-License-Identifier: Apache-2.0
//
// The log's format language: "%@" for objects and the integer, real and text directives of C,
// interpreted over captured values. Total over any format and any arguments: a wrong or missing
// argument shows, it never reads what is not there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "base/error.h"
#include "base/value.h"

namespace thmp {

/// One argument: an object (null included), or a number as C passes it.
class LogArg {
 public:
  LogArg() = default;  // null object
  LogArg(Value object) : value_(std::move(object)) {}
  LogArg(const Error& error);  // null object when the error is not set
  LogArg(const std::string& text) : value_(Value(text)) {}
  LogArg(std::string_view text) : value_(Value(text)) {}
  LogArg(const Text& text) : value_(Value(text)) {}
  LogArg(const char* text) : value_(text == nullptr ? Value() : Value(text)) {}
  LogArg(double number) : value_(number) {}
  template <typename T>
  requires(std::is_integral_v<T>) LogArg(T number) {
    if constexpr (std::is_signed_v<T>) {
      value_ = static_cast<std::int64_t>(number);
    } else {
      value_ = static_cast<std::uint64_t>(number);
    }
  }

  const std::variant<Value, std::int64_t, std::uint64_t, double>& value() const { return value_; }

 private:
  std::variant<Value, std::int64_t, std::uint64_t, double> value_;
};

/// Interprets `format` once with `arguments`. Directives: %@ %d %i %u %x %X %o %c %s %f %g %e %p
/// and %%, with flags, length modifiers, width, precision, `*` and positions (%2$@). Width and
/// precision count up to 1,024, the result up to 64 KiB. %n writes nothing and takes one argument.
/// An unknown directive, or a lone "%", stands as it is. Missing arguments show as "(null)" for
/// objects and 0 for numbers; one of another kind shows in its own natural form.
std::string formatLog(std::string_view format, std::span<const LogArg> arguments) noexcept;

/// What %@ shows: a text as it is, a number in its shortest decimal form, a boolean as 1 or 0, null
/// as (null), a date in ISO 8601, data as <hex>, arrays and dictionaries on one line.
std::string describe(const Value& value);

/// A format literal whose directives are checked against the argument count when the program is
/// compiled.
template <typename... Args>
class BasicLogFormat {
 public:
  template <std::size_t N>
  consteval BasicLogFormat(const char (&literal)[N]) : text_(literal, N - 1) {
    if (countDirectives(text_) != sizeof...(Args)) {
      throw "the format's directives and the arguments differ in number";
    }
  }

  constexpr std::string_view text() const { return text_; }

 private:
  static consteval std::size_t countDirectives(std::string_view text) {
    std::size_t count = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (text[i] != '%') continue;
      if (i + 1 < text.size() && text[i + 1] == '%') {
        ++i;
      } else {
        ++count;
      }
    }
    return count;
  }

  std::string_view text_;
};

template <typename... Args>
using LogFormat = BasicLogFormat<std::type_identity_t<Args>...>;

}  // namespace thmp
