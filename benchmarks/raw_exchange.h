// SPDX-License-Identifier: Apache-2.0
//
// The least that two processes can do to exchange files through folders: drop, wake, list, read,
// unlink, and the same back. What the exchange is measured beside.
#pragma once

#include <string>
#include <vector>

namespace thmp::benchmarks {

/// Makes "in" and "out" below `folder`, which is on the file system to measure, and returns the
/// microseconds of each of `rounds` round trips with a process of its own; empty on failure.
std::vector<double> rawRoundTrips(const std::string& folder, int rounds);

}  // namespace thmp::benchmarks
