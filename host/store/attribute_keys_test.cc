// SPDX-License-Identifier: Apache-2.0
#include "host/store/attribute_keys.h"

#include <gtest/gtest.h>

#include <set>

#include "host/query/attributes.h"

namespace thmp {
namespace {

constexpr int kFetched = static_cast<int>(AttributeKey::kFetchedCount);
constexpr int kFirstQueryOnly = static_cast<int>(AttributeKey::kBeforeQueryOnly) + 1;
constexpr int kEnd = static_cast<int>(AttributeKey::kEnd);

TEST(AttributeKeys, NumberTheAttributesOfEitherKindWithoutGaps) {
  std::set<int> numbers;
  for (const query::AttributeInfo& info : query::attributes()) {
    if (!info.number) continue;
    EXPECT_TRUE(numbers.insert(*info.number).second) << info.name;
    EXPECT_EQ(isQueryOnly(static_cast<AttributeKey>(*info.number)),
              info.use == query::AttributeUse::kQueryOnly)
        << info.name;
  }
  std::set<int> expected;
  for (int number = 0; number < kFetched; ++number) expected.insert(number);
  for (int number = kFirstQueryOnly; number < kEnd; ++number) expected.insert(number);
  EXPECT_EQ(numbers, expected);
}

// Stored records carry these numbers.
TEST(AttributeKeys, KeepTheNumbersOfStoredRecords) {
  EXPECT_EQ(static_cast<int>(AttributeKey::kExternalID), 0);
  EXPECT_EQ(static_cast<int>(AttributeKey::kSubject), 10);
  EXPECT_EQ(static_cast<int>(AttributeKey::kRead), 41);
  EXPECT_EQ(static_cast<int>(AttributeKey::kFinderLabel), 68);
  EXPECT_EQ(static_cast<int>(AttributeKey::kTitle), 128);
  EXPECT_EQ(static_cast<int>(AttributeKey::kTextContent), 132);
}

TEST(AttributeKeys, AreFoundByTheNamesThatTheyGive) {
  for (const query::AttributeInfo& info : query::attributes()) {
    const auto key = keyNamed(info.name);
    ASSERT_EQ(key.has_value(), info.number.has_value()) << info.name;
    if (key.has_value()) {
      EXPECT_EQ(keyText(*key).view(), info.name);
    }
  }
  EXPECT_EQ(keyText(AttributeKey::kSubject).view(), "kMDItemSubject");
  EXPECT_EQ(keyText(AttributeKey::kTextContent).view(), "kMDItemTextContent");
}

TEST(AttributeKeys, HaveNoneForAliasesAndOtherNames) {
  for (const char* name : {"subject", "", "kMDItemWhatever"}) EXPECT_FALSE(keyNamed(name)) << name;
}

}  // namespace
}  // namespace thmp
