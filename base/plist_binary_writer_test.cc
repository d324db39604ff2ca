// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "base/format.h"
#include "base/plist.h"
#include "tests/support/binary_plist_bytes.h"
#include "tests/support/random_values.h"

namespace thmp {
namespace {

using testing::array;
using testing::ascii;
using testing::binaryPropertyList;
using testing::byte;
using testing::dictionary;

constexpr PropertyListLimits kWide{std::size_t{1} << 30, 100'000'000, 2'000'000};

Value written(const Value& value) {
  const std::optional<std::string> bytes = writeBinaryPropertyList(value);
  if (!bytes) return Value();
  Error error;
  const std::optional<Value> back = readBinaryPropertyList(*bytes, kWide, &error);
  EXPECT_TRUE(back.has_value()) << error.text();
  return back.value_or(Value());
}

TEST(BinaryWriter, WritesTheseBytes) {
  const Value value = Dictionary{{"a", Array{true, "a", 256}}, {"b", true}};
  EXPECT_EQ(*writeBinaryPropertyList(value),
            binaryPropertyList(
                {ascii("a"), ascii("b"), byte(0x09), byte(0x11) + std::string("\x01\x00", 2),
                 dictionary({1, 3, 2, 4}), array({4, 1, 5})},
                {.offsetSize = 1, .offsets = {{16, 8, 21, 10, 12, 13}}}));
}

TEST(BinaryWriter, RoundTripsEachScalar) {
  const double infinity = std::numeric_limits<double>::infinity();
  std::vector<Value> values = {
      true,   false,   0.0,        -0.0,        1.5, infinity, -infinity, std::nan(""),
      5e-324, Date{0}, Date{-1.5}, Date{1e300}, "",  Data{},   Array{},   Dictionary{}};
  for (int bit = 0; bit < 64; ++bit) {
    const std::uint64_t power = std::uint64_t{1} << bit;
    for (const std::uint64_t number : {power - 1, power, power + 1}) {
      values.emplace_back(number);
      values.emplace_back(static_cast<std::int64_t>(number));
      values.emplace_back(-static_cast<std::int64_t>(number >> 1));
    }
  }
  for (const std::size_t size : {1U, 14U, 15U, 255U, 256U, 65535U, 65536U, 70000U}) {
    values.emplace_back(std::string(size, 'x'));
    values.emplace_back(Data{std::string(size, '\xFF')});
    std::string wide;
    for (std::size_t i = 0; i < size; ++i) wide += "\xC3\xA9";
    values.emplace_back(wide);
    values.emplace_back(Array(std::vector<Value>(size, Value(1))));
  }
  for (const Value& value : values) {
    EXPECT_TRUE(Value::identical(written(value), value)) << describe(value).substr(0, 100);
  }
  EXPECT_TRUE(Value::identical(written(Array(values)), Array(values)));
}

TEST(BinaryWriter, KeepsLoneSurrogatesAndReplacesWhatCannotBeRead) {
  const std::string replacement = "\xEF\xBF\xBD";
  const auto text = [](std::string_view bytes) {
    return std::string(written(bytes).asText().value_or("none"));
  };
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"a\xED\xA0\x80z", "a\xED\xA0\x80z"},
      {"\xED\xBF\xBF\xED\xA0\x80", "\xED\xBF\xBF\xED\xA0\x80"},
      {"\xED\xA0\x80\xED\xB0\x80", replacement + replacement},
      {"\xED\xA0\x80\xED\xA0\x80\xED\xB0\x80", "\xED\xA0\x80" + replacement + replacement},
      {"\xED\xA0\x80\xF0\x9F\x98\x80", "\xED\xA0\x80\xF0\x9F\x98\x80"},
      {"\x80", replacement},
      {"\xC0\x80", replacement + replacement},
      {"\xC1\xBF", replacement + replacement},
      {"\xE0\x80\x80", replacement + replacement + replacement},
      {"\xE0\xA0", replacement},
      {"\xE2\x82z", replacement + "z"},
      {"\xF0\x8F\xBF\xBF", replacement + replacement + replacement + replacement},
      {"\xF0\x90\x80", replacement},
      {"\xF4\x90\x80\x80", replacement + replacement + replacement + replacement},
      {"\xF5z", replacement + "z"},
      {"\xFF\xFE", replacement + replacement},
      {"ok\xC3", "ok" + replacement},
      {std::string("a\0\xC3\xA9", 4), std::string("a\0\xC3\xA9", 4)},
      {"\xF4\x8F\xBF\xBF\xEE\x80\x80", "\xF4\x8F\xBF\xBF\xEE\x80\x80"},
  };
  for (const auto& [bytes, expected] : cases) EXPECT_EQ(text(bytes), expected) << expected;
}

TEST(BinaryWriter, WritesEqualScalarsAndSharedContainersOnce) {
  const std::string longText(500, 'x');
  const std::string other = longText;
  const Array shared{longText, other, Data{longText}, Data{other}, 1.5, 1.5, Date{7}, Date{7}};
  const Value value = Array{shared, shared, Dictionary{{longText, shared}}};
  const std::string bytes = *writeBinaryPropertyList(value);
  EXPECT_LT(bytes.size(), 2 * 500 + 200U);
  const Array back = *written(value).asArray();
  EXPECT_EQ(back[0].identity(), back[1].identity());
  EXPECT_TRUE(Value::identical(back, value));
}

TEST(BinaryWriter, KeepsNumbersOfDifferentKindsApart) {
  const Value value =
      Array{1, true, 1.0, Date{1}, 0, false, 0.0, -0.0, Date{0}, "", Data{}, Array{}};
  EXPECT_TRUE(Value::identical(written(value), value));
}

TEST(BinaryWriter, RefusesNullsAndDatesThatAreNoTime) {
  const double nan = std::nan("");
  for (const Value& value :
       {Value(), Value(Array{1, Value()}), Value(Dictionary{{"k", Array{Array{Value()}}}}),
        Value(Date{nan}), Value(Dictionary{{"k", Date{-1.0 / 0.0}}})}) {
    Error error;
    EXPECT_FALSE(writeBinaryPropertyList(value, &error).has_value());
    EXPECT_EQ(error.domain, kPropertyListErrorDomain);
    EXPECT_EQ(error.code, static_cast<std::int64_t>(PropertyListError::kNotWritable));
  }
  Error error;
  EXPECT_FALSE(writeBinaryPropertyList(Array{1, 2, Value()}, &error));
  EXPECT_EQ(error.description,
            "A null value stands at index 2 of an array; property lists have no form for it");
}

TEST(BinaryWriter, WritesDeepAndMuchSharedValuesWithoutRecursion) {
  Value deep = 1;
  for (int i = 0; i < THMP_DEEP; ++i) {
    Array array;
    array.push_back(std::move(deep));
    deep = std::move(array);
  }
  EXPECT_TRUE(Value::identical(written(deep), deep));

  Value shared = "leaf";
  for (int i = 0; i < 200; ++i) shared = Array{shared, shared};
  EXPECT_LT(writeBinaryPropertyList(shared)->size(), 2000U);
}

constexpr std::string_view kPieces[] = {
    "a", "key", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xED\xA0\x80 ", "\n", "%"};

TEST(BinaryWriter, RoundTripsRandomValues) {
  for (std::uint32_t seed = 0; seed < 3000; ++seed) {
    const Value value = testing::RandomValues(seed, kPieces).value(5);
    ASSERT_TRUE(Value::identical(written(value), value)) << "seed " << seed;
  }
}

std::size_t countOf(std::string_view piece, std::string_view bytes) {
  std::size_t count = 0;
  for (std::size_t at = bytes.find(piece); at != std::string_view::npos;
       at = bytes.find(piece, at + 1)) {
    ++count;
  }
  return count;
}

// Two threads write them.
TEST(BinaryWriter, WritesLongListsAsShortOnes) {
  const Array shared{"of all", 7, Dictionary{{"shared key", "of all"}}};
  std::vector<Value> rows;
  for (int i = 0; i < 900; ++i) {
    Value random;
    while (random.isNull()) {
      random = testing::RandomValues(static_cast<std::uint32_t>(i), kPieces).value(3);
    }
    rows.emplace_back(Dictionary{{"number", i},
                                 {"text", "text of " + std::to_string(i / 700)},
                                 {"own", "own " + std::to_string(i) + "."},
                                 {"shared", shared},
                                 {"random", random},
                                 {"before", i > 0 ? rows.back() : Value("none")}});
    if (i % 50 == 49) rows.back() = Array{i, Array{shared, i}};
  }
  const Value value = Dictionary{{"first", shared}, {"rows", Array(rows)}, {"last", "own 3."}};
  const std::string bytes = *writeBinaryPropertyList(value);
  EXPECT_TRUE(Value::identical(*readBinaryPropertyList(bytes, kWide), value));
  for (const std::string text : {"of all", "text of 0", "text of 1", "own 3.", "own 888."}) {
    EXPECT_EQ(countOf(text, bytes), 1U) << text;
  }
}

TEST(BinaryWriter, RefusesWhatStandsAnywhereInALongList) {
  for (const std::size_t place : {0U, 1U, 150U, 299U}) {
    std::vector<Value> rows;
    for (std::size_t i = 0; i < 300; ++i) {
      rows.emplace_back(Dictionary{{"key", Array{i == place ? Value() : Value("text")}}});
    }
    Error error;
    EXPECT_FALSE(writeBinaryPropertyList(Array(rows), &error));
    EXPECT_EQ(error.description,
              "A null value stands at index 0 of an array; property lists have no form for it");
    EXPECT_FALSE(writeBinaryPropertyList(Array(rows)));
  }
}

TEST(BinaryWriter, WritesTheSameBytesForItsOwnReading) {
  for (std::uint32_t seed = 0; seed < 500; ++seed) {
    const Value value = testing::RandomValues(seed, kPieces).value(4);
    const std::string bytes = *writeBinaryPropertyList(value);
    ASSERT_LE(writeBinaryPropertyList(written(value))->size(), bytes.size()) << "seed " << seed;
  }
}

}  // namespace
}  // namespace thmp
