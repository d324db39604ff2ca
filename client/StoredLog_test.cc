// SPDX-License-Identifier: Apache-2.0
#include "client/StoredLog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "base/plist.h"

namespace thmp::client {
namespace {

std::vector<LogEntry> entries(std::initializer_list<const char*> texts) {
  std::vector<LogEntry> made;
  for (const char* text : texts) made.push_back({Date{1}, "n/a", text});
  return made;
}

TEST(FollowedLog, ShowsWhatWasAppended) {
  EXPECT_EQ(firstNewEntry(entries({"a", "b"}), entries({"a", "b", "c"})), 2U);
  EXPECT_EQ(firstNewEntry(entries({}), entries({"a"})), 0U);
}

TEST(FollowedLog, KnowsItsLinesWhenTheFrontIsGone) {
  EXPECT_EQ(firstNewEntry(entries({"a", "b", "c"}), entries({"c", "d"})), 1U);
  EXPECT_EQ(firstNewEntry(entries({"a", "b", "c"}), entries({"b", "c"})), 2U);
}

TEST(FollowedLog, EqualLinesInARowAreNotShownTwice) {
  EXPECT_EQ(firstNewEntry(entries({"a", "a"}), entries({"a", "a", "a"})), 2U);
}

TEST(FollowedLog, LogThatBeganAnewIsShownFromItsStart) {
  EXPECT_EQ(firstNewEntry(entries({"a", "b"}), entries({"x"})), 0U);
  EXPECT_EQ(firstNewEntry(entries({"a", "b"}), entries({})), 0U);
}

class LogFile : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "stored_log.XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  void write(std::string_view bytes) {
    std::filesystem::create_directories(StoredLog(folder_).folder());
    std::ofstream(StoredLog(folder_).file(), std::ios::binary) << bytes;
  }
  void write(const Dictionary& defaults) { write(*writeBinaryPropertyList(Value(defaults))); }

  std::string folder_;
};

TEST_F(LogFile, IsReadOldestFirst) {
  write({{kStoredLogKey, Array{Array{Date{1}, "q", "first"}, Array{Date{2}, "n/a", "second"}}},
         {"another key", 7}});
  const auto entries = StoredLog(folder_).read();
  ASSERT_TRUE(entries);
  EXPECT_EQ(*entries, (std::vector<LogEntry>{{Date{1}, "q", "first"}, {Date{2}, "n/a", "second"}}));
}

TEST_F(LogFile, ThatIsNotThereIsAnEmptyLog) {
  EXPECT_TRUE(StoredLog(folder_).read()->empty());
  write(Dictionary{});
  EXPECT_TRUE(StoredLog(folder_).read()->empty());
}

TEST_F(LogFile, EntriesThatAreNoneAreLeftOut) {
  write({{kStoredLogKey, Array{7, Array{}, Array{Date{1}, "q"}, Array{"1", "q", "text"},
                               Array{Date{1}, "q", "good"}}}});
  const auto entries = StoredLog(folder_).read();
  ASSERT_TRUE(entries);
  ASSERT_EQ(entries->size(), 1U);
  EXPECT_EQ(entries->front().text, "good");
}

TEST_F(LogFile, ThatIsBrokenIsNamed) {
  write("bplist00 and then nothing of the kind");
  const auto entries = StoredLog(folder_).read();
  ASSERT_FALSE(entries);
  EXPECT_NE(entries.error().description.find(StoredLog(folder_).file()), std::string::npos);
}

}  // namespace
}  // namespace thmp::client
