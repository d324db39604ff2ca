// SPDX-License-Identifier: Apache-2.0
//
// How threads of this folder begin, and how a closure ends.
#pragma once

#include <functional>
#include <string>
#include <thread>

namespace thmp {

/// Runs `closure`. What it throws ends here: a host must not die of one closure.
void runGuarded(const std::function<void()>& closure) noexcept;

/// A thread that runs `body`, guarded, with every signal blocked, so that signals stay the main
/// thread's. `name` is cut at its front to the 15 bytes that the kernel keeps. Not joinable when
/// the system gives no thread.
std::thread startThread(const std::string& name, std::function<void()> body) noexcept;

}  // namespace thmp
