// SPDX-License-Identifier: Apache-2.0
//
// Any format with any arguments: always a text, never more than its limit, the same each time, and
// the text itself where it has no "%". Besides, one directive as C knows it, put together from the
// input, against the C library's own formatting.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "base/format.h"
#include "tests/fuzz/fuzzing.h"

namespace thmp::fuzz {
namespace {

constexpr std::size_t kMaxLength = std::size_t{64} << 10;

double realFrom(Decisions& decisions) {
  const std::uint64_t bits = decisions.number(8);
  double real = 0;
  static_assert(sizeof(real) == sizeof(bits));
  std::memcpy(&real, &bits, sizeof(real));
  return real;
}

LogArg argumentFrom(Decisions& decisions) {
  switch (decisions.below(10)) {
    case 0:
      return LogArg();
    case 1:
      return LogArg(static_cast<std::int64_t>(decisions.number(8)));
    case 2:
      return LogArg(decisions.number(8));
    case 3:
      return LogArg(realFrom(decisions));
    case 4:
      return LogArg(decisions.text());
    case 5:
      return LogArg(Value(Data{std::string(decisions.text())}));
    case 6:
      return LogArg(Value(Date{realFrom(decisions)}));
    case 7:
      return LogArg(Value(Array{1, "x", Dictionary{{"k", realFrom(decisions)}}}));
    case 8:
      return LogArg(Error{"d", 1, std::string(decisions.text()), nullptr});
    default:
      return LogArg(decisions.flag());
  }
}

std::vector<LogArg> argumentsFrom(Decisions& decisions) {
  std::vector<LogArg> arguments;
  for (std::size_t left = decisions.below(6); left > 0; --left) {
    arguments.push_back(argumentFrom(decisions));
  }
  return arguments;
}

void parseOnce(std::string_view bytes) {
  Decisions decisions(bytes);
  const std::vector<LogArg> arguments = argumentsFrom(decisions);
  formatLog(decisions.rest(), arguments);
}

void checkAnyFormat(std::string_view bytes) {
  Decisions decisions(bytes);
  const std::vector<LogArg> arguments = argumentsFrom(decisions);
  const std::string_view format = decisions.rest();
  const std::string text = formatLog(format, arguments);
  THMP_FUZZ_CHECK(text.size() <= kMaxLength);
  THMP_FUZZ_CHECK(formatLog(format, arguments) == text);
  if (format.find('%') == std::string_view::npos && format.size() <= kMaxLength) {
    THMP_FUZZ_CHECK(text == format);
  }
}

// Flags, width and precision, without the conversion.
std::string directiveFrom(Decisions& decisions) {
  std::string directive = "%";
  const std::uint8_t flags = decisions.byte();
  for (std::size_t i = 0; i < 5; ++i) {
    if ((flags >> i & 1U) != 0) directive += "-+ #0"[i];
  }
  if (const std::size_t width = decisions.below(64); width < 48) directive += std::to_string(width);
  if (const std::size_t precision = decisions.below(64); precision < 40) {
    directive += "." + std::to_string(precision);
  }
  return directive;
}

// Both take the format from the input, on purpose: the compiler cannot check it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <typename Argument>
std::string printed(const std::string& format, Argument argument) {
  std::array<char, 1024> buffer;
  const int size = std::snprintf(buffer.data(), buffer.size(), format.c_str(), argument);
  THMP_FUZZ_CHECK(size >= 0 && static_cast<std::size_t>(size) < buffer.size());
  return std::string(buffer.data(), static_cast<std::size_t>(size));
}
#pragma GCC diagnostic pop

template <typename Argument>
void checkAgainstC(const std::string& directive, const char* length, char conversion,
                   Argument argument) {
  const std::string format = directive + length + conversion;
  const std::array<LogArg, 1> arguments{LogArg(argument)};
  const std::string ours = formatLog(format, arguments);
  const std::string theirs = printed(format, argument);
  if (ours != theirs)
    std::fprintf(stderr, "%s: [%s] [%s]\n", format.c_str(), ours.c_str(), theirs.c_str());
  THMP_FUZZ_CHECK(ours == theirs);
}

void checkOneDirective(std::string_view bytes) {
  Decisions decisions(bytes);
  const std::string directive = directiveFrom(decisions);
  const std::size_t conversion = decisions.below(9);
  const std::uint64_t number = decisions.number(8);
  const auto integer = static_cast<std::int64_t>(number);
  Decisions again(bytes.substr(std::min<std::size_t>(bytes.size(), 4)));
  double real = realFrom(again);
  // Beyond these the decimal digits of a number no longer fit the buffer here.
  if (!(real > -1e200 && real < 1e200)) real = 0.1;
  switch (conversion) {
    case 0:
      return checkAgainstC(directive, "ll", 'd', integer);
    case 1:
      return checkAgainstC(directive, "ll", 'i', integer);
    case 2:
      return checkAgainstC(directive, "ll", 'u', number);
    case 3:
      return checkAgainstC(directive, "ll", 'x', number);
    case 4:
      return checkAgainstC(directive, "ll", 'X', number);
    case 5:
      return checkAgainstC(directive, "ll", 'o', number);
    default:
      return checkAgainstC(directive, "", "efg"[conversion - 6], real);
  }
}

}  // namespace

const Bounds kBounds{1, 64 * kMiB, parseOnce};

void runInput(std::string_view bytes) {
  checkAnyFormat(bytes);
  checkOneDirective(bytes);
}

}  // namespace thmp::fuzz
