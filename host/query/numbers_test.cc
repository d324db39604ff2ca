// SPDX-License-Identifier: Apache-2.0
#include "host/query/numbers.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

namespace thmp::query {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

double realOf(const std::string& text) {
  const std::optional<Value> number = readNumber(text);
  EXPECT_TRUE(number) << text;
  EXPECT_EQ(number.value_or(Value()).kind(), Value::Kind::kReal) << text;
  return number ? number->asReal().value_or(-1) : -1;
}

TEST(ReadNumber, DigitsAreAnInteger) {
  EXPECT_EQ(readNumber("0")->asInteger(), 0);
  EXPECT_EQ(readNumber("007")->asInteger(), 7);
  EXPECT_EQ(readNumber("+5")->asInteger(), 5);
  EXPECT_EQ(readNumber("-5")->asInteger(), -5);
  EXPECT_EQ(readNumber("-9223372036854775808")->asInteger(),
            std::numeric_limits<std::int64_t>::min());
}

TEST(ReadNumber, LargeIntegersAreKeptExactlyWhere64BitsHoldThem) {
  EXPECT_EQ(readNumber("18446744073709551615")->asUnsigned(),
            std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(realOf("18446744073709551616"), 18446744073709551616.0);
  EXPECT_EQ(realOf("-9223372036854775809"), -9223372036854775808.0);
}

TEST(ReadNumber, AFractionOrAnExponentMakesAReal) {
  EXPECT_EQ(realOf("1.5"), 1.5);
  EXPECT_EQ(realOf("+1.50"), 1.5);
  EXPECT_EQ(realOf("-2e3"), -2000);
  EXPECT_EQ(realOf("1E+2"), 100);
  EXPECT_EQ(realOf("25e-1"), 2.5);
}

TEST(ReadNumber, NumbersThatNoRealHoldsAreInfiniteOrNothing) {
  EXPECT_EQ(realOf("1e999"), kInfinity);
  EXPECT_EQ(realOf("-1e999"), -kInfinity);
  EXPECT_EQ(realOf("1e-999"), 0);
  EXPECT_EQ(realOf("0." + std::string(400, '0') + "1"), 0);
  EXPECT_EQ(realOf(std::string(400, '9') + ".0"), kInfinity);
  EXPECT_EQ(realOf("1e99999999999999999999999"), kInfinity);
  EXPECT_EQ(realOf("0e99999999999999999999999"), 0);
}

TEST(ReadNumber, OtherTextsAreNoNumbers) {
  for (const std::string text : {"", " 1", "1 ", "+", "-", ".5", "5.", "1e", "1e+", "0x10", "1,5",
                                 "inf", "nan", "1.2.3", "--1", "+-1", "1e1.5", "\xD9\xA1"}) {
    EXPECT_FALSE(readNumber(text)) << text;
  }
}

TEST(CompareNumbers, IntegersCompareExactly) {
  const std::int64_t large = (std::int64_t{1} << 53) + 1;
  EXPECT_TRUE(compareNumbers(Value(large), Value(large - 1)) > 0);
  EXPECT_TRUE(compareNumbers(Value(-1), Value(std::numeric_limits<std::uint64_t>::max())) < 0);
  EXPECT_TRUE(compareNumbers(Value(std::numeric_limits<std::uint64_t>::max()), Value(-1)) > 0);
  EXPECT_TRUE(compareNumbers(Value(std::numeric_limits<std::uint64_t>::max()),
                             Value(std::numeric_limits<std::uint64_t>::max() - 1)) > 0);
}

TEST(CompareNumbers, MixedPairsCompareAsReals) {
  const std::int64_t large = (std::int64_t{1} << 53) + 1;
  EXPECT_TRUE(compareNumbers(Value(large), Value(9007199254740992.0)) == 0);
  EXPECT_TRUE(compareNumbers(Value(1), Value(1.5)) < 0);
}

TEST(CompareNumbers, BooleansAreZeroAndOne) {
  EXPECT_TRUE(compareNumbers(Value(true), Value(1)) == 0);
  EXPECT_TRUE(compareNumbers(Value(false), Value(0.5)) < 0);
}

TEST(CompareNumbers, OtherKindsAndNanAreUnordered) {
  EXPECT_EQ(compareNumbers(Value("1"), Value(1)), std::partial_ordering::unordered);
  EXPECT_EQ(compareNumbers(Value(1), Value()), std::partial_ordering::unordered);
  EXPECT_EQ(compareNumbers(Value(std::nan("")), Value(1)), std::partial_ordering::unordered);
}

}  // namespace
}  // namespace thmp::query
