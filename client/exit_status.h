// SPDX-License-Identifier: Apache-2.0
//
// The program's exit status, in one place.
#pragma once

#include <chrono>
#include <string_view>

namespace thmp::client {

inline constexpr int kExitSuccess = 0;
inline constexpr int kExitNothingFound = 1;
inline constexpr int kExitUsage = 2;  // or a query that failed
inline constexpr int kExitNoPlugin = 3;

/// One line on standard error; returns `status`.
int failWith(int status, std::string_view what);

/// Says on standard error that no plug-in answered, and what to do; returns kExitNoPlugin.
int noPluginAnswers(std::chrono::milliseconds timeout);

}  // namespace thmp::client
