// SPDX-License-Identifier: Apache-2.0
//
// The commands of tallyhive-mail. Each adds itself to the argument parser, and when it was chosen
// returns the exit status from run(). Options keep their defaults until the arguments have been
// parsed.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>

#include "console/terminal.h"

namespace thmp::client {

/// What every command knows.
struct CommonOptions {
  std::string clientName = "tallyhive-mail";
  double timeoutSeconds = 5;
  console::ColorMode color = console::ColorMode::kAuto;
};

using Command = std::function<int()>;

/// Each returns what to run when its sub-command was given. `common` outlives the parser.
Command addConnect(CLI::App& app, const CommonOptions& common, CLI::App*& subcommand);
Command addSearch(CLI::App& app, const CommonOptions& common, CLI::App*& subcommand);

/// Adds --client, --timeout and --color, shared by the commands.
void addCommonOptions(CLI::App& subcommand, CommonOptions& common);

}  // namespace thmp::client
