// SPDX-License-Identifier: Apache-2.0
#include "client/ResultsBatch.h"

#include <gtest/gtest.h>

#include "base/plist.h"
#include "messaging/message_names.h"

namespace thmp::client {
namespace {

std::unique_ptr<ResultsBatch> batchOf(const Value& root) {
  return ResultsBatch::open(*writeBinaryPropertyList(root));
}

std::string eventsOf(ResultsBatch& batch) {
  testing::internal::CaptureStdout();
  {
    console::StandardOutput output(console::ColorMode::kNever);
    for (std::size_t i = 0; i < batch.size(); ++i) batch.printEvent(i, output);
    output.flush();
  }
  return testing::internal::GetCapturedStdout();
}

const Dictionary kMessage{{kAttributesKey, Dictionary{{"kMDItemSubject", "Plums"}}},
                          {kIndexKey, 3},
                          {kLibraryIDKey, 12},
                          {kPathKey, "/mail/12.eml"}};

TEST(ABatch, GivesEachMessageInEachForm) {
  const auto batch = batchOf(Dictionary{{kMessagesKey, Array{kMessage, kMessage}}});
  ASSERT_EQ(batch->size(), 2U);
  EXPECT_EQ(Value(batch->message(1)), Value(kMessage));
  EXPECT_EQ(batch->path(1), "/mail/12.eml");
  const std::string event = R"({"event":"found","index":3,"libraryID":12,"path":"/mail/12.eml",)"
                            R"("attributes":{"kMDItemSubject":"Plums"}})"
                            "\n";
  EXPECT_EQ(eventsOf(*batch), event + event);
}

TEST(ABatch, HasEmptyPlacesForWhatAMessageDoesNotSay) {
  const auto batch = batchOf(Dictionary{{kMessagesKey, Array{Dictionary(), "text"}}});
  ASSERT_EQ(batch->size(), 2U);
  for (const std::size_t index : {0U, 1U}) {
    EXPECT_TRUE(batch->message(index).empty());
    EXPECT_EQ(batch->path(index), "");
  }
  const std::string event =
      R"({"event":"found","index":null,"libraryID":null,"path":null,"attributes":null})"
      "\n";
  EXPECT_EQ(eventsOf(*batch), event + event);
}

TEST(ABatch, OfAnotherMakeHasNoMessages) {
  for (const Value& root : {Value("text"), Value(Array{1}), Value(Dictionary()),
                            Value(Dictionary{{kMessagesKey, "none"}})}) {
    EXPECT_EQ(batchOf(root)->size(), 0U);
  }
}

TEST(ABatch, ThatIsDamagedIsNone) {
  const std::string whole = *writeBinaryPropertyList(Dictionary{{kMessagesKey, Array{kMessage}}});
  for (std::size_t size = 0; size < whole.size(); ++size) {
    Error error;
    EXPECT_EQ(ResultsBatch::open(whole.substr(0, size), &error), nullptr) << size;
    EXPECT_TRUE(error.isSet());
  }
}

}  // namespace
}  // namespace thmp::client
