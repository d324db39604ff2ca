// SPDX-License-Identifier: Apache-2.0
#include <set>

#include "tests/contract/fixtures.h"

namespace thmp {
namespace {

// The blank in front is part of the name.
constexpr char kType[] = " com.example.Batch";

class PasteboardContract : public contract::ContractTest<contract::PasteboardsFixture,
                                                         &contract::Implementation::pasteboards> {
 protected:
  std::shared_ptr<Pasteboard> make() {
    Error error;
    auto pasteboard = fixture().pasteboards().makeUnique(&error);
    EXPECT_NE(pasteboard, nullptr) << error.text();
    return pasteboard;
  }

  std::shared_ptr<Pasteboard> makeWith(const Value& content) {
    auto pasteboard = make();
    pasteboard->declareType(kType);
    Error error;
    EXPECT_TRUE(pasteboard->setPropertyList(content, kType, &error)) << error.text();
    return pasteboard;
  }

  Value read(const Pasteboard& pasteboard, const std::string& type = kType) {
    return fixture().read(pasteboard.name(), type);
  }
};

THMP_RUN_CONTRACT(PasteboardContract);

TEST_P(PasteboardContract, EveryNameIsNew) {
  std::set<std::string> names;
  for (int i = 0; i < 20; ++i) {
    const auto pasteboard = make();
    EXPECT_FALSE(pasteboard->name().empty());
    EXPECT_TRUE(names.insert(pasteboard->name()).second) << pasteboard->name();
    pasteboard->releaseGlobally();
  }
}

TEST_P(PasteboardContract, NewPasteboardHasNoContent) {
  const auto pasteboard = make();

  EXPECT_TRUE(read(*pasteboard).isNull());
}

TEST_P(PasteboardContract, DeclaredTypeHasNoContentYet) {
  const auto pasteboard = make();
  pasteboard->declareType(kType);

  EXPECT_TRUE(read(*pasteboard).isNull());
}

TEST_P(PasteboardContract, SetContentIsReadUnderItsTypeOnly) {
  const Value content = Dictionary{{"messages", Array{1, "two", Date{3}}}, {"flag", true}};
  const auto pasteboard = makeWith(content);

  EXPECT_TRUE(Value::identical(read(*pasteboard), content));
  EXPECT_TRUE(read(*pasteboard, "com.example.Batch").isNull());
  EXPECT_TRUE(read(*pasteboard, " com.example.Other").isNull());
}

TEST_P(PasteboardContract, ContentSetAgainTakesThePlaceOfTheOld) {
  const auto pasteboard = makeWith(1);
  ASSERT_TRUE(pasteboard->setPropertyList(2, kType));

  EXPECT_EQ(read(*pasteboard), Value(2));
}

TEST_P(PasteboardContract, ClearedPasteboardHasNoContent) {
  const auto pasteboard = makeWith(1);
  pasteboard->clearContents();

  EXPECT_TRUE(read(*pasteboard).isNull());
}

TEST_P(PasteboardContract, ClearedPasteboardIsUsedAgainUnderItsName) {
  const auto pasteboard = makeWith(1);
  const std::string name = pasteboard->name();
  pasteboard->clearContents();
  pasteboard->declareType(kType);
  ASSERT_TRUE(pasteboard->setPropertyList(2, kType));

  EXPECT_EQ(pasteboard->name(), name);
  EXPECT_EQ(read(*pasteboard), Value(2));
}

TEST_P(PasteboardContract, DeclaringAnotherTypeLeavesNothingOfTheFormer) {
  const auto pasteboard = makeWith(1);
  pasteboard->declareType("other");

  EXPECT_TRUE(read(*pasteboard).isNull());
  EXPECT_TRUE(read(*pasteboard, "other").isNull());
  ASSERT_TRUE(pasteboard->setPropertyList(2, "other"));
  EXPECT_EQ(read(*pasteboard, "other"), Value(2));
  EXPECT_TRUE(read(*pasteboard).isNull());
}

TEST_P(PasteboardContract, WhatCannotBeStoredWholeIsNotReadAtAll) {
  const auto pasteboard = makeWith(1);

  Error error;
  EXPECT_FALSE(pasteboard->setPropertyList(Array{1, Value()}, kType, &error));
  EXPECT_TRUE(error.isSet());
  EXPECT_TRUE(read(*pasteboard).isNull());
  EXPECT_FALSE(pasteboard->setPropertyList(Array{1, Value()}, kType));
}

TEST_P(PasteboardContract, LargeContentIsReadWhole) {
  Array items;
  for (int i = 0; i < 20'000; ++i) {
    items.push_back(Dictionary{{"index", i}, {"name", "item " + std::to_string(i)}});
  }
  const auto pasteboard = makeWith(items);

  EXPECT_EQ(read(*pasteboard), Value(items));
}

TEST_P(PasteboardContract, ReleasedPasteboardIsNotFound) {
  const auto pasteboard = makeWith(1);
  pasteboard->releaseGlobally();

  EXPECT_TRUE(read(*pasteboard).isNull());
}

TEST_P(PasteboardContract, ReleaseTwiceIsHarmless) {
  const auto released = makeWith(1);
  released->releaseGlobally();
  const auto later = makeWith(2);
  released->releaseGlobally();

  EXPECT_EQ(read(*later), Value(2));
}

TEST_P(PasteboardContract, ReleasedPasteboardComesBackByNoOperation) {
  const auto pasteboard = makeWith(1);
  pasteboard->releaseGlobally();
  pasteboard->clearContents();
  pasteboard->declareType(kType);

  EXPECT_FALSE(pasteboard->setPropertyList(2, kType));
  EXPECT_TRUE(read(*pasteboard).isNull());
}

TEST_P(PasteboardContract, PasteboardsDoNotTouchEachOther) {
  const auto first = makeWith(1);
  const auto second = makeWith(2);
  first->clearContents();

  EXPECT_TRUE(read(*first).isNull());
  EXPECT_EQ(read(*second), Value(2));
}

TEST_P(PasteboardContract, ContentOutlivesTheObject) {
  // The object is the writer's; the content is the reader's until it is cleared or released.
  auto pasteboard = makeWith(1);
  const std::string name = pasteboard->name();
  pasteboard.reset();

  EXPECT_EQ(fixture().read(name, kType), Value(1));
}

TEST_P(PasteboardContract, OperationsOfManyThreadsAreAtomic) {
  const auto pasteboard = make();
  contract::runOnThreads(4, [&](int i) {
    for (int j = 0; j < 25; ++j) {
      pasteboard->declareType(kType);
      // False when another thread has cleared in between, which then shows as no content.
      (void)pasteboard->setPropertyList(Array{i, i, i}, kType);
      const Value seen = read(*pasteboard);
      if (const auto array = seen.asArray()) {
        EXPECT_EQ(array->size(), 3U);
        EXPECT_EQ((*array)[0], (*array)[2]);
      } else {
        EXPECT_TRUE(seen.isNull());
      }
      pasteboard->clearContents();
    }
  });

  EXPECT_TRUE(read(*pasteboard).isNull());
}

}  // namespace
}  // namespace thmp
