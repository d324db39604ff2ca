// SPDX-License-Identifier: Apache-2.0
//
// The commands of tallyhive-mailhost. Each adds its sub-command to the argument parser and returns
// what to run when it was chosen; that returns the exit status.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string_view>

#include "base/error.h"
#include "console/terminal.h"
#include "host/query/syntax_error.h"

namespace thmp {

inline constexpr int kExitSuccess = 0;
inline constexpr int kExitFailure = 1;  // or nothing found
inline constexpr int kExitUsage = 2;    // or a query that does not parse
inline constexpr int kExitInterrupted = 130;

using Command = std::function<int()>;

Command addIndex(CLI::App& app, CLI::App*& subcommand);
Command addServe(CLI::App& app, CLI::App*& subcommand);
Command addFind(CLI::App& app, CLI::App*& subcommand);
Command addExplain(CLI::App& app, CLI::App*& subcommand);
Command addStat(CLI::App& app, CLI::App*& subcommand);
Command addDoctor(CLI::App& app, CLI::App*& subcommand);

/// One line on standard error; returns `status`.
int failWith(int status, std::string_view what);

/// The error, what to write instead, and the place in the text, on standard error; the status of a
/// query that does not parse.
int failWithSyntax(std::string_view text, const query::SyntaxError& error);

/// Adds --color.
void addColorOption(CLI::App& subcommand, console::ColorMode& color);

}  // namespace thmp
