// SPDX-License-Identifier: Apache-2.0
#include "plugin/PluginLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "platform/fake/FakePlatform.h"

namespace thmp {
namespace {

using ::testing::ElementsAre;

class PluginLogging : public ::testing::Test {
 protected:
  Array stored() {
    return fake.preferences.get(PluginLog::kStoredLogKey).asArray().value_or(Array());
  }
  std::vector<std::string> texts() {
    std::vector<std::string> texts;
    for (const Value& entry : stored()) {
      const Array elements = entry.asArray().value_or(Array());
      texts.emplace_back(elements.size() == 3 ? elements[2].asText().value_or("") : "?");
    }
    return texts;
  }
  Value entryOf(double age, const std::string& text) {
    const double now = fake.execution.now().secondsSinceReference;
    return Array{Date{now - age}, "q", text};
  }
  void store(const Array& entries) { fake.preferences.store(PluginLog::kStoredLogKey, entries); }
  void setShortVersion(const Value& version) {
    fake.application.setPluginInformation(Dictionary{{"CFBundleShortVersionString", version}});
  }

  FakePlatform fake;
  Platform platform = fake.platform();
  PluginLog log{platform};
};

TEST_F(PluginLogging, LineNamesThePlugInTheQueryAndTheText) {
  log.log(kNoQuery, "THMPMailPlugin create instance");
  EXPECT_THAT(fake.log.lines(),
              ElementsAre("TallyhiveMailPlugin - n/a - THMPMailPlugin create instance"));
}

TEST_F(PluginLogging, EntryHoldsDateNameAndFormattedText) {
  log.log("q1", "THMPMailPlugin received %@ / %@", " name", Value());
  ASSERT_EQ(stored().size(), 1U);
  const Array entry = *stored()[0].asArray();
  ASSERT_EQ(entry.size(), 3U);
  EXPECT_EQ(entry[0].asDate(), fake.execution.now());
  EXPECT_EQ(entry[1], Value("q1"));
  EXPECT_EQ(entry[2], Value("THMPMailPlugin received  name / (null)"));
}

TEST_F(PluginLogging, NameThatIsEmptyNullOrNoTextIsStoredAsNone) {
  log.log(Value(), "a");
  log.log("", "b");
  log.log(Value(7), "c");
  for (const Value& entry : stored()) EXPECT_EQ((*entry.asArray())[1], Value("none"));
  EXPECT_THAT(fake.log.lines(),
              ElementsAre("TallyhiveMailPlugin - none - a", "TallyhiveMailPlugin - none - b",
                          "TallyhiveMailPlugin - none - c"));
}

TEST_F(PluginLogging, PercentInTheNameActsInTheLineAndNotInTheStoredText) {
  log.log("q%@", "received %@ / %@", "a", "b");
  EXPECT_THAT(fake.log.lines(), ElementsAre("TallyhiveMailPlugin - qa - received b / (null)"));
  EXPECT_THAT(texts(), ElementsAre("received a / b"));
  EXPECT_EQ((*stored()[0].asArray())[1], Value("q%@"));
}

TEST_F(PluginLogging, HostileNamesOnlyEverShowWhatIsThere) {
  for (const char* name : {"%s%s%s%s", "%n%n", "%*d%*d", "%9$@", "%999999999d", "%", "100%",
                           "line\nbreak\x1b[2J", "\xff\xfe"}) {
    log.log(name, "received %@", 1);
  }
  EXPECT_EQ(texts(), std::vector<std::string>(9, "received 1"));
  EXPECT_EQ(fake.log.lines().size(), 9U);
}

TEST_F(PluginLogging, FormatThatYieldsNothingStaysOutOfTheStoredLog) {
  log.log("q", "%@", "");
  EXPECT_THAT(fake.log.lines(), ElementsAre("TallyhiveMailPlugin - q - "));
  EXPECT_TRUE(stored().empty());
}

TEST_F(PluginLogging, FiveHundredAndFirstEntryPushesOutTheOldest) {
  for (int i = 1; i <= 500; ++i) log.log("q", "entry %d", i);
  EXPECT_EQ(texts().front(), "entry 1");
  log.log("q", "entry %d", 501);
  ASSERT_EQ(stored().size(), 500U);
  EXPECT_EQ(texts().front(), "entry 2");
  EXPECT_EQ(texts().back(), "entry 501");
}

TEST_F(PluginLogging, EntryBelowAnHourOldSurvivesAndOneOfAnHourGoes) {
  store({entryOf(3600, "old"), entryOf(3599, "young")});
  log.log("q", "new");
  EXPECT_THAT(texts(), ElementsAre("young", "new"));
}

TEST_F(PluginLogging, OldEntryBehindAYoungOneStays) {
  store({entryOf(10, "young"), entryOf(5000, "old")});
  log.log("q", "new");
  EXPECT_THAT(texts(), ElementsAre("young", "old", "new"));
}

TEST_F(PluginLogging, EntryWithoutADateGoesOnceItStandsAtTheFront) {
  store({entryOf(10, "young"), Array{"no date", "q", "odd"}});
  log.log("q", "new");
  EXPECT_THAT(texts(), ElementsAre("young", "odd", "new"));
  store({Array{"no date", "q", "odd"}, entryOf(10, "young")});
  log.log("q", "new");
  EXPECT_THAT(texts(), ElementsAre("young", "new"));
}

TEST_F(PluginLogging, EntriesOfOddShapesGoAtTheFront) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  store({Array{}, "text", 5, Dictionary{}, Array{Date{nan}, "q", "nan"}, entryOf(1, "young")});
  log.log("q", "new");
  EXPECT_THAT(texts(), ElementsAre("young", "new"));
}

TEST_F(PluginLogging, EntryFromTheFutureStays) {
  store({entryOf(-1e6, "future")});
  log.log("q", "new");
  EXPECT_THAT(texts(), ElementsAre("future", "new"));
}

TEST_F(PluginLogging, ValueThatIsNoArrayCountsAsEmpty) {
  fake.preferences.store(PluginLog::kStoredLogKey, "no array");
  log.log("q", "new");
  EXPECT_THAT(texts(), ElementsAre("new"));
}

TEST_F(PluginLogging, LongNamesAndTextsAreStoredCut) {
  // Two bytes a letter, so that the cap would fall into the middle of one.
  std::string letters = "x";
  for (int i = 0; i < 600'000; ++i) letters += "\xc3\xa4";
  log.log(letters, "%@", letters);
  const Array entry = *stored()[0].asArray();
  for (const Value& cut : {entry[1], entry[2]}) {
    EXPECT_EQ(cut.asText()->size(), PluginLog::kMaxEntryTextBytes - 1);
    EXPECT_TRUE(letters.starts_with(*cut.asText()));
  }
}

TEST_F(PluginLogging, TextInTheStoredLogIsTrimmedInOnePassHoweverMuchThereIs) {
  std::vector<Value> entries(200'000, entryOf(4000, "old"));
  store(Array(std::move(entries)));
  log.log("q", "new");
  EXPECT_THAT(texts(), ElementsAre("new"));
}

TEST_F(PluginLogging, BetaBuildKeepsFiveMinutesAtQuit) {
  setShortVersion("2.3b4");
  store({entryOf(301, "older"), Array{"no date"}, entryOf(300, "old"), entryOf(299, "young"),
         entryOf(5000, "behind")});
  log.applyRetentionAtQuit();
  EXPECT_THAT(texts(), ElementsAre("young", "behind"));
}

TEST_F(PluginLogging, ReleaseBuildRemovesTheStoredLogAtQuit) {
  setShortVersion("2.3");
  log.log("q", "new");
  log.applyRetentionAtQuit();
  EXPECT_TRUE(fake.preferences.get(PluginLog::kStoredLogKey).isNull());
}

TEST_F(PluginLogging, VersionThatIsMissingOrNoTextRemovesTheStoredLogAtQuit) {
  for (const Value& version : {Value(), Value(7)}) {
    setShortVersion(version);
    log.log("q", "new");
    log.applyRetentionAtQuit();
    EXPECT_TRUE(fake.preferences.get(PluginLog::kStoredLogKey).isNull());
  }
}

TEST_F(PluginLogging, UserDefaultsThatNotifyAtOnceMayLogThemselves) {
  int nested = 0;
  fake.preferences.setChangeCallback([&](const std::string&) {
    if (++nested == 1) log.log("q", "nested");
  });
  log.log("q", "outer");
  EXPECT_EQ(fake.log.count("nested"), 1U);
  EXPECT_EQ(fake.log.count("outer"), 1U);
}

TEST_F(PluginLogging, SystemLogLineIsWrittenOutsideTheLock) {
  // A line that waits in the user defaults, with the lock held, does not keep another from the
  // system log.
  std::thread other;
  fake.preferences.setChangeCallback([&](const std::string&) {
    if (other.joinable()) return;
    other = std::thread([&] { log.log("q", "second"); });
    while (fake.log.count("second") == 0) std::this_thread::yield();
  });
  log.log("q", "first");
  other.join();
  EXPECT_THAT(texts(), ElementsAre("first", "second"));
}

TEST_F(PluginLogging, QuitTrimNeverWaitsForALine) {
  setShortVersion("2.3b4");
  bool trimmed = false;
  fake.preferences.setChangeCallback([&](const std::string&) {
    if (trimmed) return;
    trimmed = true;
    std::thread([&] { log.applyRetentionAtQuit(); }).join();
  });
  log.log("q", "first");
  EXPECT_TRUE(trimmed);
}

TEST_F(PluginLogging, ConcurrentCallsLoseNoEntry) {
  constexpr int kThreads = 8;
  constexpr int kCalls = 50;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kCalls; ++i) log.log("q", "%d/%d", t, i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(stored().size(), std::size_t{kThreads * kCalls});
  const auto all = texts();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(std::count(all.begin(), all.end(), std::to_string(t) + "/49"), 1);
  }
}

}  // namespace
}  // namespace thmp
