// SPDX-License-Identifier: Apache-2.0
#include "base/DictionarySource.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/plist.h"
#include "tests/support/random_values.h"

namespace thmp {
namespace {

constexpr PropertyListLimits kLimits{std::size_t{1} << 24, 1'000'000, 512};

/// Gives what `content` has: each third value by its layout, the others as open ones, in the
/// smallest pieces that there are.
class PiecesOf : public DictionarySource {
 public:
  explicit PiecesOf(Dictionary content) : content_(std::move(content)) {
    std::size_t count = 0;
    for (const auto& [key, value] : content_) {
      layout_.keys.push_back(key);
      layout_.values.push_back(++count % 3 == 0 ? value : Value());
    }
  }

  void give(EntrySink& sink) const override {
    ++given;
    sink.begin(layout_);
    for (std::size_t i = 0; i < layout_.keys.size(); ++i) {
      if (layout_.values[i].isNull()) givePieces(content_.begin()[i].value, sink);
    }
  }
  Value entry(std::string_view key) const override { return content_[key]; }
  bool has(std::string_view key) const override { return content_.contains(key); }

  mutable std::atomic<int> given{0};

 private:
  static void givePieces(const Value& value, EntrySink& sink) {
    if (const auto text = value.asText()) {
      sink.addText(*text);
    } else if (const auto array = value.asArray()) {
      sink.beginArray();
      for (const Value& element : *array) givePieces(element, sink);
      sink.end();
    } else if (const auto dictionary = value.asDictionary()) {
      sink.beginDictionary();
      for (const auto& [key, element] : *dictionary) {
        sink.addText(key);
        givePieces(element, sink);
      }
      sink.end();
    } else {
      sink.addLent(value);
    }
  }

  const Dictionary content_;
  EntryLayout layout_;
};

/// Gives what a function says.
class Giving : public DictionarySource {
 public:
  explicit Giving(std::function<void(EntrySink& sink)> give) : give_(std::move(give)) {}
  void give(EntrySink& sink) const override { give_(sink); }
  Value entry(std::string_view) const override { return {}; }
  bool has(std::string_view) const override { return false; }

 private:
  const std::function<void(EntrySink& sink)> give_;
};

Value asWritten(const Value& value) {
  const auto bytes = writeBinaryPropertyList(value);
  return bytes ? readBinaryPropertyList(*bytes, kLimits).value_or("not read") : "not written";
}

TEST(GivenDictionary, IsAsOneThatWasMade) {
  constexpr std::string_view kPieces[] = {"a", "key", "\xC3\xA9", "\xF0\x9F\x98\x80", " "};
  int dictionaries = 0;
  for (std::uint32_t seed = 0; seed < 4000; ++seed) {
    const auto content = testing::RandomValues(seed, kPieces).value(4).asDictionary();
    if (!content) continue;
    ++dictionaries;
    const auto source = std::make_shared<const PiecesOf>(*content);
    const Dictionary given(source);
    const Value twice = Array{given, *content, given, 1};
    ASSERT_TRUE(Value::identical(asWritten(twice), Array{*content, *content, *content, 1})) << seed;
    ASSERT_EQ(source->given, 1) << "written once, and not made";
    ASSERT_TRUE(Value::identical(given, *content)) << seed;
    ASSERT_TRUE(Value::identical(asWritten(given), *content)) << seed;
    ASSERT_EQ(source->given, 2) << "made once";
  }
  EXPECT_GT(dictionaries, 100);
}

TEST(GivenDictionary, IsTheSameInALongList) {
  static const std::string kLent = "lent";
  static const EntryLayout kLayout{{"a", "b"}, {Value(), Value(Array{"of all"})}};
  std::vector<Value> given;
  std::vector<Value> made;
  for (std::uint32_t seed = 0; given.size() < 600; ++seed) {
    constexpr std::string_view kPieces[] = {"a", "key", "\xC3\xA9", " "};
    const auto content = testing::RandomValues(seed, kPieces).value(3).asDictionary();
    if (!content) continue;
    given.emplace_back(Dictionary(std::make_shared<const PiecesOf>(*content)));
    made.emplace_back(*content);
    given.emplace_back(Dictionary(std::make_shared<const Giving>([](EntrySink& sink) {
      sink.begin(kLayout);
      sink.addLent({&kLent, [](const void* address, EntrySink& lent) {
                      lent.addText(*static_cast<const std::string*>(address));
                    }});
    })));
    made.emplace_back(Dictionary{{"a", "lent"}, {"b", Array{"of all"}}});
  }
  EXPECT_TRUE(Value::identical(asWritten(Array(given)), Array(made)));
}

TEST(GivenDictionary, OfOneEntryMakesNoOthers) {
  const auto source = std::make_shared<const PiecesOf>(Dictionary{{"a", 1}, {"b", Array{2}}});
  const Dictionary given(source);
  EXPECT_EQ(given.get("b"), Value(Array{2}));
  EXPECT_TRUE(given.get("c").isNull());
  EXPECT_TRUE(given.contains("a"));
  EXPECT_FALSE(given.contains("c"));
  EXPECT_EQ(source->given, 0);
  EXPECT_EQ(given["a"], Value(1));
  EXPECT_EQ(given.get("b"), Value(Array{2}));
  EXPECT_TRUE(given.contains("b"));
  EXPECT_FALSE(given.contains("c"));
  EXPECT_EQ(given.size(), 2U);
  EXPECT_EQ(source->given, 1);
}

TEST(GivenDictionary, ChangesOneCopyOnly) {
  const Dictionary given(std::make_shared<const PiecesOf>(Dictionary{{"a", 1}, {"b", "two"}}));
  Dictionary set = given;
  set.set("c", 3);
  Dictionary erased = given;
  erased.erase("a");
  EXPECT_EQ(Value(set), Value(Dictionary{{"a", 1}, {"b", "two"}, {"c", 3}}));
  EXPECT_EQ(Value(erased), Value(Dictionary{{"b", "two"}}));
  EXPECT_EQ(Value(given), Value(Dictionary{{"a", 1}, {"b", "two"}}));
}

TEST(GivenDictionary, IsMadeByManyThreadsAtOnce) {
  for (int round = 0; round < 50; ++round) {
    const Value given(Dictionary(std::make_shared<const PiecesOf>(Dictionary{{"a", "one"}})));
    std::vector<std::thread> threads;
    std::vector<const void*> texts(4);
    for (const void*& text : texts) {
      threads.emplace_back([&given, &text] { text = given["a"].identity(); });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(texts, std::vector<const void*>(4, given["a"].identity()));
    EXPECT_EQ(given["a"], Value("one"));
  }
}

TEST(GivenDictionary, LivesAsLongAsItsValuesAreUsed) {
  Value kept;
  {
    const Dictionary given(std::make_shared<const PiecesOf>(Dictionary{{"a", Array{"one"}}}));
    kept = given["a"];
  }
  EXPECT_EQ(kept, Value(Array{"one"}));
}

TEST(GivenDictionary, HasOneValueUnderSeveralKeys) {
  static const EntryLayout kLayout{{"a", "b", "c"}, {Value(), Value(), Value()}};
  const Dictionary given(std::make_shared<const Giving>([](EntrySink& sink) {
    sink.begin(kLayout);
    sink.beginArray();
    const EntrySink::Handle text = sink.addText("one");
    sink.addAgain(text);
    const EntrySink::Handle array = sink.end();
    sink.addAgain(array);
    sink.addAgain(text);
  }));
  const Value expected =
      Dictionary{{"a", Array{"one", "one"}}, {"b", Array{"one", "one"}}, {"c", "one"}};
  const Value back = asWritten(given);
  EXPECT_EQ(back, expected);
  EXPECT_EQ(back["a"].identity(), back["b"].identity()) << "written once";
  EXPECT_EQ(Value(given), expected);
}

TEST(GivenDictionary, AsksOnceForWhatSeveralHaveLent) {
  static const EntryLayout kLayout{{"a", "b"}, {Value(), Value()}};
  struct Lent {
    int asked = 0;
    std::string text;
  };
  static Lent one;
  static Lent two;
  one = {0, "one"};
  two = {0, "two"};
  const auto lend = [](const Lent& lent) {
    return LentValue{&lent, [](const void* address, EntrySink& sink) {
                       auto& asked = *static_cast<Lent*>(const_cast<void*>(address));
                       ++asked.asked;
                       sink.beginArray();
                       sink.addText(asked.text);
                       sink.end();
                     }};
  };
  std::vector<Value> rows;
  for (int i = 0; i < 3; ++i) {
    rows.emplace_back(Dictionary(std::make_shared<const Giving>([&lend](EntrySink& sink) {
      sink.begin(kLayout);
      sink.addAgain(sink.addLent(lend(one)));
    })));
    rows.emplace_back(Dictionary(std::make_shared<const Giving>([&lend](EntrySink& sink) {
      sink.begin(kLayout);
      sink.addLent(lend(two));
      sink.addLent(lend(one));
    })));
  }
  const Value back = asWritten(Array(rows));
  const Value same = Dictionary{{"a", Array{"one"}}, {"b", Array{"one"}}};
  const Value both = Dictionary{{"a", Array{"two"}}, {"b", Array{"one"}}};
  EXPECT_EQ(back, Value(Array{same, both, same, both, same, both}));
  EXPECT_EQ(one.asked, 1);
  EXPECT_EQ(two.asked, 1);
  EXPECT_EQ(rows[0], same);
  EXPECT_EQ(rows[1], both);
}

TEST(GivenDictionary, LacksNothingThatItsLayoutPromises) {
  static const EntryLayout kLayout{{"a", "b", "c"}, {Value(), Value(2), Value()}};
  const Dictionary given(std::make_shared<const Giving>([](EntrySink& sink) {
    sink.begin(kLayout);
    sink.beginDictionary();
    sink.addText("key");
    sink.addText("value");
    sink.addText("key without a value");
    sink.end();
  }));
  const Value expected = Dictionary{{"a", Dictionary{{"key", "value"}}}, {"b", 2}, {"c", ""}};
  EXPECT_EQ(asWritten(given), expected);
  EXPECT_EQ(Value(given), expected);
  const Dictionary none(std::make_shared<const Giving>([](EntrySink&) {}));
  EXPECT_EQ(asWritten(none), Value(Dictionary()));
  EXPECT_TRUE(none.empty());
}

TEST(GivenDictionary, WithAValueThatCannotBeWrittenIsRefused) {
  static const EntryLayout kOpen{{"a"}, {Value()}};
  static const EntryLayout kClosed{{"a"}, {Value(Date{std::nan("")})}};
  for (const EntryLayout* layout : {&kOpen, &kClosed}) {
    const Dictionary given(std::make_shared<const Giving>([layout](EntrySink& sink) {
      sink.begin(*layout);
      if (layout == &kOpen) sink.add(Date{std::nan("")});
    }));
    Error error;
    EXPECT_FALSE(writeBinaryPropertyList(Array{given}, &error));
    EXPECT_EQ(error.domain, kPropertyListErrorDomain);
  }
}

TEST(GivenDictionary, ValuesThatAreHandedOverMayCeaseToBe) {
  static const EntryLayout kLayout{{"a", "b"}, {Value(), Value()}};
  std::vector<Value> rows;
  for (int i = 0; i < 200; ++i) {
    rows.emplace_back(Dictionary(std::make_shared<const Giving>([i](EntrySink& sink) {
      sink.begin(kLayout);
      Array array{i, "text " + std::to_string(i)};
      sink.add(array);
      sink.add(Value("other " + std::to_string(i)));
    })));
  }
  const Value back = asWritten(Array(rows));
  for (int i = 0; i < 200; ++i) {
    const Value& row = (*back.asArray())[static_cast<std::size_t>(i)];
    EXPECT_EQ(row, Value(Dictionary{{"a", Array{i, "text " + std::to_string(i)}},
                                    {"b", "other " + std::to_string(i)}}));
  }
}

}  // namespace
}  // namespace thmp
