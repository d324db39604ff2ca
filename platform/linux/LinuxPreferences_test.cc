// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxPreferences.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <thread>
#include <vector>

#include "base/plist.h"
#include "platform/linux/InotifyWatches.h"
#include "platform/linux/LinuxSerialQueue.h"
#include "platform/linux/testing.h"
#include "tests/support/child_process.h"

namespace thmp {
namespace {

using testing::TemporaryFolder;

class LinuxPreferencesTest : public ::testing::Test {
 protected:
  std::string file() const { return folder_.at("host/defaults.plist"); }
  Value stored() const {
    return readPropertyList(testing::readFile(file()), kMessageLimits).value_or(Value());
  }
  void store(const Value& value) {
    testing::makeFolder(folder_.at("host"));
    testing::writeFile(file(), writeBinaryPropertyList(value).value_or(""));
  }

  const TemporaryFolder folder_;
  testing::CollectingLog log_;
};

TEST_F(LinuxPreferencesTest, NothingIsMadeBeforeTheFirstChange) {
  LinuxPreferences preferences(folder_.at("host"), log_);
  EXPECT_TRUE(preferences.get("key").isNull());
  EXPECT_TRUE(preferences.flush());
  EXPECT_FALSE(testing::exists(folder_.at("host")));
}

TEST_F(LinuxPreferencesTest, FlushedFileIsPrivateAndAlone) {
  LinuxPreferences preferences(folder_.at("host"), log_);
  preferences.set("key", 1);
  EXPECT_TRUE(preferences.flush());
  EXPECT_EQ(stored(), Value(Dictionary{{"key", 1}}));
  EXPECT_EQ(testing::modeOf(folder_.at("host")), 0700U);
  EXPECT_EQ(testing::modeOf(file()), 0600U);
  EXPECT_EQ(testing::namesIn(folder_.at("host")),
            (std::vector<std::string>{"defaults.plist", "defaults.plist.lock"}));
  EXPECT_EQ(testing::modeOf(folder_.at("host/defaults.plist.lock")), 0600U);
}

TEST_F(LinuxPreferencesTest, ChangeIsWrittenBehind) {
  testing::makeFolder(folder_.at("host"));
  InotifyWatches watches(log_);
  const auto queue = LinuxSerialQueue::create("test.preferences");
  const auto written = std::make_shared<testing::Count>();
  const auto watch = watches.makeWatch(
      folder_.at("host"),
      [queue](std::function<void()> closure) { queue->post(std::move(closure)); },
      [written, path = file()] {
        if (testing::exists(path)) written->raise();
      });
  watch->resume();
  LinuxPreferences preferences(folder_.at("host"), log_);
  preferences.set("key", "value");
  ASSERT_TRUE(written->reaches(1));
  EXPECT_EQ(stored()["key"], Value("value"));
}

TEST_F(LinuxPreferencesTest, ChangesOnManyThreadsAreAllMade) {
  {
    LinuxPreferences preferences(folder_.at("host"), log_);
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&preferences] {
        for (int j = 0; j < 500; ++j) {
          preferences.change("count",
                             [](Value& value) { value = value.asInteger().value_or(0) + 1; });
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(preferences.get("count"), Value(2000));
  }
  EXPECT_EQ(stored()["count"], Value(2000));
}

TEST_F(LinuxPreferencesTest, DestructionWritesWhatIsLeft) {
  { LinuxPreferences(folder_.at("host"), log_).set("key", 1); }
  EXPECT_EQ(stored()["key"], Value(1));
}

TEST_F(LinuxPreferencesTest, OtherKeysAreKept) {
  store(Dictionary{{"foreign", Array{1, 2}}, {"key", 1}});
  {
    LinuxPreferences preferences(folder_.at("host"), log_);
    preferences.set("key", 2);
  }
  EXPECT_EQ(stored(), Value(Dictionary{{"foreign", Array{1, 2}}, {"key", 2}}));
}

TEST_F(LinuxPreferencesTest, XmlFileIsReadToo) {
  testing::makeFolder(folder_.at("host"));
  testing::writeFile(file(), "<plist version=\"1.0\"><dict><key>key</key><true/></dict></plist>");
  EXPECT_EQ(LinuxPreferences(folder_.at("host"), log_).get("key"), Value(true));
}

TEST_F(LinuxPreferencesTest, LookFindsWhatIsThereAndChangesNothing) {
  const std::string folder = folder_.at("host");
  ASSERT_TRUE(lookAtDefaults(folder));
  EXPECT_TRUE(lookAtDefaults(folder)->empty());
  EXPECT_TRUE(lookAtDefaults("/dev/null")->empty()) << "no folder at all";
  EXPECT_FALSE(testing::exists(folder));
  store(Dictionary{{"key", 1}});
  EXPECT_EQ(Value(*lookAtDefaults(folder)), Value(Dictionary{{"key", 1}}));
  EXPECT_EQ(testing::namesIn(folder), std::vector<std::string>{"defaults.plist"});
}

TEST_F(LinuxPreferencesTest, LookTellsDamageFromWhatCannotBeRead) {
  const std::string folder = folder_.at("host");
  store(Array{1});
  for (const std::string& bytes : {testing::readFile(file()), std::string("garbage")}) {
    testing::writeFile(file(), bytes);
    const auto damaged = lookAtDefaults(folder);
    ASSERT_FALSE(damaged);
    EXPECT_EQ(damaged.error().domain, kPropertyListErrorDomain);
    EXPECT_TRUE(damaged.error().description.starts_with(file() + ": "));
    EXPECT_EQ(testing::readFile(file()), bytes);
  }
  ASSERT_EQ(::unlink(file().c_str()), 0);
  testing::makeFolder(file());
  const auto unreadable = lookAtDefaults(folder);
  ASSERT_FALSE(unreadable);
  EXPECT_EQ(unreadable.error().code, EISDIR);
  EXPECT_TRUE(unreadable.error().description.starts_with(file() + ": "));
}

TEST_F(LinuxPreferencesTest, DamagedFileIsSetAsideAndToldOnce) {
  const std::string whole =
      writeBinaryPropertyList(Dictionary{{"key", std::string(500, 'x')}}).value_or("");
  const std::string wrongRoot = writeBinaryPropertyList(Array{1}).value_or("");
  for (const std::string& bytes :
       {whole.substr(0, whole.size() / 2), std::string(), std::string("garbage"), wrongRoot}) {
    testing::makeFolder(folder_.at("host"));
    testing::writeFile(file(), bytes);
    testing::CollectingLog log;
    {
      LinuxPreferences preferences(folder_.at("host"), log);
      EXPECT_TRUE(preferences.get("key").isNull());
      EXPECT_FALSE(testing::exists(file()));
      EXPECT_EQ(testing::readFile(file() + ".damaged"), bytes);
      preferences.set("key", 1);
    }
    EXPECT_EQ(stored(), Value(Dictionary{{"key", 1}}));
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(log.lines()[0].starts_with("tallyhive: ")) << log.lines()[0];
    std::filesystem::remove_all(folder_.at("host"));
  }
}

TEST_F(LinuxPreferencesTest, FolderInPlaceOfTheFileCountsAsEmptyAndStays) {
  testing::makeFolder(file());
  LinuxPreferences preferences(folder_.at("host"), log_);
  EXPECT_TRUE(preferences.get("key").isNull());
  preferences.set("key", 1);
  EXPECT_EQ(preferences.get("key"), Value(1));
  EXPECT_FALSE(preferences.flush());
  EXPECT_FALSE(preferences.flush());
  EXPECT_EQ(log_.lines().size(), 1U);
}

TEST_F(LinuxPreferencesTest, FileThatCannotBeReadNowIsNotReplaced) {
  store(Dictionary{{"kept", 1}});
  int failed = 0;
  for (rlim_t descriptors = 0; descriptors < 12; ++descriptors) {
    failed += testing::resultInChild([&] {
      const rlimit limit = {descriptors, descriptors};
      ::setrlimit(RLIMIT_NOFILE, &limit);
      LinuxPreferences starved(folder_.at("host"), log_);
      starved.set("key", 1);
      return starved.flush() ? 0 : 1;
    });
    EXPECT_EQ(stored()["kept"], Value(1)) << descriptors;
  }
  EXPECT_GE(failed, 3);
  EXPECT_LT(failed, 12);
  EXPECT_EQ(stored()["key"], Value(1));
}

TEST_F(LinuxPreferencesTest, FailureIsToldOnceAndTriedAgain) {
  testing::writeFile(folder_.at("host"), "in the way");
  LinuxPreferences preferences(folder_.at("host"), log_);
  preferences.set("key", 1);
  EXPECT_FALSE(preferences.flush());
  preferences.set("other", 2);
  EXPECT_FALSE(preferences.flush());
  EXPECT_EQ(log_.lines().size(), 1U);
  EXPECT_EQ(preferences.get("key"), Value(1));
  ASSERT_EQ(::unlink(folder_.at("host").c_str()), 0);
  EXPECT_TRUE(preferences.flush());
  EXPECT_EQ(stored(), Value(Dictionary{{"key", 1}, {"other", 2}}));
}

TEST_F(LinuxPreferencesTest, ValueThatHasNoFormDoesNotHarmTheFile) {
  LinuxPreferences preferences(folder_.at("host"), log_);
  preferences.set("key", 1);
  ASSERT_TRUE(preferences.flush());
  preferences.set("bad", Array{Value()});
  EXPECT_FALSE(preferences.flush());
  EXPECT_EQ(stored(), Value(Dictionary{{"key", 1}}));
  preferences.remove("bad");
  preferences.set("key", 2);
  EXPECT_TRUE(preferences.flush());
  EXPECT_EQ(stored(), Value(Dictionary{{"key", 2}}));
}

TEST_F(LinuxPreferencesTest, TwoHostsKeepEachOthersKeysAndTheLastWriterOfAKeyWins) {
  LinuxPreferences first(folder_.at("host"), log_);
  LinuxPreferences second(folder_.at("host"), log_);
  first.set("first", 1);
  first.set("shared", "first");
  EXPECT_TRUE(first.flush());
  second.set("second", 2);
  second.set("shared", "second");
  EXPECT_TRUE(second.flush());
  EXPECT_EQ(stored(), Value(Dictionary{{"first", 1}, {"second", 2}, {"shared", "second"}}));
  EXPECT_EQ(second.get("first"), Value(1));
  first.set("first", 3);
  EXPECT_TRUE(first.flush());
  EXPECT_EQ(stored(), Value(Dictionary{{"first", 3}, {"second", 2}, {"shared", "second"}}));
}

TEST_F(LinuxPreferencesTest, KeyRemovedByAnotherHostStaysAway) {
  LinuxPreferences first(folder_.at("host"), log_);
  first.set("gone", 1);
  ASSERT_TRUE(first.flush());
  LinuxPreferences second(folder_.at("host"), log_);
  second.remove("gone");
  ASSERT_TRUE(second.flush());
  first.set("key", 1);
  ASSERT_TRUE(first.flush());
  EXPECT_EQ(stored(), Value(Dictionary{{"key", 1}}));
}

TEST_F(LinuxPreferencesTest, FileThatWasDeletedIsWrittenWhole) {
  LinuxPreferences preferences(folder_.at("host"), log_);
  preferences.set("old", 1);
  ASSERT_TRUE(preferences.flush());
  std::filesystem::remove_all(folder_.at("host"));
  preferences.set("new", 2);
  ASSERT_TRUE(preferences.flush());
  EXPECT_EQ(stored(), Value(Dictionary{{"new", 2}, {"old", 1}}));
}

TEST_F(LinuxPreferencesTest, KilledWriterLeavesTheOldFileOrTheNew) {
  for (int round = 0; round < 20; ++round) {
    testing::Child writer([&] {
      auto* preferences = new LinuxPreferences(folder_.at("host"), log_);
      preferences->set("first", 0);
      preferences->flush();
      // The next change is written behind, perhaps just when the process is killed.
      preferences->set("first", std::string(100'000, 'x'));
      std::thread([preferences] { preferences->flush(); }).detach();
      return std::string("ready");
    });
    ASSERT_EQ(writer.report(), "ready");
    writer.kill();
    const Value value = stored();
    ASSERT_TRUE(value.asDictionary()) << round;
    EXPECT_TRUE(value["first"] == Value(0) || value["first"].asText()) << round;
  }
  EXPECT_TRUE(log_.lines().empty());
}

}  // namespace
}  // namespace thmp
