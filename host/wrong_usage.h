// SPDX-License-Identifier: Apache-2.0
//
// What to say to somebody whose command line cannot be understood.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace thmp {

/// One line: what is wrong, and the command or option that is nearest to what was written. `app`
/// has just failed to parse with `error`.
std::string wrongUsage(const CLI::App& app, const CLI::ParseError& error);

}  // namespace thmp
