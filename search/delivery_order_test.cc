// SPDX-License-Identifier: Apache-2.0
#include "search/delivery_order.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

namespace thmp {
namespace {

using ::testing::ElementsAre;

constexpr char kKey[] = "key";

SpotlightItem item(const std::string& identifier, Dictionary attributes = {}) {
  return {identifier, std::move(attributes), std::nullopt};
}

std::string order(const std::vector<SpotlightItem>& items,
                  const std::vector<std::string>& attributes, bool ascending = true) {
  std::string identifiers;
  for (const SpotlightItem* sorted : sortedItems(items, attributes, ascending)) {
    identifiers += sorted->identifier;
  }
  return identifiers;
}

/// The order of values given as a, b, c and so on.
std::string orderOf(const std::vector<Value>& values, bool ascending = true) {
  std::vector<SpotlightItem> items;
  char identifier = 'a';
  for (const Value& value : values) {
    items.push_back(item(std::string(1, identifier++)));
    items.back().attributes.set(kKey, value);
  }
  return order(items, {kKey}, ascending);
}

TEST(DeliveryOrder, AnyAttributeStandsAlone) {
  EXPECT_THAT(sortAttributes("kMDItemSubject"), ElementsAre("kMDItemSubject"));
  EXPECT_THAT(sortAttributes("kMDItemLastUsedDate"), ElementsAre("kMDItemLastUsedDate"));
  EXPECT_THAT(sortAttributes("kMDItemContentCreationDate"),
              ElementsAre("kMDItemContentCreationDate"));
  EXPECT_THAT(sortAttributes(""), ElementsAre(""));
}

TEST(DeliveryOrder, FileDatesFallBackToCreationAndReceipt) {
  EXPECT_THAT(sortAttributes("kMDItemFSContentChangeDate"),
              ElementsAre("kMDItemFSContentChangeDate", "kMDItemContentCreationDate",
                          "com_apple_mail_dateReceived"));
  EXPECT_THAT(sortAttributes("kMDItemFSCreationDate"),
              ElementsAre("kMDItemFSCreationDate", "kMDItemContentCreationDate",
                          "com_apple_mail_dateReceived"));
}

TEST(DeliveryOrder, DateReceivedStandsTwiceBeforeCreation) {
  EXPECT_THAT(sortAttributes("com_apple_mail_dateReceived"),
              ElementsAre("com_apple_mail_dateReceived", "com_apple_mail_dateReceived",
                          "kMDItemContentCreationDate"));
}

TEST(DeliveryOrder, WithoutAttributesNothingMoves) {
  EXPECT_EQ(order({item("c"), item("a"), item("b")}, {}), "cab");
  EXPECT_EQ(order({item("c"), item("a"), item("b")}, {}, /*ascending=*/false), "cab");
}

TEST(DeliveryOrder, KindsHaveRanks) {
  const std::vector<Value> values = {
      Dictionary{{"x", 1}}, Array{1}, "text",     Date{5}, 1, Value(), true,
      Value(Data{"x"}),     2.5,      Array{"z"}, Value()};
  // absent, number or boolean, date, text, array, anything else
  EXPECT_EQ(orderOf(values), "fkegidcbjah");
  EXPECT_EQ(orderOf(values, /*ascending=*/false), "ahjbcdiegfk");
}

TEST(DeliveryOrder, BooleansAreZeroAndOneAndAbsentElementsComeFirst) {
  EXPECT_EQ(orderOf({true, false, 0.5}), "bca");
  EXPECT_EQ(orderOf({Array{1}, Array{Value()}}), "ba");
}

TEST(DeliveryOrder, EqualItemsKeepTheirOrderInBothDirections) {
  EXPECT_EQ(orderOf({2, 1, 2, 1.0, true}), "bdeac");
  EXPECT_EQ(orderOf({2, 1, 2, 1.0, true}, /*ascending=*/false), "acbde");
}

TEST(DeliveryOrder, NumbersAreComparedByValueAndExactly) {
  constexpr std::int64_t kTwoTo53 = std::int64_t{1} << 53;
  EXPECT_EQ(orderOf({kTwoTo53 + 1, static_cast<double>(kTwoTo53), kTwoTo53, kTwoTo53 - 1}), "dbca");
  EXPECT_EQ(
      orderOf(
          {std::numeric_limits<std::uint64_t>::max(), std::numeric_limits<std::uint64_t>::max() - 1,
           std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::max() - 1,
           9223372036854775808.0, std::numeric_limits<std::int64_t>::min(), -9223372036854775808.0,
           18446744073709551616.0, -1e300, 1e300}),
      "ifgdcebahj");
  EXPECT_EQ(orderOf({0.5, 0, -0.5, -1, 1, -0.0}), "dcbfae");
}

TEST(DeliveryOrder, NaNComesLastInItsKind) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(orderOf({nan, infinity, 1, nan, -infinity, "t", Date{nan}, Date{7}}), "ecbadhgf");
}

TEST(DeliveryOrder, DatesAreComparedByTime) {
  EXPECT_EQ(orderOf({Date{3.5}, Date{-1}, Date{3.25}}), "bca");
}

TEST(DeliveryOrder, TextsAreComparedByCodePointWithoutLocale) {
  EXPECT_EQ(orderOf({"b", "B", "a", "", "\u00e4", "\U0001F600", "\uffee"}), "dbcaegf");
}

TEST(DeliveryOrder, TextsAreComparedAfterComposition) {
  // "a" with a combining diaeresis is the single letter, before U+00E5 and after "z".
  EXPECT_EQ(orderOf({"\u00e5", "a\u0308", "z", "\u00e4"}), "cbda");
}

TEST(DeliveryOrder, TextsThatAreNotUtf8HaveAnOrder) {
  const std::string surrogate = "\xed\xa0\x80";
  EXPECT_EQ(orderOf({"\xff\xfe", surrogate, "a", std::string("a\0b", 3), "\xff"}), "cdbea");
}

TEST(DeliveryOrder, ArraysAreComparedElementByElementTheShorterFirst) {
  EXPECT_EQ(orderOf({Array{"b"}, Array{"a", "b"}, Array{"a"}, Array{}, Array{1}, Array{"a", 2}}),
            "decfba");
  // A list of one array would be that array itself to some compilers.
  const auto nested = [](Array inner) { return Array{Value(std::move(inner))}; };
  Array nestedAndMore = nested(Array{"a"});
  nestedAndMore.push_back("z");
  EXPECT_EQ(orderOf({nested(Array{"b"}), nestedAndMore, Array{"z"}, nested(Array{})}), "cdba");
}

TEST(DeliveryOrder, AnythingElseIsEqual) {
  EXPECT_EQ(orderOf({Dictionary{{"b", 1}}, Value(Data{"z"}), Dictionary{{"a", 1}}}), "abc");
}

TEST(DeliveryOrder, ArraysMayNestDeeply) {
  Value deep = Array{};
  for (int i = 0; i < 100'000; ++i) deep = Array{deep};
  Value deeper = Array{deep};
  EXPECT_EQ(orderOf({deeper, deep, deeper}), "bac");
}

TEST(DeliveryOrder, LaterAttributesOrderWhatIsEqualInEarlierOnes) {
  const std::vector<SpotlightItem> items = {
      item("a", {{"first", 1}, {"second", 2}}), item("b", {{"first", 1}, {"second", 1}}),
      item("c", {{"second", 0}}), item("d", {{"first", Array{1}}, {"second", 0}}),
      item("e", {{"first", 1}})};
  EXPECT_EQ(order(items, {"first", "second"}), "cebad");
  EXPECT_EQ(order(items, {"first", "second"}, /*ascending=*/false), "dabec");
}

TEST(DeliveryOrder, AttributeNameIsTakenWhole) {
  const std::vector<SpotlightItem> items = {item("a", {{"x.y", 2}, {"x", Dictionary{{"y", 1}}}}),
                                            item("b", {{"x.y", 1}, {"x", Dictionary{{"y", 2}}}})};
  EXPECT_EQ(order(items, {"x.y"}), "ba");
  EXPECT_EQ(order({item("a", {{"@count", 2}}), item("b", {{"@count", 1}})}, {"@count"}), "ba");
}

/// Whatever stands under the key, the order is the same however the items come, but for equal ones.
TEST(DeliveryOrder, MixedKeysHaveOneOrderHoweverTheyCome) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const std::vector<Value> values = {
      Value(), nan,      1,      2.5,          "x",           "",  true, Date{1}, Date{nan},
      Array{}, Array{1}, "\xff", Dictionary(), Array{nan, 1}, -0.0};
  std::mt19937 random(7);
  for (int round = 0; round < 10; ++round) {
    std::vector<SpotlightItem> items;
    for (std::size_t i = 0; i < 800; ++i) {
      const std::size_t kind = random() % values.size();
      items.push_back(item(std::to_string(kind)));
      items.back().attributes.set(kKey, values[kind]);
    }
    for (const bool ascending : {true, false}) {
      const auto sorted = sortedItems(items, {kKey}, ascending);
      // In order, and each pair's order is not contradicted by sorting the pair alone.
      for (std::size_t i = 1; i < sorted.size(); ++i) {
        const std::vector<SpotlightItem> pair = {*sorted[i - 1], *sorted[i]};
        EXPECT_EQ(sortedItems(pair, {kKey}, ascending).front(), &pair.front());
      }
      EXPECT_EQ(sorted.size(), items.size());
    }
  }
}

TEST(DeliveryOrder, ManyItemsThatAllLackTheKeyKeepTheirOrder) {
  std::vector<SpotlightItem> items;
  items.reserve(5000);
  for (int i = 0; i < 5000; ++i) items.push_back(item(std::to_string(i)));
  for (const bool ascending : {true, false}) {
    const auto sorted = sortedItems(items, {"missing", "missing too"}, ascending);
    EXPECT_TRUE(std::is_sorted(sorted.begin(), sorted.end()));
  }
}

}  // namespace
}  // namespace thmp
