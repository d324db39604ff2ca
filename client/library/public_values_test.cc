// SPDX-License-Identifier: Apache-2.0
#include "client/library/public_values.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "messaging/message_names.h"

namespace thmp::client {
namespace {

using Strings = std::vector<std::string>;

tallyhive::Message messageWith(const Value& attribute) {
  return publicMessage({{kAttributesKey, Dictionary{{"a", attribute}}}});
}

TEST(PublicMessage, HasItsPlaceAndItsFile) {
  const tallyhive::Message message =
      publicMessage({{kLibraryIDKey, 4711}, {kIndexKey, 3}, {kPathKey, "/mail/cur/1"}});
  EXPECT_EQ(message.libraryID, 4711U);
  EXPECT_EQ(message.index, 3U);
  EXPECT_EQ(message.path, "/mail/cur/1");
  EXPECT_TRUE(message.attributes.empty());
}

TEST(PublicMessage, KeepsEachKindOfAttribute) {
  EXPECT_EQ(*messageWith("plum").get<std::string>("a"), "plum");
  EXPECT_EQ(*messageWith(true).get<bool>("a"), true);
  EXPECT_EQ(*messageWith(-7).get<std::int64_t>("a"), -7);
  EXPECT_EQ(*messageWith(1.5).get<double>("a"), 1.5);
  EXPECT_EQ(*messageWith(Array{"x", "y"}).get<Strings>("a"), (Strings{"x", "y"}));
  EXPECT_EQ(messageWith(Array{Data{"xy"}}).get<std::vector<tallyhive::Bytes>>("a")->at(0).size(),
            2U);
  const auto headers = messageWith(Dictionary{{"to", Array{"x", "y"}}});
  EXPECT_EQ(headers.get<tallyhive::Headers>("a")->at("to"), (Strings{"x", "y"}));
}

TEST(PublicMessage, GivesNothingForAnAttributeOfAnotherKind) {
  EXPECT_EQ(messageWith("plum").get<bool>("a"), nullptr);
  EXPECT_EQ(messageWith("plum").get<std::string>("b"), nullptr);
}

TEST(PublicMessage, GivesDatesToTheMillisecondOnEitherSideOf1970) {
  const auto milliseconds = [](double unixSeconds) {
    return messageWith(Date::fromUnixSeconds(unixSeconds))
        .get<tallyhive::Instant>("a")
        ->time_since_epoch()
        .count();
  };
  EXPECT_EQ(milliseconds(1'746'439'200.25), 1'746'439'200'250);
  EXPECT_EQ(milliseconds(-0.5), -500);
}

TEST(PublicMessage, HoldsDatesThatNoCalendarKnows) {
  constexpr double kInfinite = std::numeric_limits<double>::infinity();
  EXPECT_GT(*messageWith(Date{kInfinite}).get<tallyhive::Instant>("a"), tallyhive::Instant());
  EXPECT_LT(*messageWith(Date{-kInfinite}).get<tallyhive::Instant>("a"), tallyhive::Instant());
  const Date none{std::numeric_limits<double>::quiet_NaN()};
  EXPECT_EQ(*messageWith(none).get<tallyhive::Instant>("a"), tallyhive::Instant());
}

TEST(PublicMessages, AreThoseOfTheBatchInItsOrder) {
  const Value batch = Dictionary{
      {kMessagesKey, Array{Dictionary{{kLibraryIDKey, 9}}, Dictionary{{kLibraryIDKey, 2}}}}};
  const std::vector<tallyhive::Message> messages = publicMessages(batch);
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_EQ(messages[0].libraryID, 9U);
  EXPECT_EQ(messages[1].libraryID, 2U);
}

TEST(PublicRemovals, LeaveOutWhatIsNoNumber) {
  const Value batch =
      Dictionary{{kMessageIDsKey, Array{"12", "x", "3x", "", "18446744073709551615"}}};
  EXPECT_EQ(publicRemovals(batch),
            (std::vector<std::uint64_t>{12, std::numeric_limits<std::uint64_t>::max()}));
}

}  // namespace
}  // namespace thmp::client
