// SPDX-License-Identifier: Apache-2.0
#include "client/SearchOutput.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "base/plist.h"
#include "messaging/message_names.h"

namespace thmp::client {
namespace {

// Notes what it is told, in order.
class RecordingOutput : public SearchOutput {
 public:
  void started(std::string_view uniqueName) override { told.push_back(std::string(uniqueName)); }
  void found(ResultsBatch&) override { told.push_back("found"); }
  void removed(std::string_view libraryID) override { told.push_back(std::string(libraryID)); }
  void gathered(const Received&, std::chrono::duration<double>) override {
    told.push_back("gathered");
  }
  void completed(const Received&, const SearchFailure*) override { told.push_back("completed"); }

  std::vector<std::string> told;
};

std::unique_ptr<ResultsBatch> batchOf(std::size_t messages) {
  const Array empty(std::vector<Value>(messages, Value(Dictionary())));
  return ResultsBatch::open(*writeBinaryPropertyList(Dictionary{{kMessagesKey, empty}}));
}

void tellAll(SearchOutput& output) {
  output.started("name");
  output.found(*batchOf(1));
  output.removed("7");
  output.gathered({1, 1}, std::chrono::seconds(1));
  output.completed({1, 1}, nullptr);
}
const std::vector<std::string> kAll = {"name", "found", "7", "gathered", "completed"};

TEST(Progress, TellsHowManyCameAndLeavesAnEmptyLine) {
  RecordingOutput next;
  testing::internal::CaptureStderr();
  ProgressOutput output(next, std::chrono::milliseconds(0));
  output.found(*batchOf(1));
  output.found(*batchOf(2));
  output.gathered({3, 2}, std::chrono::seconds(1));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "\r\x1b[K1 found so far\r\r\x1b[K3 found so far\r\r\x1b[K");
}

TEST(Progress, SaysNothingOfASearchThatIsOverSoon) {
  RecordingOutput next;
  testing::internal::CaptureStderr();
  {
    ProgressOutput output(next, std::chrono::hours(1));
    tellAll(output);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(next.told, kAll);
}

TEST(Progress, EndsWithGathering) {
  RecordingOutput next;
  ProgressOutput output(next, std::chrono::milliseconds(0));
  output.gathered({}, std::chrono::seconds(1));
  testing::internal::CaptureStderr();
  output.found(*batchOf(1));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(SummingUp, HandsAllOnAndCountsWhatWasFound) {
  RecordingOutput next;
  MailSummary summary({});
  SummingOutput output(summary, next);
  EXPECT_FALSE(output.isWhole());
  tellAll(output);
  EXPECT_TRUE(output.isWhole());
  EXPECT_EQ(next.told, kAll);
  EXPECT_EQ(summary.total().total(), 1U);
}

}  // namespace
}  // namespace thmp::client
