// SPDX-License-Identifier: Apache-2.0
#include "client/report_page.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace thmp::client {
namespace {

Dictionary message(const std::string& author, const std::string& address,
                   const std::string& subject, const char* date) {
  return {{"kMDItemPath", "/mail/cur/1"},
          {"attributes", Dictionary{{"kMDItemAuthors", Array{author}},
                                    {"kMDItemAuthorEmailAddresses", Array{address}},
                                    {"kMDItemDisplayName", subject},
                                    {"com_apple_mail_dateReceived", *Date::fromIso8601(date)}}}};
}

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t found = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) {
    ++found;
  }
  return found;
}

TEST(ReportPage, EscapesAllThatMailAndUserSay) {
  MailSummary summary({});
  summary.add(message("<script>alert(1)</script>", "\"><img src=x onerror=y>@x",
                      "</title></svg><b>'&\x1b[2J\u202Eevil", "2026-01-05T00:00:00Z"));
  const std::string page =
      reportPage(summary, {"<i>query</i>", "kMDItemSubject == \"<u>\"", "2026-01-05 <s>"});
  for (const char* hostile : {"<script", "<img", "<b>", "<i>", "<u>", "<s>", "\x1b", "\u202E"}) {
    EXPECT_EQ(page.find(hostile), std::string::npos) << hostile;
  }
  EXPECT_NE(page.find("&lt;script&gt;alert(1)&lt;/script&gt;"), std::string::npos);
  EXPECT_NE(page.find("&lt;/title&gt;&lt;/svg&gt;&lt;b&gt;&#39;&amp;"), std::string::npos);
}

TEST(ReportPage, StandsAlone) {
  MailSummary summary({});
  summary.add(message("Ada", "ada@x", "http://tracker.example/", "2026-01-05T00:00:00Z"));
  const std::string page = reportPage(summary, {"", "", "now"});
  for (const char* outside : {"<script", "src=", "href=", "url(", "@import", "<link"}) {
    EXPECT_EQ(page.find(outside), std::string::npos) << outside;
  }
  EXPECT_NE(page.find("default-src 'none'"), std::string::npos);
  EXPECT_NE(page.find("prefers-color-scheme: dark"), std::string::npos);
}

TEST(ReportPage, NamesCountsTimelineEndsAndCorrespondents) {
  MailSummary summary({});
  summary.add(message("Ada", "ada@x", "The first", "2026-01-05T10:00:00Z"));
  summary.add(message("Ada", "ada@x", "Between", "2026-01-06T10:00:00Z"));
  summary.add(message("Bo", "bo@x", "The last", "2026-03-05T10:00:00Z"));
  const std::string page = reportPage(summary, {"with:x", "p", "now"});
  EXPECT_NE(page.find("<bdi>with:x</bdi>"), std::string::npos);
  EXPECT_EQ(count(page, "<g class=\"bar\">"), 2U) << "a month without mail has no bar";
  EXPECT_NE(page.find("January 2026: 2 received, 0 sent"), std::string::npos);
  EXPECT_NE(page.find(">Mar 2026</text>"), std::string::npos);
  EXPECT_NE(page.find("The first"), std::string::npos);
  EXPECT_NE(page.find("The last"), std::string::npos);
  EXPECT_EQ(page.find("Between"), std::string::npos);
  EXPECT_LT(page.find("<bdi>ada@x</bdi>"), page.find("<bdi>bo@x</bdi>"));
}

TEST(ReportPage, SizeDoesNotGrowWithTheMail) {
  MailSummary summary({});
  for (int i = 0; i < 3000; ++i) {
    const std::string who = "somebody" + std::to_string(i) + "@x";
    summary.add(message(who, who, std::string(5000, 'x'), "2026-01-05T10:00:00Z"));
  }
  EXPECT_LT(reportPage(summary, {"", "", "now"}).size(), 40'000U);
}

TEST(ReportPage, OfMailWithoutDatesHasNoChart) {
  MailSummary summary({});
  summary.add({});
  const std::string page = reportPage(summary, {"", "", "now"});
  EXPECT_EQ(page.find("<figure"), std::string::npos);
  EXPECT_NE(page.find("<dd>1</dd>"), std::string::npos);
}

TEST(ReportPage, OneMessageBesideThousandsIsSeen) {
  MailSummary summary({"me@x"});
  for (int i = 0; i < 5000; ++i) {
    summary.add(message("Ada", "ada@x", "a", "2026-01-05T10:00:00Z"));
  }
  summary.add(message("Me", "me@x", "b", "2026-01-05T10:00:00Z"));
  const std::string page = reportPage(summary, {"", "", "now"});
  EXPECT_NE(page.find("height=\"1.5\" rx=\"1.5\"/></g>"), std::string::npos);
}

TEST(ReportPage, YearsHaveTheirNamesUnderMailOfManyYears) {
  MailSummary summary({});
  for (int year = 1826; year < 2026; ++year) {
    const std::string date = std::to_string(year) + "-06-05T10:00:00Z";
    summary.add(message("Ada", "ada@x", "s", date.c_str()));
  }
  const std::string page = reportPage(summary, {"", "", "now"});
  std::size_t years = 0;
  for (int year = 1820; year < 2026; ++year) {
    years += count(page, ">" + std::to_string(year) + "</text>");
  }
  EXPECT_GE(years, 3U);
  EXPECT_NE(page.find("<th scope=\"col\">Time</th>"), std::string::npos);
}

TEST(ReportPage, JanuariesAreNamedUnderMailOfSomeYears) {
  MailSummary summary({});
  for (int month = 0; month < 48; ++month) {
    const std::string number = std::to_string(month % 12 + 1);
    const std::string date = std::to_string(2020 + month / 12) + (number.size() == 1 ? "-0" : "-") +
                             number + "-05T10:00:00Z";
    summary.add(message("Ada", "ada@x", "s", date.c_str()));
  }
  const std::string page = reportPage(summary, {"", "", "now"});
  for (const char* year : {">2020</text>", ">2021</text>", ">2022</text>", ">2023</text>"}) {
    EXPECT_EQ(count(page, year), 1U) << year;
  }
  EXPECT_EQ(page.find(">Feb 2021</text>"), std::string::npos);
}

TEST(ReportPage, WhatIsMissingHasWordsForIt) {
  MailSummary summary({});
  summary.add(message("", "", "", "2026-01-05T10:00:00Z"));
  summary.add(Dictionary{{"attributes", Dictionary{{"kMDItemDisplayName", "undated"}}}});
  const std::string page =
      reportPage(summary, {std::string(500, 'q'), "kMDItemSubject == \"q\"", "now"});
  EXPECT_NE(page.find("No subject"), std::string::npos);
  EXPECT_EQ(page.find("Received from"), std::string::npos);
  EXPECT_NE(page.find("without a date and not shown: 1"), std::string::npos);
  EXPECT_NE(page.find("<h1 class=\"long\">"), std::string::npos);
  EXPECT_NE(page.find("The query as a predicate"), std::string::npos);
  EXPECT_EQ(reportPage(summary, {"p", "p", "now"}).find("as a predicate"), std::string::npos);
}

TEST(ReportPage, LargeNumbersAreReadInGroups) {
  MailSummary summary({});
  for (int i = 0; i < 12'345; ++i) {
    summary.add(message("Ada", "ada@x", "s", "2026-01-05T10:00:00Z"));
  }
  EXPECT_NE(reportPage(summary, {"", "", "now"}).find("12\u202F345"), std::string::npos);
}

TEST(HtmlText, IsCutByColumnsNotInsideAnEscape) {
  EXPECT_EQ(escapedForHtml("<<<<", 3), "&lt;&lt;…");
  EXPECT_EQ(escapedForHtml("a\tb", 9), "a b");
}

}  // namespace
}  // namespace thmp::client
