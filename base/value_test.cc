// SPDX-License-Identifier: Apache-2.0
#include "base/value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "base/format.h"

namespace thmp {
namespace {

constexpr std::size_t kDeep = THMP_DEEP;

Value deepArray(std::size_t depth, const Value& innermost) {
  Value value = innermost;
  for (std::size_t i = 0; i < depth; ++i) {
    Array array;
    array.push_back(std::move(value));
    value = std::move(array);
  }
  return value;
}

Value deepDictionary(std::size_t depth, const Value& innermost) {
  const Text key("key");
  Value value = innermost;
  for (std::size_t i = 0; i < depth; ++i) {
    Dictionary dictionary;
    dictionary.set(key, std::move(value));
    value = std::move(dictionary);
  }
  return value;
}

TEST(Numbers, AreEqualWhenTheirNumbersAre) {
  EXPECT_EQ(Value(1), Value(1.0));
  EXPECT_EQ(Value(1), Value(true));
  EXPECT_EQ(Value(1.0), Value(true));
  EXPECT_EQ(Value(0), Value(false));
  EXPECT_EQ(Value(0.0), Value(-0.0));
  EXPECT_EQ(Value(std::uint64_t{1} << 63), Value(0x1p63));
  EXPECT_EQ(Value(INT64_MIN), Value(-0x1p63));
  EXPECT_EQ(Value(7U), Value(7));
  EXPECT_FALSE(Value(2) == Value(true));
  EXPECT_FALSE(Value(1) == Value(1.5));
  EXPECT_FALSE(Value(-1) == Value(UINT64_MAX));
}

TEST(Numbers, AreComparedWithoutRounding) {
  EXPECT_FALSE(Value((std::int64_t{1} << 53) + 1) == Value(0x1p53));
  EXPECT_FALSE(Value(INT64_MAX) == Value(0x1p63));
  EXPECT_FALSE(Value(UINT64_MAX) == Value(0x1p64));
  EXPECT_FALSE(Value(INT64_MAX) == Value(std::uint64_t{1} << 63));
  EXPECT_FALSE(Value(1) == Value(std::numeric_limits<double>::infinity()));
}

TEST(Numbers, NaNEqualsItselfAndNothingElse) {
  const double nan = std::nan("");
  EXPECT_EQ(Value(nan), Value(-nan));
  EXPECT_TRUE(Value::identical(Value(nan), Value(nan)));
  EXPECT_FALSE(Value(nan) == Value(0));
  EXPECT_FALSE(Value(0) == Value(nan));
  EXPECT_FALSE(Value(nan) == Value(1.0));
  EXPECT_FALSE(Value(1.0) == Value(nan));
  EXPECT_FALSE(Value::identical(Value(nan), Value(1.0)));
  EXPECT_FALSE(Value::identical(Value(1.0), Value(nan)));
  EXPECT_TRUE(Value::identical(Value(nan), Value(-nan)));
}

TEST(Numbers, BeyondTheSignedOnesAreComparedWithReals) {
  EXPECT_EQ(Value(UINT64_MAX - 2047), Value(0x1p64 - 2048));
  EXPECT_FALSE(Value(UINT64_MAX) == Value(0x1p64 - 2048));
  EXPECT_FALSE(Value(UINT64_MAX) == Value(0x1p64));
}

TEST(Numbers, HaveADoubleOfEachKind) {
  EXPECT_EQ(Value(true).numberValue(), 1.0);
  EXPECT_EQ(Value(-3).numberValue(), -3.0);
  EXPECT_EQ(Value(UINT64_MAX).numberValue(), 0x1p64);
  EXPECT_EQ(Value(2.5).numberValue(), 2.5);
  EXPECT_EQ(Value("2.5").numberValue(), std::nullopt);
}

TEST(Numbers, OfDifferentKindsAreComparedEitherWayRound) {
  for (const auto& [integer, real] : {std::pair(Value(2), Value(2.0)), {Value(true), Value(1.0)}}) {
    EXPECT_EQ(integer, real);
    EXPECT_EQ(real, integer);
  }
  EXPECT_FALSE(Value(2) == Value(2.5));
  EXPECT_FALSE(Value(2.5) == Value(2));
  EXPECT_EQ(Value("+-5").integerValue(), 0);
  EXPECT_EQ(Value("+").integerValue(), 0);
  EXPECT_EQ(Value("+5").integerValue(), 5);
}

TEST(Texts, AreDifferentFromTheEmptyOneEitherWayRound) {
  EXPECT_FALSE(Value("a") == Value(""));
  EXPECT_FALSE(Value("") == Value("a"));
  EXPECT_FALSE(Value(Array{1}) == Value(Array()));
}

TEST(Dictionaries, OfOtherKeysAreDifferent) {
  EXPECT_FALSE(Value(Dictionary{{"a", 1}}) == Value(Dictionary{{"b", 1}}));
  EXPECT_FALSE(Value::identical(Dictionary{{"a", 1}}, Dictionary{{"b", 1}}));
}

TEST(Dictionaries, RoomThatIsThereAlreadyIsNotMade) {
  Dictionary dictionary{{"a", 1}, {"b", 2}};
  dictionary.reserve(1);
  EXPECT_EQ(dictionary.size(), 2U);
  EXPECT_EQ(dictionary["b"], Value(2));
}

TEST(Numbers, AreIdenticalOnlyInOneKind) {
  EXPECT_FALSE(Value::identical(Value(1), Value(1.0)));
  EXPECT_FALSE(Value::identical(Value(1), Value(true)));
  EXPECT_FALSE(Value::identical(Value(0.0), Value(-0.0)));
  EXPECT_TRUE(Value::identical(Value(1), Value(1U)));
  EXPECT_FALSE(Value::identical(Array{1}, Array{true}));
  EXPECT_TRUE(Value(Array{1}) == Value(Array{true}));
}

TEST(Numbers, KeepTheirKind) {
  EXPECT_EQ(Value(std::int8_t{-3}).kind(), Value::Kind::kInteger);
  EXPECT_EQ(Value(std::uint64_t{INT64_MAX}).kind(), Value::Kind::kInteger);
  EXPECT_EQ(Value(std::uint64_t{INT64_MAX} + 1).kind(), Value::Kind::kUnsigned);
  EXPECT_EQ(Value(true).kind(), Value::Kind::kBoolean);
  EXPECT_EQ(Value(1.0F).kind(), Value::Kind::kReal);
  EXPECT_EQ(Value(5).asUnsigned(), 5U);
  EXPECT_EQ(Value(-5).asUnsigned(), std::nullopt);
  EXPECT_EQ(Value(UINT64_MAX).asInteger(), std::nullopt);
  EXPECT_EQ(Value(true).asInteger(), std::nullopt);
  EXPECT_EQ(Value(1).asBoolean(), std::nullopt);
  EXPECT_EQ(Value(1).asReal(), std::nullopt);
  EXPECT_EQ(Value(UINT64_MAX).numberValue(), 0x1p64);
  EXPECT_EQ(Value("1").numberValue(), std::nullopt);
}

TEST(Kinds, AreNotConverted) {
  const Value values[] = {Value(), true,        2,       UINT64_MAX,  1.5,
                          Date{1}, Data{"abc"}, "abc",   Array{1},    Dictionary{{"a", 1}},
                          Data{},  "",          Array{}, Dictionary{}};
  for (const Value& value : values) {
    SCOPED_TRACE(describe(value));
    EXPECT_EQ(value.asBoolean().has_value(), value.kind() == Value::Kind::kBoolean);
    EXPECT_EQ(value.asReal().has_value(), value.kind() == Value::Kind::kReal);
    EXPECT_EQ(value.asDate().has_value(), value.kind() == Value::Kind::kDate);
    EXPECT_EQ(value.asData().has_value(), value.kind() == Value::Kind::kData);
    EXPECT_EQ(value.asText().has_value(), value.kind() == Value::Kind::kText);
    EXPECT_EQ(value.asSharedText().has_value(), value.kind() == Value::Kind::kText);
    EXPECT_EQ(value.asArray().has_value(), value.kind() == Value::Kind::kArray);
    EXPECT_EQ(value.asDictionary().has_value(), value.kind() == Value::Kind::kDictionary);
    for (const Value& other : values) {
      EXPECT_EQ(value == other, &value == &other) << describe(other);
    }
  }
  EXPECT_FALSE(Value(Date{1}) == Value(1));
  EXPECT_FALSE(Value("1") == Value(1));
}

TEST(BooleanReading, OfEachKind) {
  EXPECT_TRUE(Value(true).booleanValue());
  EXPECT_FALSE(Value(false).booleanValue());
  EXPECT_TRUE(Value(-1).booleanValue());
  EXPECT_FALSE(Value(0).booleanValue());
  EXPECT_TRUE(Value(UINT64_MAX).booleanValue());
  EXPECT_TRUE(Value(0.1).booleanValue());
  EXPECT_FALSE(Value(-0.0).booleanValue());
  for (const char* text : {"1", "YES", "yes", "true", "True", "y", "T", "  +001", "-7", "9x"}) {
    EXPECT_TRUE(Value(text).booleanValue()) << text;
  }
  for (const char* text : {"", "0", "000", "NO", "no", "false", "f", "on", "x1", "+", " -0 "}) {
    EXPECT_FALSE(Value(text).booleanValue()) << text;
  }
  EXPECT_FALSE(Value().booleanValue());
  EXPECT_FALSE(Value(Date{1}).booleanValue());
  EXPECT_FALSE(Value(Data{"1"}).booleanValue());
  EXPECT_FALSE(Value(Array{true}).booleanValue());
  EXPECT_FALSE(Value(Dictionary{{"1", true}}).booleanValue());
}

TEST(IntegerReading, OfEachKind) {
  EXPECT_EQ(Value(true).integerValue(), 1);
  EXPECT_EQ(Value(-12).integerValue(), -12);
  EXPECT_EQ(Value(UINT64_MAX).integerValue(), INT64_MAX);
  EXPECT_EQ(Value(2.9).integerValue(), 2);
  EXPECT_EQ(Value(-2.9).integerValue(), -2);
  EXPECT_EQ(Value(1e300).integerValue(), INT64_MAX);
  EXPECT_EQ(Value(-1e300).integerValue(), INT64_MIN);
  EXPECT_EQ(Value(0x1p63).integerValue(), INT64_MAX);
  EXPECT_EQ(Value(std::nan("")).integerValue(), 0);
  EXPECT_EQ(Value("42").integerValue(), 42);
  EXPECT_EQ(Value(" \t-42abc").integerValue(), -42);
  EXPECT_EQ(Value("+7").integerValue(), 7);
  EXPECT_EQ(Value("+-7").integerValue(), 0);
  EXPECT_EQ(Value("1.9").integerValue(), 1);
  EXPECT_EQ(Value("0x10").integerValue(), 0);
  EXPECT_EQ(Value("99999999999999999999").integerValue(), INT64_MAX);
  EXPECT_EQ(Value("-99999999999999999999").integerValue(), INT64_MIN);
  EXPECT_EQ(Value("abc").integerValue(), 0);
  EXPECT_EQ(Value("").integerValue(), 0);
  EXPECT_EQ(Value().integerValue(), 0);
  EXPECT_EQ(Value(Date{5}).integerValue(), 0);
}

TEST(Texts, KeepNulAndInvalidBytesApart) {
  const std::string nul("a\0b", 3);
  EXPECT_EQ(Text(nul).view().size(), 3U);
  EXPECT_FALSE(Text(nul) == Text("a"));
  EXPECT_FALSE(Text("\xED\xA0\x80") == Text("\xED\xA0\x81"));
  Dictionary dictionary;
  dictionary.set(nul, 1);
  dictionary.set("a", 2);
  dictionary.set("\xED\xA0\x80", 3);
  EXPECT_EQ(dictionary.size(), 3U);
  EXPECT_EQ(dictionary[nul], Value(1));
}

TEST(Dictionary, AppendedEntriesAreAsThoseThatAreSet) {
  Dictionary appended;
  appended.reserve(2);
  EXPECT_TRUE(appended.empty());
  appended.append("", 0);
  appended.append("a", 1);
  const Dictionary before = appended;
  appended.append("b", "2");
  EXPECT_EQ(Value(before), Value(Dictionary{{"", 0}, {"a", 1}}));
  EXPECT_EQ(Value(appended), Value(Dictionary{{"", 0}, {"a", 1}, {"b", "2"}}));
  EXPECT_EQ(*appended.find("b"), Value("2"));
}

TEST(Texts, ShareOneNodeAmongCopies) {
  const Text text("shared");
  const Value value(text);
  EXPECT_EQ(value.identity(), text.identity());
  EXPECT_EQ(value.asSharedText()->identity(), text.identity());
  EXPECT_NE(Text("shared").identity(), text.identity());
  EXPECT_EQ(Text("").identity(), nullptr);
  EXPECT_EQ(Value("").asText(), "");
  EXPECT_EQ(Value(3).identity(), nullptr);
}

TEST(Arrays, ChangeOneCopyOnly) {
  Array first{1, 2, 3};
  Array second = first;
  EXPECT_EQ(first.identity(), second.identity());
  second.push_back(4);
  EXPECT_EQ(first.size(), 3U);
  EXPECT_EQ(second.size(), 4U);
  second.erase(0);
  EXPECT_EQ(Value(second), Value(Array{2, 3, 4}));
  EXPECT_EQ(Value(first), Value(Array{1, 2, 3}));
  Array third = first;
  third.erase(1);
  EXPECT_EQ(Value(first), Value(Array{1, 2, 3}));
  EXPECT_EQ(Value(third), Value(Array{1, 3}));
}

TEST(Arrays, ChangeInPlaceForASoleOwner) {
  Array array;
  array.reserve(10);
  array.push_back("x");
  const void* before = array.identity();
  for (int i = 0; i < 9; ++i) array.push_back(i);
  EXPECT_EQ(array.identity(), before);
  array.erase(3);
  EXPECT_EQ(array.identity(), before);
  EXPECT_EQ(array.size(), 9U);
  array.erase(1, 6);
  EXPECT_EQ(array.identity(), before);
  EXPECT_EQ(Value(array), Value(Array{"x", 7, 8}));
}

TEST(Arrays, LoseAnyNumberOfElements) {
  const Array five{"a", "b", "c", "d", "e"};
  const auto without = [&five](std::size_t index, std::size_t count) {
    Array array = five;
    array.erase(index, count);
    return Value(array);
  };
  EXPECT_EQ(without(0, 0), Value(five));
  EXPECT_EQ(without(0, 2), Value(Array{"c", "d", "e"}));
  EXPECT_EQ(without(1, 3), Value(Array{"a", "e"}));
  EXPECT_EQ(without(3, 2), Value(Array{"a", "b", "c"}));
  EXPECT_EQ(without(0, 5), Value(Array{}));
  Array none;
  none.erase(0, 0);
  EXPECT_TRUE(none.empty());
}

TEST(Arrays, TakeTheirOwnElementsAndThemselves) {
  Array array{"a"};
  for (int i = 0; i < 100; ++i) array.push_back(array[0]);
  EXPECT_EQ(array.size(), 101U);
  EXPECT_EQ(array[100], Value("a"));
  array.push_back(array);
  EXPECT_EQ(array[101].asArray()->size(), 101U);
  Array one{1};
  one.erase(0);
  EXPECT_TRUE(one.empty());
  EXPECT_EQ(Value(one), Value(Array{}));
}

TEST(Dictionaries, AreWalkedInTheOrderOfTheirKeysBytes) {
  const Dictionary dictionary{{"b", 1}, {"", 2}, {"\xC3\xA9", 3}, {"B", 4}, {"ba", 5}};
  std::string keys;
  for (const auto& [key, value] : dictionary) keys += key.str() + ",";
  EXPECT_EQ(keys, ",B,b,ba,\xC3\xA9,");
}

TEST(Dictionaries, KeepTheLaterOfEqualKeysAndNoNulls) {
  const Dictionary dictionary{{"a", 1}, {"b", 2}, {"a", 3}, {"c", Value()}, {"b", Value()}};
  EXPECT_EQ(Value(dictionary), Value(Dictionary{{"a", 3}}));
  EXPECT_TRUE((Dictionary{{"a", Value()}}).empty());
}

TEST(Dictionaries, ChangeOneCopyOnly) {
  Dictionary first{{"a", 1}, {"b", 2}};
  Dictionary second = first;
  second.set("a", 5);
  second.set("c", 6);
  EXPECT_EQ(Value(first), Value(Dictionary{{"a", 1}, {"b", 2}}));
  EXPECT_EQ(Value(second), Value(Dictionary{{"a", 5}, {"b", 2}, {"c", 6}}));
  Dictionary third = second;
  third.erase("b");
  third.set("a", Value());
  EXPECT_EQ(Value(third), Value(Dictionary{{"c", 6}}));
  EXPECT_EQ(second.size(), 3U);
}

TEST(Dictionaries, ChangeInPlaceForASoleOwner) {
  Dictionary dictionary{{"a", 1}, {"b", 2}};
  const void* before = dictionary.identity();
  dictionary.set("a", "changed");
  dictionary.erase("b");
  EXPECT_EQ(dictionary.identity(), before);
  dictionary.erase(dictionary.begin()->key);
  EXPECT_TRUE(dictionary.empty());
  EXPECT_EQ(dictionary.identity(), nullptr);
}

TEST(Dictionaries, AreEditedInPlaceAndInOneCopyOnly) {
  Dictionary first{{"a", Array{1}}, {"b", 2}};
  const Dictionary second = first;
  *first.edit("b") = 3;
  EXPECT_EQ(Value(first), Value(Dictionary{{"a", Array{1}}, {"b", 3}}));
  EXPECT_EQ(Value(second), Value(Dictionary{{"a", Array{1}}, {"b", 2}}));
  const void* before = first.identity();
  *first.edit("a") = "changed";
  EXPECT_EQ(first.identity(), before);
  EXPECT_EQ(first["a"], Value("changed"));
  EXPECT_EQ(first.edit("c"), nullptr);
}

TEST(Dictionaries, FindWhatIsThereAndNothingElse) {
  const Dictionary dictionary{{"b", 1}, {"d", false}};
  EXPECT_EQ(*dictionary.find("b"), Value(1));
  EXPECT_TRUE(dictionary.contains("d"));
  for (const char* key : {"", "a", "c", "e", "bb"}) {
    EXPECT_EQ(dictionary.find(key), nullptr);
    EXPECT_TRUE(dictionary[key].isNull());
  }
  EXPECT_EQ(Value(dictionary)["b"], Value(1));
  EXPECT_TRUE(Value(dictionary)["x"].isNull());
  EXPECT_TRUE(Value("text")["x"].isNull());
  EXPECT_TRUE(Value(Dictionary{})["x"].isNull());
}

TEST(Dictionaries, FollowAPlainMap) {
  std::vector<std::pair<std::string, int>> plain;
  Dictionary dictionary;
  std::uint32_t state = 7;
  for (int i = 0; i < 3000; ++i) {
    state = state * 1664525 + 1013904223;
    const std::string key = std::to_string(state >> 24);
    std::erase_if(plain, [&](const auto& entry) { return entry.first == key; });
    if (state % 3 == 0) {
      dictionary.erase(key);
    } else {
      dictionary.set(key, i);
      plain.emplace_back(key, i);
    }
  }
  EXPECT_EQ(dictionary.size(), plain.size());
  for (const auto& [key, value] : plain) EXPECT_EQ(dictionary[key], Value(value)) << key;
}

TEST(Values, BecomeNullWhenMovedFrom) {
  Value value("text");
  const Value moved = std::move(value);
  EXPECT_TRUE(value.isNull());  // NOLINT(bugprone-use-after-move): the state after a move is meant
  EXPECT_EQ(moved, Value("text"));
}

TEST(Values, SurviveAssignmentFromTheirOwnMembers) {
  Value value = deepArray(10, "innermost");
  while (value.kind() == Value::Kind::kArray) value = Value((*value.asArray())[0]);
  EXPECT_EQ(value, Value("innermost"));
}

TEST(DeepValues, AreFreedComparedAndDescribedWithoutRecursion) {
  for (const bool arrays : {true, false}) {
    const auto make = arrays ? deepArray : deepDictionary;
    const Value value = make(kDeep, 1);
    const Value equal = make(kDeep, true);
    const Value other = make(kDeep, 2);
    EXPECT_TRUE(value == equal);
    EXPECT_FALSE(Value::identical(value, equal));
    EXPECT_FALSE(value == other);
    EXPECT_GT(describe(value).size(), 2 * kDeep);
  }
}

TEST(DeepValues, OfManyBranchesAreFreed) {
  Value value = "leaf";
  for (int i = 0; i < 1000; ++i) value = Array{value, value, Dictionary{{"a", value}}};
  const Value copy = value;
  EXPECT_EQ(copy, value);
}

TEST(Values, AreReadAndCopiedByManyThreads) {
  const Value value = Dictionary{{"list", Array{1, "two", Data{"three"}}}, {"text", "x"}};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&value] {
      for (int round = 0; round < 2000; ++round) {
        Dictionary copy = *value.asDictionary();
        copy.set("text", round);
        Array list = *value["list"].asArray();
        list.push_back(copy);
        ASSERT_EQ(list.size(), 4U);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(value["text"], Value("x"));
  EXPECT_EQ(value["list"].asArray()->size(), 3U);
}

TEST(Values, OfAnArrayHandedOverAreChangedInPlaceByTheNextThread) {
  auto array = std::make_unique<Array>();
  for (int i = 0; i < 4; ++i) {
    std::thread([&array, i] { array->push_back(i); }).join();
  }
  EXPECT_EQ(Value(*array), Value(Array{0, 1, 2, 3}));
}

}  // namespace
}  // namespace thmp
