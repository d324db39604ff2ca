// SPDX-License-Identifier: Apache-2.0
//
// What holds at the next start, whatever ended the process before it.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/linux/LinuxPreferences.h"
#include "platform/linux/PasteboardStore.h"
#include "platform/linux/testing.h"

namespace thmp::disk {

/// User defaults that were opened in `folder`, with `log`, can be written, and nothing is beside
/// them.
inline void checkDefaultsGoOn(LinuxPreferences& preferences, const std::string& folder,
                              const testing::CollectingLog& log) {
  preferences.set("later", 1);
  EXPECT_TRUE(preferences.flush());
  EXPECT_EQ(testing::namesIn(folder),
            (std::vector<std::string>{"defaults.plist", "defaults.plist.lock"}));
  EXPECT_TRUE(log.lines().empty());
}

/// A store that starts over `cache` leaves no pasteboard of before.
inline void checkPasteboardsAreGone(const std::string& cache) {
  testing::CollectingLog log;
  const PasteboardStore next(cache, log);
  const std::string folder = cache + "/tallyhive";
  if (!testing::exists(folder)) return;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    EXPECT_TRUE(testing::namesIn(entry.path()).empty()) << entry.path();
  }
}

}  // namespace thmp::disk
