// SPDX-License-Identifier: Apache-2.0
//
// Completions for shells, made from the argument parser itself, so that they know what the program
// knows. Any thread.
#pragma once

#include <CLI/CLI.hpp>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace thmp::console {

/// What can stand for a value, by the type names that the options of a program use. DIR, BUNDLE and
/// FILE are paths and need no words; nothing is offered for other names. Words are letters, digits,
/// "_" and "-": what each shell takes as one.
using ValueWords = std::map<std::string, std::vector<std::string>>;

/// The script by which `shell` ("bash", "zsh" or "fish") completes the command line that `app`
/// parses: its sub-commands, and their options but for hidden ones. Empty for any other shell.
std::string completionScript(const CLI::App& app, std::string_view shell, const ValueWords& words);

/// Adds the hidden option --completion SHELL, which prints that script and ends the parsing. `app`
/// outlives the parsing.
void addCompletionOption(CLI::App& app, ValueWords words);

}  // namespace thmp::console
