// SPDX-License-Identifier: Apache-2.0

#include "tests/contract/fixtures.h"

namespace thmp {
namespace {

class PreferencesContract : public contract::ContractTest<contract::PreferencesFixture,
                                                          &contract::Implementation::preferences> {
 protected:
  Preferences& preferences() { return fixture().preferences(); }
};

THMP_RUN_CONTRACT(PreferencesContract);

TEST_P(PreferencesContract, AbsentKeyIsNull) {
  EXPECT_TRUE(preferences().get("com.example.absent").isNull());
}

TEST_P(PreferencesContract, SetValueIsSeenAtOnce) {
  preferences().set("key", "first");
  EXPECT_EQ(preferences().get("key"), Value("first"));
  preferences().set("key", 2);
  EXPECT_EQ(preferences().get("key"), Value(2));
}

TEST_P(PreferencesContract, KeysAreTakenAsTheyAre) {
  preferences().set("a.b", 1);
  preferences().set("A.B", 2);
  preferences().set("", 3);

  EXPECT_EQ(preferences().get("a.b"), Value(1));
  EXPECT_EQ(preferences().get("A.B"), Value(2));
  EXPECT_EQ(preferences().get(""), Value(3));
  EXPECT_TRUE(preferences().get("a").isNull());
}

TEST_P(PreferencesContract, RemovedKeyIsAbsent) {
  preferences().set("key", 1);
  preferences().remove("key");

  EXPECT_TRUE(preferences().get("key").isNull());
  preferences().remove("never set");
}

TEST_P(PreferencesContract, NullRemovesTheKey) {
  preferences().set("key", 1);
  preferences().set("key", Value());

  EXPECT_TRUE(preferences().get("key").isNull());
}

TEST_P(PreferencesContract, EveryKindOfValueIsKeptAcrossLaunches) {
  const std::vector<Value> values = {true,
                                     -5,
                                     0xffff'ffff'ffff'ffffU,
                                     1.5,
                                     Date{123.5},
                                     Data{std::string("\0\xff", 2)},
                                     "t\u00e9xt",
                                     Array{1, "two", Array{}},
                                     Dictionary{{"key", Dictionary{{"inner", false}}}}};
  for (std::size_t i = 0; i < values.size(); ++i) {
    preferences().set("value" + std::to_string(i), values[i]);
  }
  fixture().relaunch();

  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_TRUE(Value::identical(preferences().get("value" + std::to_string(i)), values[i])) << i;
  }
}

TEST_P(PreferencesContract, RemovalIsKeptAcrossLaunches) {
  preferences().set("kept", 1);
  preferences().set("removed", 1);
  fixture().relaunch();
  preferences().remove("removed");
  fixture().relaunch();

  EXPECT_EQ(preferences().get("kept"), Value(1));
  EXPECT_TRUE(preferences().get("removed").isNull());
}

TEST_P(PreferencesContract, ChangedCopyOfAValueDoesNotReachTheStore) {
  Dictionary dictionary{{"key", 1}};
  preferences().set("value", dictionary);
  dictionary.set("key", 2);

  EXPECT_EQ(preferences().get("value")["key"], Value(1));
}

TEST_P(PreferencesContract, ValueIsChangedFromWhatItIs) {
  const auto addOne = [](Value& value) { value = value.asInteger().value_or(0) + 1; };
  preferences().change("key", addOne);
  EXPECT_EQ(preferences().get("key"), Value(1));
  preferences().change("key", addOne);
  EXPECT_EQ(preferences().get("key"), Value(2));
  preferences().change("key", [](Value& value) { value = Value(); });
  EXPECT_TRUE(preferences().get("key").isNull());
  preferences().change("never set", [](Value& value) { EXPECT_TRUE(value.isNull()); });
  EXPECT_TRUE(preferences().get("never set").isNull());
}

TEST_P(PreferencesContract, ChangedValueIsKeptAcrossLaunchesAndIsNobodyElses) {
  preferences().set("value", Array{1});
  const Value before = preferences().get("value");
  preferences().change("value", [](Value& value) { value = Array{1, 2}; });
  EXPECT_EQ(before, Value(Array{1}));
  fixture().relaunch();
  EXPECT_EQ(preferences().get("value"), Value(Array{1, 2}));
}

TEST_P(PreferencesContract, ThreadsSetAndGetAtTheSameTime) {
  contract::runOnThreads(4, [&](int i) {
    const std::string key = "own" + std::to_string(i);
    for (int j = 0; j < 50; ++j) {
      preferences().set(key, j);
      preferences().set("shared", Dictionary{{"left", j}, {"right", j}});
      EXPECT_EQ(preferences().get(key), Value(j));
      const Value shared = preferences().get("shared");
      EXPECT_EQ(shared["left"], shared["right"]);
    }
  });
}

}  // namespace
}  // namespace thmp
