// SPDX-License-Identifier: Apache-2.0
#include "client/MailSummary.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <utility>

namespace thmp::client {
namespace {

class Summary : public testing::Test {
 protected:
  void SetUp() override {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
  }
  void TearDown() override {
    ::unsetenv("TZ");
    ::tzset();
  }

  // A message from `author`, received on `date`.
  void add(const char* author, const char* date, std::string path = "/mail/cur/1",
           Dictionary more = {}) {
    more.set("kMDItemAuthors", Value(Array{author}));
    more.set("kMDItemAuthorEmailAddresses", Value(Array{author}));
    if (date != nullptr) {
      more.set("com_apple_mail_dateReceived", Value(*Date::fromIso8601(date)));
    }
    summary_.add({{"kMDItemPath", std::move(path)}, {"attributes", std::move(more)}});
  }

  MailSummary summary_{{"Me@Example.org"}};
};

TEST_F(Summary, CountsByMonthWithoutGaps) {
  add("ada@x", "2025-11-30T23:59:59Z");
  add("ada@x", "2026-01-01T00:00:00Z");
  add("ada@x", "2026-01-31T10:00:00Z");
  const std::vector<MonthCount> expected = {
      {Month::of(2025, 11), {0, 1}}, {Month::of(2025, 12), {0, 0}}, {Month::of(2026, 1), {0, 2}}};
  EXPECT_EQ(summary_.months(), expected);
}

TEST_F(Summary, MonthsAreThoseOfTheUsersZone) {
  ::setenv("TZ", "EST5", 1);
  ::tzset();
  add("ada@x", "2026-01-01T04:00:00Z");
  EXPECT_EQ(summary_.months().front().month.text(), "2025-12");
}

TEST_F(Summary, MessageWithoutADateIsCountedAndInNoMonth) {
  add("ada@x", nullptr);
  EXPECT_EQ(summary_.total(), (MailCount{0, 1}));
  EXPECT_EQ(summary_.undated(), 1U);
  EXPECT_TRUE(summary_.months().empty());
  EXPECT_EQ(summary_.first(), nullptr);
}

TEST_F(Summary, SentIsWhatLiesInAMailboxOfSentMail) {
  add("ada@x", "2026-01-01T00:00:00Z", "/mail/.Sent/cur/1");
  EXPECT_EQ(summary_.total(), (MailCount{1, 0}));
}

TEST_F(Summary, SentIsWhatAnOwnAddressWrote) {
  add("me@example.ORG", "2026-01-01T00:00:00Z");
  EXPECT_EQ(summary_.total(), (MailCount{1, 0}));
}

TEST_F(Summary, SentIsWhatTheAccountsAddressWrote) {
  add("other@x", "2026-01-01T00:00:00Z", "/mail/cur/1",
      {{"kMDItemAccountHandles", Array{"OTHER@x"}}});
  add("ada@x", "2026-01-01T00:00:00Z", "/mail/cur/2",
      {{"kMDItemAccountHandles", Array{"other@x"}}});
  EXPECT_EQ(summary_.total(), (MailCount{1, 1}));
}

TEST_F(Summary, CorrespondentsOfSentMailAreItsRecipientsEachOnce) {
  add("me@example.org", "2026-01-01T00:00:00Z", "/mail/cur/1",
      {{"kMDItemRecipients", Array{"Ada", "Bo", "Ada again"}},
       {"kMDItemRecipientEmailAddresses", Array{"ada@x", "bo@x", "ADA@x"}}});
  const std::vector<Correspondent> top = summary_.topCorrespondents(10);
  ASSERT_EQ(top.size(), 2U);
  EXPECT_EQ(top[0].address, "ada@x");
  EXPECT_EQ(top[0].name, "Ada");
  EXPECT_EQ(top[0].count, (MailCount{1, 0}));
  EXPECT_EQ(top[1].address, "bo@x");
}

TEST_F(Summary, TopCorrespondentsAreThoseWithTheMostMessages) {
  for (const char* author : {"c@x", "b@x", "b@x", "a@x"}) add(author, "2026-01-01T00:00:00Z");
  const std::vector<Correspondent> top = summary_.topCorrespondents(2);
  ASSERT_EQ(top.size(), 2U);
  EXPECT_EQ(top[0].address, "b@x");
  EXPECT_EQ(top[1].address, "a@x") << "of equal ones in the order of their addresses";
  EXPECT_EQ(summary_.correspondentCount(), 3U);
}

TEST_F(Summary, NameTakesThePlaceOfAnAddress) {
  add("ada@x", "2026-01-01T00:00:00Z");
  Dictionary named = {{"kMDItemAuthors", Array{"Ada"}},
                      {"kMDItemAuthorEmailAddresses", Array{"ada@x"}}};
  summary_.add({{"attributes", named}});
  EXPECT_EQ(summary_.topCorrespondents(1)[0].name, "Ada");
}

TEST_F(Summary, FirstAndLastGoByDateNotByArrival) {
  add("b@x", "2026-02-01T00:00:00Z", "/mail/cur/1", {{"kMDItemDisplayName", "middle"}});
  add("c@x", "2026-03-01T00:00:00Z", "/mail/cur/1", {{"kMDItemDisplayName", "late"}});
  add("a@x", "2026-01-01T00:00:00Z", "/mail/cur/1", {{"kMDItemDisplayName", "early"}});
  ASSERT_NE(summary_.first(), nullptr);
  EXPECT_EQ(summary_.first()->subject, "early");
  EXPECT_EQ(summary_.first()->correspondent, "a@x");
  EXPECT_EQ(summary_.last()->subject, "late");
}

TEST_F(Summary, TakesItemsOfAnyShape) {
  summary_.add({});
  summary_.add({{"attributes", 7}, {"kMDItemPath", Array{}}});
  summary_.add({{"attributes", Dictionary{{"kMDItemAuthorEmailAddresses", Array{7, ""}},
                                          {"com_apple_mail_dateReceived", Date{1e300}}}}});
  EXPECT_EQ(summary_.total().total(), 3U);
  EXPECT_EQ(summary_.undated(), 3U);
  EXPECT_EQ(summary_.correspondentCount(), 0U);
}

TEST(SentMailbox, IsKnownByItsNameInEveryLayout) {
  for (const char* path : {"/m/.Sent/cur/1", "/m/Sent Items/new/1", "/m/.Archive.Sent.2024/cur/1",
                           "/m/SENT/1.eml", "/m/Sent Messages.mbox/A/Data/Messages/1.emlx"}) {
    EXPECT_TRUE(isInSentMailbox(path)) << path;
  }
  for (const char* path : {"/Sent/mail/cur/1", "/m/.Consent/cur/1", "/m/cur/sent", "", "sent"}) {
    EXPECT_FALSE(isInSentMailbox(path)) << path;
  }
}

}  // namespace
}  // namespace thmp::client
