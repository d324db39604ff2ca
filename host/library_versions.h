// SPDX-License-Identifier: Apache-2.0
//
// The libraries that this program runs with.
#pragma once

#include <string>

namespace thmp {

/// Names and versions on one line: of shared libraries those that are loaded, of others those that
/// were built in.
std::string libraryVersions();

}  // namespace thmp
