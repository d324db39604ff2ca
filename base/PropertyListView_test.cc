// SPDX-License-Identifier: Apache-2.0
//
// What the list refuses is told where values are read: plist_binary_reader_test.cc.
#include "base/PropertyListView.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/binary_plist_bytes.h"

namespace thmp {
namespace {

using testing::array;
using testing::ascii;
using testing::binaryPropertyList;
using testing::byte;
using testing::container;
using testing::dictionary;

TEST(AListView, FindsMembersByTheirKeys) {
  std::vector<std::string> objects{""};
  std::vector<std::uint64_t> members;
  constexpr std::uint64_t kEntries = 60;
  for (std::uint64_t i = 0; i < kEntries; ++i) {
    objects.push_back(ascii("key" + std::to_string(i)));
    members.push_back(i + 1);
  }
  for (std::uint64_t i = 0; i < kEntries; ++i) members.push_back(kEntries - i);
  objects[0] = dictionary(members);
  const std::string bytes = binaryPropertyList(objects);
  const auto list = PropertyListView::open(bytes, kMessageLimits);
  ASSERT_TRUE(list);
  std::string room;
  for (std::uint64_t i = 0; i < kEntries; ++i) {
    const auto found = list->find(list->root(), "key" + std::to_string(i));
    ASSERT_TRUE(found) << i;
    EXPECT_EQ(list->bytes(*found, room), "key" + std::to_string(kEntries - 1 - i));
  }
  for (const char* absent : {"", "key", "key60", "kez", "a"}) {
    EXPECT_FALSE(list->find(list->root(), absent)) << absent;
  }
  EXPECT_FALSE(list->find(1, "key1")) << "a text has no members";
}

TEST(AListView, ReachesEachObjectOnceAndBehindWhatItHolds) {
  const std::string bytes = binaryPropertyList({array({1, 1, 3, 2}), array({2}), ascii("shared"),
                                                dictionary({2, 1}), ascii("nobody refers to it")});
  const auto list = PropertyListView::open(bytes, kMessageLimits);
  ASSERT_TRUE(list);
  EXPECT_EQ(list->reached(), (std::vector<PropertyListView::Object>{2, 1, 3, 0}));
  EXPECT_EQ(list->objectCount(), 5U);
}

TEST(AListView, ReadsReferencesOfEachSize) {
  for (unsigned size = 1; size <= 8; ++size) {
    const std::string bytes = binaryPropertyList(
        {container(0xD0, {1, 2}, size), ascii("k"), container(0xA0, {3, 1}, size), byte(0x09)},
        {.referenceSize = size});
    const auto list = PropertyListView::open(bytes, kMessageLimits);
    ASSERT_TRUE(list) << size;
    const auto elements = list->elements(*list->find(list->root(), "k"));
    ASSERT_EQ(elements.size(), 2U);
    EXPECT_EQ(elements[0], 3U);
    EXPECT_EQ(elements[1], 1U);
    EXPECT_EQ(list->plain(elements[0]), Value(true));
  }
}

}  // namespace
}  // namespace thmp
