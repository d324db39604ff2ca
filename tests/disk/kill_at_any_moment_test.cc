// SPDX-License-Identifier: Apache-2.0
//
// A process that writes the user defaults again and again, killed at any moment. THMP_KILLS says
// how often.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <cstdlib>
#include <iostream>
#include <new>
#include <random>
#include <string_view>
#include <thread>

#include "platform/linux/LinuxPreferences.h"
#include "platform/linux/testing.h"
#include "tests/disk/next_start.h"

namespace thmp::disk {
namespace {

using thmp::testing::CollectingLog;
using thmp::testing::namesIn;
using thmp::testing::TemporaryFolder;

int kills() {
  const char* const said = std::getenv("THMP_KILLS");
  int number = 100;
  if (said != nullptr) std::from_chars(said, said + std::string_view(said).size(), number);
  return number;
}

std::string textOf(std::int64_t number) {
  return std::string(static_cast<std::size_t>(number % 40) * 1000, 'x') + std::to_string(number);
}

/// Until it is killed.
[[noreturn]] void writeOn(const std::string& folder, std::int64_t number,
                          std::atomic<std::int64_t>& written) {
  CollectingLog log;
  LinuxPreferences preferences(folder, log);
  for (;; ++number) {
    preferences.set("last", Dictionary{{"number", number}, {"text", textOf(number)}});
    if (preferences.flush()) written = number;
  }
}

TEST(KilledAtAnyMoment, UserDefaultsAreThoseOfTheLastWriteOrTheOneUnderWay) {
  const TemporaryFolder folder;
  const std::string place = folder.at("defaults");
  void* const shared = ::mmap(nullptr, sizeof(std::atomic<std::int64_t>), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto& written = *new (shared) std::atomic<std::int64_t>(0);
  std::mt19937 chance(1);
  int halfWay = 0;
  for (int kill = 0; kill < kills(); ++kill) {
    SCOPED_TRACE("kill " + std::to_string(kill));
    const std::int64_t before = written;
    const pid_t child = ::fork();
    if (child == 0) writeOn(place, before + 1, written);
    while (written == before) std::this_thread::yield();
    // Work, and no waiting: on a busy machine others would take each turn that is given away.
    for (auto calls = chance() % 5'000; calls > 0; --calls) static_cast<void>(::getppid());
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    halfWay += namesIn(place).size() > 2;

    CollectingLog log;
    LinuxPreferences preferences(place, log);
    const auto last = preferences.get("last").asDictionary();
    ASSERT_TRUE(last);
    const std::int64_t number = (*last)["number"].asInteger().value_or(-1);
    EXPECT_GE(number, written);
    EXPECT_LE(number, written + 1);
    EXPECT_EQ((*last)["text"], Value(textOf(number)));
    checkDefaultsGoOn(preferences, place, log);
    written = number;
    if (HasFailure()) break;
  }
  std::cout << "[          ] " << kills() << " kills, " << halfWay
            << " while the new file was half written, " << written << " writes\n";
  ::munmap(shared, sizeof written);
}

}  // namespace
}  // namespace thmp::disk
