// SPDX-License-Identifier: Apache-2.0
#include "base/DictionaryBuilder.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "base/plist.h"

namespace thmp {
namespace {

const Text& subject() {
  static const Text& key = *new Text(Text::forever("subject"));
  return key;
}

/// One value from a lender that is gone by then, and one text of its own.
Dictionary lentAndOwn() {
  const Dictionary lender{{"a", "lent"}};
  DictionaryBuilder builder(2, 100, lender);
  builder.appendLent(*lender.begin());
  builder.append(subject(), builder.text("own"));
  return builder.finish();
}

TEST(TextForever, IsLikeAnyOther) {
  const Text copy = subject();
  EXPECT_EQ(copy.view(), "subject");
  EXPECT_EQ(copy.identity(), subject().identity());
  EXPECT_EQ(Dictionary({{subject(), 1}})["subject"], Value(1));
  EXPECT_TRUE(Text::forever("").empty());
}

TEST(BuiltDictionary, HasTextsAndLentValuesAndThoseOfOthers) {
  const Text shared("shared by others");
  Dictionary lender{{"a", "lent"}, {"c", Array{1, "two"}}, {"e", 5}};
  DictionaryBuilder builder(8, 100, lender);
  builder.appendLent(lender.begin()[0]);
  builder.append("b", builder.text("its own"));
  builder.appendLent(lender.begin()[1]);
  builder.append("d", shared);
  builder.appendLent(lender.begin()[2]);
  EXPECT_EQ(builder.size(), 5U);
  const Dictionary built = builder.finish();
  const Dictionary expected{
      {"a", "lent"}, {"b", "its own"}, {"c", Array{1, "two"}}, {"d", "shared by others"}, {"e", 5}};
  EXPECT_TRUE(Value::identical(built, expected));
  EXPECT_EQ(writeBinaryPropertyList(built), writeBinaryPropertyList(expected));
}

TEST(BuiltDictionary, WithoutEntriesIsEmpty) {
  DictionaryBuilder builder(4, 100, {{"a", "lent"}});
  const Value unused = builder.text("not used");
  EXPECT_TRUE(builder.finish().empty());
  EXPECT_EQ(unused.asText(), "not used");
}

TEST(BuiltDictionary, KeepsItsLender) {
  const Dictionary built = lentAndOwn();
  EXPECT_EQ(built["a"].asText(), "lent");
}

TEST(BuiltDictionary, ValuesTakenFromItOutliveIt) {
  Value own;
  Value lent;
  {
    const Dictionary built = lentAndOwn();
    lent = built["a"];
    own = built["subject"];
  }
  EXPECT_EQ(lent.asText(), "lent");
  EXPECT_EQ(own.asText(), "own");
}

TEST(BuiltDictionary, RowsOfSeveralLendersAreWrittenLikeAnyOthers) {
  const std::vector<Dictionary> lenders{{{"b", "flat"}, {"d", true}, {"f", Array{"one"}}},
                                        {{"b", "round"}, {"d", true}, {"f", Array{"two"}}}};
  std::vector<Value> built;
  std::vector<Value> plain;
  for (unsigned row = 0; row < 64; ++row) {
    // Each key is missing in some rows, and the lender changes every third.
    const Dictionary& lender = lenders[row / 3 % 2];
    DictionaryBuilder builder(5, 200, lender);
    std::vector<Dictionary::Entry> entries;
    const auto put = [&](const char* key, const Value& value) {
      builder.append(key, value);
      entries.push_back({key, value});
    };
    if (row % 2 == 0) put("a", builder.text("a" + std::to_string(row % 5)));
    for (unsigned i = 0; i < 3; ++i) {
      if ((row >> i & 1) != 0) continue;
      builder.appendLent(lender.begin()[i]);
      entries.push_back(lender.begin()[i]);
    }
    put("g", row % 7);
    built.emplace_back(builder.finish());
    plain.emplace_back(Dictionary(std::move(entries)));
  }
  const auto bytes = writeBinaryPropertyList(Array(built));
  ASSERT_TRUE(bytes);
  const auto read = readPropertyList(*bytes, kBatchLimits);
  ASSERT_TRUE(read);
  EXPECT_TRUE(Value::identical(*read, Array(plain)));
}

TEST(BuiltDictionary, OneTextUnderTwoKeysIsOneObject) {
  DictionaryBuilder builder(2, 100, {});
  const Value text = builder.text("said twice");
  builder.append("a", text);
  builder.append("b", builder.begin()[0].value);
  const Dictionary built = builder.finish();
  EXPECT_EQ(built["a"].identity(), built["b"].identity());
  EXPECT_EQ(built["b"].asText(), "said twice");
}

TEST(BuiltDictionary, TextsThatDoNotFitStandByThemselves) {
  DictionaryBuilder builder(20, 50, {});
  std::vector<std::string> texts;
  for (char letter = 'a'; letter < 'u'; ++letter) {
    texts.emplace_back(30, letter);
    builder.append(std::string(1, letter), builder.text(texts.back()));
  }
  const Dictionary built = builder.finish();
  ASSERT_EQ(built.size(), texts.size());
  for (std::size_t i = 0; i < texts.size(); ++i) {
    EXPECT_EQ(built.begin()[i].value.asText(), texts[i]);
  }
  EXPECT_EQ(builder.text("after the end").asText(), "after the end");
}

TEST(BuiltDictionary, TextsFarBehindItStandByThemselves) {
  constexpr std::size_t kMany = 20;
  const std::string text(60'000, 'x');
  DictionaryBuilder builder(kMany, kMany * (text.size() + 100), {});
  for (std::size_t i = 0; i < kMany; ++i) {
    builder.append(std::string(i + 1, 'k'), builder.text(text));
  }
  const Dictionary built = builder.finish();
  for (const auto& [key, value] : built) EXPECT_EQ(value.asText(), text) << key.view();
}

TEST(BuiltDictionary, IsChangedInACopy) {
  Dictionary built = lentAndOwn();
  const Dictionary before = built;
  built.set("z", 1);
  built.set("a", "other");
  EXPECT_TRUE(Value::identical(built, Dictionary{{"a", "other"}, {"subject", "own"}, {"z", 1}}));
  EXPECT_TRUE(Value::identical(before, Dictionary{{"a", "lent"}, {"subject", "own"}}));
}

TEST(BuiltDictionary, OfOneHolderIsChangedToo) {
  const Dictionary lender{{"a", "lent"}, {"b", "lent, too"}};
  DictionaryBuilder builder(3, 100, lender);
  builder.appendLent(lender.begin()[0]);
  builder.appendLent(lender.begin()[1]);
  builder.append(subject(), builder.text("own"));
  Dictionary built = builder.finish();
  built.set("a", 1);
  built.erase("b");
  built.set("z", "last");
  EXPECT_TRUE(Value::identical(built, Dictionary{{"a", 1}, {"subject", "own"}, {"z", "last"}}));
  EXPECT_EQ(lender["a"].asText(), "lent");
}

TEST(BuiltDictionary, GivenUpHalfwayIsFreed) {
  const Dictionary lender{{"a", "lent"}};
  Value kept;
  {
    DictionaryBuilder builder(2, 100, lender);
    builder.appendLent(*lender.begin());
    kept = builder.text("kept");
    builder.append("b", kept);
  }
  EXPECT_EQ(kept.asText(), "kept");
}

TEST(BuiltDictionary, IsSharedBetweenThreads) {
  Dictionary built = lentAndOwn();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([copy = built] {
      for (int round = 0; round < 1000; ++round) {
        const Value own = copy["subject"];
        Dictionary other = copy;
        other.set("a", own);
        EXPECT_EQ(other["a"].asText(), "own");
      }
    });
  }
  built = {};
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace thmp
