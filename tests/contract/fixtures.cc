// SPDX-License-Identifier: Apache-2.0
#include "tests/contract/fixtures.h"

#include <chrono>
#include <thread>
#include <utility>

namespace thmp::contract {

bool Counter::waitFor(int least) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  const Lock lock(mutex_);
  while (count_ < least) {
    if (raised_.wait_until(mutex_, deadline) == std::cv_status::timeout) return count_ >= least;
  }
  return true;
}

std::shared_ptr<void> onDestruction(std::function<void()> closure) {
  static int anchor = 0;
  return {&anchor, [closure = std::move(closure)](void*) { closure(); }};
}

void runOnThreads(int count, const std::function<void(int number)>& body) {
  std::vector<std::thread> threads;
  threads.reserve(static_cast<std::size_t>(count));
  for (int number = 0; number < count; ++number) threads.emplace_back(body, number);
  for (std::thread& thread : threads) thread.join();
}

}  // namespace thmp::contract
