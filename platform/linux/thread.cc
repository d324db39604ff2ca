// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/thread.h"

#include <pthread.h>
#include <signal.h>

#include <utility>

namespace thmp {

void runGuarded(const std::function<void()>& closure) noexcept {
  try {
    closure();
  } catch (...) {
  }
}

std::thread startThread(const std::string& name, std::function<void()> body) noexcept {
  constexpr std::size_t kLongestName = 15;
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  // A new thread begins with the mask of the one that starts it.
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  std::thread thread;
  try {
    thread = std::thread([body = std::move(body)] { runGuarded(body); });
    const std::string kept =
        name.size() > kLongestName ? name.substr(name.size() - kLongestName) : name;
    ::pthread_setname_np(thread.native_handle(), kept.c_str());
  } catch (...) {
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return thread;
}

}  // namespace thmp
