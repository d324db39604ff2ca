// SPDX-License-Identifier: Apache-2.0
#include "host/index/ValuePool.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/index/message_record.h"

namespace thmp {
namespace {

TEST(ValuePool, TakesInNoMoreValuesForOnePlaceThanItLooksAt) {
  std::vector<std::string> crowd;
  for (int i = 0; crowd.size() < 33; ++i) {
    std::string bytes = encodeValue("value " + std::to_string(i));
    if (fingerprint(bytes) % 128 == 0) crowd.push_back(std::move(bytes));
  }
  const std::string refused = crowd.back();
  crowd.pop_back();
  ValuePool pool(ValuePool::Use::kWriting);
  for (std::uint32_t number = 0; number < crowd.size(); ++number) {
    EXPECT_EQ(pool.intern(crowd[number], /*always=*/true), number);
  }
  EXPECT_EQ(pool.intern(refused, /*always=*/true), std::nullopt);
  for (std::uint32_t number = 0; number < crowd.size(); ++number) {
    EXPECT_EQ(pool.intern(crowd[number], /*always=*/false), number);
    EXPECT_EQ(pool.at(number)->value, decodeValue(crowd[number]));
  }
  // Elsewhere there is room.
  EXPECT_EQ(pool.intern(encodeValue("another"), /*always=*/true), crowd.size());
}

}  // namespace
}  // namespace thmp
