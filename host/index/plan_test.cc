// SPDX-License-Identifier: Apache-2.0
//
// Whatever the mail and whatever the query: the index answers as the evaluator does.
#include "host/index/plan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "host/index/Index.h"
#include "host/index/message_view.h"
#include "host/query/attributes.h"
#include "host/query/characters.h"
#include "host/query/evaluator.h"
#include "host/query/query_testing.h"
#include "host/store/MessageParser.h"
#include "host/store/test_support.h"

namespace thmp {
namespace {

using ::testing::HasSubstr;
using testing_support::TemporaryFolder;

const std::vector<std::string> kWords{"lake",
                                      "Lake",
                                      "LAKESIDE",
                                      "MyWindowClass",
                                      "window",
                                      "\xC3\x89t\xC3\xA9",
                                      "ete",
                                      "stra\xC3\x9F"
                                      "e",
                                      "STRASSE",
                                      "caf\xC3\xA9",
                                      "cafe\xCC\x81",
                                      "\xE6\x97\xA5\xE6\x9C\xAC",
                                      "report",
                                      "reports",
                                      "a",
                                      "B",
                                      "2024",
                                      "v2Beta",
                                      "foo-bar",
                                      "foo_bar",
                                      "x.y@z.org",
                                      "don't",
                                      "re:",
                                      "\xD0\x9C\xD0\xB8\xD1\x80"};
const std::vector<std::string> kPeople{
    "Ada Lovelace <ada@example.org>", "\"Lake, Bo\" <bo.lake@Example.org>", "carl@example.com",
    "=?utf-8?q?=C3=89ric?= <eric@example.fr>", "ADA <Ada@example.org>"};

// Makes messages and queries at random; the same for each seed.
class RandomMail {
 public:
  explicit RandomMail(std::uint64_t seed) : random_(seed) {}

  std::size_t below(std::size_t n) { return static_cast<std::size_t>(random_() % n); }
  const std::string& word() { return kWords[below(kWords.size())]; }

  std::string words(std::size_t most) {
    static const std::array<std::string, 5> kBetween{" ", "  ", "-", ", ", "\n"};
    std::string text;
    for (std::size_t n = below(most + 1); n > 0; --n) {
      text += word();
      if (n > 1) text += kBetween[below(kBetween.size())];
    }
    return text;
  }

  std::string oneLine(std::size_t most) {
    std::string text = words(most);
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
  }

  std::string people() {
    std::string list;
    for (std::size_t n = 1 + below(3); n > 0; --n) {
      list += kPeople[below(kPeople.size())] + (n > 1 ? ", " : "");
    }
    return list;
  }

  IndexEntry message(std::int64_t id) {
    std::string bytes = "Message-ID: <" + word() + std::to_string(id) + "@" + word() + ">\n";
    if (below(8) > 0) bytes += "From: " + kPeople[below(kPeople.size())] + "\n";
    if (below(8) > 0) bytes += "To: " + people() + "\n";
    if (below(3) == 0) bytes += "Cc: " + people() + "\n";
    if (below(6) == 0) bytes += "Bcc: " + people() + "\n";
    if (below(6) > 0) bytes += "Subject: " + oneLine(6) + "\n";
    if (below(6) == 0) bytes += "Keywords: " + word() + ", " + word() + "\n";
    if (below(8) == 0) bytes += "Comments: " + oneLine(4) + "\n";
    if (below(5) == 0) bytes += "Delivered-To: ada@example.org\n";
    if (below(6) > 0) {
      bytes += "Date: " + std::to_string(1 + below(28)) +
               " Mar 2024 10:20:" + std::to_string(10 + below(50)) + " +0000\n";
    }
    bytes += "Content-Type: text/plain; charset=utf-8\n\n" + words(30) + "\n";
    MessagePlace place;
    place.fileName = std::to_string(1'700'000'000 + below(1000)) + ".x" + std::to_string(id) +
                     (below(2) == 0 ? ":2,S" : ":2,F");
    place.mailboxIdentifier = below(3) == 0 ? "mailbox.inbox" : "mailbox.user";
    place.facts.size = static_cast<std::int64_t>(bytes.size());
    place.facts.inode = static_cast<std::uint64_t>(id) * 3;
    place.facts.modifiedSeconds = 1'700'000'000 + static_cast<std::int64_t>(below(100'000));
    place.facts.createdSeconds = 1'690'000'000 + static_cast<std::int64_t>(below(100));
    ParsedMessage parsed = MessageParser().parse(bytes, place);
    IndexEntry entry;
    entry.id = id;
    entry.mailbox = 1 + static_cast<std::int64_t>(below(3));
    entry.attributes = std::move(parsed.attributes);
    entry.queryOnly = std::move(parsed.queryOnly);
    entry.textContent = std::move(parsed.textContent);
    makeOdd(entry);
    return entry;
  }

  std::string query(int depth) {
    if (depth == 0 || below(3) == 0) return predicate();
    switch (below(5)) {
      case 0:
        return "!" + query(0);
      case 1:
        return "(" + query(depth - 1) + ")";
      case 2:
        return "(" + query(depth - 1) + " && " + query(depth - 1) + ")";
      case 3:
        return "!(" + query(depth - 1) + " || " + query(depth - 1) + ")";
      default:
        return "(" + query(depth - 1) + " || " + query(depth - 1) + ")";
    }
  }

 private:
  // What no parser makes, but a record can hold.
  void makeOdd(IndexEntry& entry) {
    switch (below(40)) {
      case 0:
        entry.attributes.set("kMDItemDisplayName", Value("odd lake"));
        break;
      case 1:
        entry.attributes.set("kMDItemFSSize", Value(std::int64_t{1} << 40));
        break;
      case 2:
        entry.attributes.set("kMDItemContentCreationDate", Value(Date{0.5}));
        break;
      case 3:
        entry.attributes.set("kMDItemAuthors", Value(Array{Value(7), Value("lake")}));
        break;
      default:
        break;
    }
  }

  std::string attribute() {
    static const std::array<std::string, 14> kOften{"kMDItemSubject",
                                                    "kMDItemTextContent",
                                                    "kMDItemAuthors",
                                                    "kMDItemEmailAddresses",
                                                    "*",
                                                    "**",
                                                    "kMDItemFSSize",
                                                    "kMDItemContentCreationDate",
                                                    "com_apple_mail_flagged",
                                                    "kMDItemMailboxes",
                                                    "kMDItemIdentifier",
                                                    "_kMDItemExternalID",
                                                    "kMDItemTitle",
                                                    "com_apple_mail_dateReceived"};
    if (below(3) > 0) return kOften[below(kOften.size())];
    const auto all = query::attributes();
    return std::string(all[below(all.size())].name);
  }

  std::string value() {
    static const std::array<std::string, 12> kTypical{"1",
                                                      "0",
                                                      "true",
                                                      "200",
                                                      "732000000.5",
                                                      "$time.iso(2024-03-10)",
                                                      "$time.this_month",
                                                      "\"2024-03-12\"",
                                                      "\"*\"",
                                                      "\"ada@example.org\"",
                                                      "\"mailbox.inbox\"",
                                                      "\"17\""};
    if (below(3) == 0) return kTypical[below(kTypical.size())];
    std::string text = oneLine(2);
    switch (below(6)) {
      case 0:
        text = "*" + text + "*";
        break;
      case 1:
        text += "*";
        break;
      case 2:
        text = text.substr(0, 1 + below(text.size() + 1)) + "*";
        break;
      case 3:
        if (!text.empty()) text[below(text.size())] = '?';
        break;
      default:
        break;
    }
    // A cut may have split a character.
    while (query::firstInvalidUtf8(text)) text.erase(*query::firstInvalidUtf8(text), 1);
    std::string quoted = "\"";
    for (const char c : text) {
      if (c == '"' || c == '\\') quoted += '\\';
      quoted += c;
    }
    return quoted + "\"";
  }

  std::string modifiers() {
    static const std::array<std::string, 9> kModifiers{"",  "c",   "d",  "cd", "cdw",
                                                       "w", "cdt", "cw", "cd"};
    return kModifiers[below(kModifiers.size())];
  }

  std::string modifiedValue() {
    std::string text = value();
    return text.front() == '$' ? text : text + modifiers();
  }

  std::string predicate() {
    static const std::array<std::string, 8> kOperators{
        "==", "==", "==", "!=", "<", "<=", ">", ">="};
    const std::size_t kind = below(12);
    if (kind == 0) return "InRange(" + attribute() + ", " + value() + ", " + value() + ")";
    if (kind == 1) {
      return "FieldMatch(" + attribute() + ", " + modifiedValue() + ", " + modifiedValue() + ")";
    }
    if (kind == 2 && below(4) == 0) return below(2) == 0 ? "true" : "false";
    return attribute() + " " + kOperators[below(kOperators.size())] + " " + modifiedValue();
  }

  std::mt19937_64 random_;
};

class IndexedAnswers : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override { open(); }

  void open() {
    index_.reset();
    auto opened = Index::open(folder_ / "index.sqlite", Index::Access::kReadWrite);
    ASSERT_TRUE(opened) << opened.error().text();
    index_ = std::move(*opened);
    index_->setTextSource([this](std::int64_t id, std::int64_t) { return texts_[id]; });
  }

  void put(std::int64_t id) {
    IndexEntry entry = mail_.message(id);
    texts_[id] = *entry.textContent;
    ASSERT_TRUE(index_->put(std::vector<IndexEntry>{entry}));
  }

  void putMany(std::int64_t first, std::int64_t count) {
    std::vector<IndexEntry> entries;
    for (std::int64_t id = first; id < first + count; ++id) {
      entries.push_back(mail_.message(id));
      texts_[id] = *entries.back().textContent;
    }
    ASSERT_TRUE(index_->put(entries));
  }

  // Arrives, changes, goes, is hidden, or the index is opened again: with the columns in their
  // file, or without.
  void disturb() {
    const auto any = [this] { return static_cast<std::int64_t>(1 + mail_.below(last_)); };
    switch (mail_.below(7)) {
      case 0:
      case 1:
        put(static_cast<std::int64_t>(++last_));
        break;
      case 2:
        put(any());
        break;
      case 3:
        ASSERT_TRUE(index_->remove(std::vector<std::int64_t>{any()}));
        break;
      case 4:
        index_->hideMailboxes(mail_.below(2) == 0 ? std::vector<std::int64_t>{2}
                                                  : std::vector<std::int64_t>{});
        break;
      case 5:
        if (mail_.below(4) == 0) std::filesystem::remove(folder_ / "index.sqlite-columns");
        open();
        break;
      default:
        ASSERT_TRUE(index_->settle());
        break;
    }
  }

  void compare(const std::string& text) {
    const std::optional<query::Query> query = query::parse(text, query::testOptions());
    if (!query) return;  // such as a $time with modifiers
    ++asked_;
    std::vector<std::int64_t> plain;
    ASSERT_TRUE(index_->forEachDescending([&](const IndexedMessage& message) {
      if (query::matches(*query, IndexedMessageView(message))) plain.push_back(message.id());
      return true;
    }));
    std::vector<std::int64_t> indexed;
    ASSERT_TRUE(index_->forEachMatch(*query, [&](const IndexedMessage& message) {
      indexed.push_back(message.id());
      return true;
    }));
    ASSERT_EQ(indexed, plain) << text << "\n" << describePlan(*query);
    if (!plain.empty()) ++found_;
  }

  static constexpr int kQueries = THMP_RANDOM_QUERIES;
  static constexpr std::int64_t kMessages = 120;

  TemporaryFolder folder_;
  RandomMail mail_{static_cast<std::uint64_t>(GetParam())};
  std::map<std::int64_t, std::string> texts_;
  std::unique_ptr<Index> index_;
  std::size_t last_ = kMessages;
  int asked_ = 0;
  int found_ = 0;
};

TEST_P(IndexedAnswers, AreThoseOfTheEvaluator) {
  putMany(1, kMessages);
  while (asked_ < kQueries && !HasFatalFailure()) compare(mail_.query(3));
  EXPECT_GT(found_, kQueries / 10);
}

TEST_P(IndexedAnswers, AreThoseOfTheEvaluatorWhileMessagesComeChangeAndGo) {
  putMany(1, kMessages / 2);
  last_ = kMessages / 2;
  while (asked_ < kQueries / 2 && !HasFatalFailure()) {
    disturb();
    compare(mail_.query(2));
  }
  EXPECT_GT(found_, kQueries / 50);
}

TEST(DescribedPlan, SaysOfEachPredicateHowItIsAnswered) {
  const std::vector<std::pair<std::string, std::string>> kWays{
      {"kMDItemAuthors == \"ada@x.org\"cd", "looked up among the distinct texts"},
      {"FieldMatch(kMDItemAuthors, a, b)", "looked up among the distinct texts"},
      {"kMDItemAuthors == \"ada*\"cd", "by looking through the distinct texts"},
      {"kMDItemSubject == \"l*ke\"cd", "by searching the folded subjects"},
      {"kMDItemTextContent == \"lake\"cd", "in the table of words"},
      {"kMDItemFSSize > 1000", "by ranges in a column of numbers"},
      {"InRange(kMDItemContentCreationDate, $time.today(-1), $time.today)",
       "by ranges in a column of numbers"},
      {"com_apple_mail_read == 0", "by the kinds of messages"},
      {"com_apple_mail_repliedTo == \"*\"", "by the kinds of messages"},
      {"kMDItemIdentifier == \"a@b\"", "by a column of hashes"},
      {"kMDItemSubject != \"lake\"", "; the rest is what counts"},
      {"* == \"lake\"cd", "in all columns and the table of words"},
      {"kMDItemURL == x", "by looking at each message"},
      {"weather == x", "no message has it"},
      {"true", "every message"}};
  for (const auto& [text, way] : kWays) {
    EXPECT_THAT(describePlan(*query::parse(text, query::testOptions())), HasSubstr(way)) << text;
  }
}

TEST(DescribedPlan, ShowsHowPredicatesAreCombined) {
  const auto query =
      query::parse("(kMDItemAuthors ==[cd] a || kMDItemFSSize == 1) && !(kMDItemFSSize == 2)",
                   query::testOptions());
  EXPECT_EQ(describePlan(*query),
            "what all of these have in common\n"
            "  what any of these finds\n"
            "    kMDItemAuthors == a [cd]: looked up among the distinct texts\n"
            "    kMDItemFSSize == 1: by ranges in a column of numbers\n"
            "  all but\n"
            "    kMDItemFSSize == 2: by ranges in a column of numbers\n");
}

INSTANTIATE_TEST_SUITE_P(OfRandomQueries, IndexedAnswers, ::testing::Range(1, 9));

}  // namespace
}  // namespace thmp
