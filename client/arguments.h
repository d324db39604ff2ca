// SPDX-License-Identifier: Apache-2.0
//
// The program's arguments as they were typed: put in order for the parser, and told about when they
// are wrong. Pure; any thread.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace thmp::client {

/// `arguments` of the command `search` with its words behind "--", so that "-from:ada" is one and
/// not an option. Those in which an option lacks its value stay as they are, for the parser to
/// tell.
std::vector<std::string> withWordsLast(const CLI::App& search, std::vector<std::string> arguments);

/// For an option whose text goes into messages of the exchange: what is wrong with it, namely that
/// it is no UTF-8; else empty.
std::string wrongText(const std::string& text);

/// What is wrong with the arguments and what to do, in one line.
std::string wrongUsage(const CLI::App& app, const CLI::ParseError& error,
                       const std::vector<std::string>& arguments);

}  // namespace thmp::client
