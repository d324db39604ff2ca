// SPDX-License-Identifier: Apache-2.0
//
// Whatever the list: its JSON is that of the value it stands for.
#include "console/PropertyListJson.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "base/plist.h"
#include "console/json_text.h"
#include "tests/support/binary_plist_bytes.h"
#include "tests/support/random_values.h"

namespace thmp::console {
namespace {

using thmp::testing::array;
using thmp::testing::ascii;
using thmp::testing::binaryPropertyList;
using thmp::testing::byte;
using thmp::testing::dictionary;

std::string listJsonOf(std::string_view bytes) {
  const auto list = PropertyListView::open(bytes, kBatchLimits);
  if (!list) return "no list";
  fmt::memory_buffer json;
  PropertyListJson(*list).append(list->root(), json);
  return fmt::to_string(json);
}

std::string valueJsonOf(std::string_view bytes) {
  fmt::memory_buffer json;
  appendJson(*readBinaryPropertyList(bytes, kBatchLimits), json);
  return fmt::to_string(json);
}

constexpr std::array<std::string_view, 7> kListPieces{
    "plum", "a longer text than a block has", "\"", "\xC3\xA9", "\xF0\x9F\x8D\x91", "\n", "\xFF"};

TEST(PropertyListJson, IsThatOfTheValue) {
  for (std::uint32_t seed = 0; seed < 2000; ++seed) {
    thmp::testing::RandomValues random(seed, kListPieces);
    Array values;
    while (values.size() < 4) values.push_back(random.value(4));
    const auto bytes = writeBinaryPropertyList(values);
    if (!bytes) continue;  // a date that is no time
    ASSERT_EQ(listJsonOf(*bytes), valueJsonOf(*bytes)) << seed;
  }
}

TEST(PropertyListJson, HasTheKeysInOrderAndTheLastOfEqualOnes) {
  const std::string wideA = std::string("\x61\x00", 2) + "a";
  const std::string bytes = binaryPropertyList(
      {dictionary({1, 2, 3, 4, 5, 6, 7, 8}), ascii("b"), ascii("a"), wideA, ascii("b"), byte(0x08),
       byte(0x09), byte(0x10) + "\x07", byte(0x10) + "\x08"});
  EXPECT_EQ(listJsonOf(bytes), R"({"a":7,"b":8})");
}

TEST(PropertyListJson, OfSharedObjectsStandsAtEachPlace) {
  const std::string bytes =
      binaryPropertyList({array({1, 1, 3, 2}), array({2}), ascii("shared"), dictionary({2, 1})});
  EXPECT_EQ(listJsonOf(bytes), R"([["shared"],["shared"],{"shared":["shared"]},"shared"])");
}

TEST(PropertyListJson, OfAPartIsMadeByItself) {
  const std::string bytes = binaryPropertyList(
      {dictionary({1, 2, 3, 4}), ascii("a"), ascii("b"), array({1, 2}), byte(0x09)});
  const auto list = PropertyListView::open(bytes, kBatchLimits);
  ASSERT_TRUE(list);
  PropertyListJson parts(*list);
  fmt::memory_buffer json;
  for (const std::string_view key : {"b", "a", "b"}) parts.append(*list->find(0, key), json);
  EXPECT_EQ(fmt::to_string(json), R"(true["a","b"]true)");
}

}  // namespace
}  // namespace thmp::console
