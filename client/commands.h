// SPDX-License-Identifier: Apache-2.0
//
// The commands of tallyhive-mail. Each adds itself to the argument parser, and when it was chosen
// returns the exit status from run(). Options keep their defaults until the arguments have been
// parsed.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "console/terminal.h"

namespace thmp::client {

/// What several commands know.
struct CommonOptions {
  std::string clientName = "tallyhive-mail";
  double timeoutSeconds = 5;
  console::ColorMode color = console::ColorMode::kAuto;

  std::chrono::milliseconds timeout() const {
    return std::chrono::milliseconds(static_cast<std::int64_t>(timeoutSeconds * 1000));
  }
};

using Command = std::function<int()>;

/// Each returns what to run when its sub-command was given. `common` outlives the parser.
Command addConnect(CLI::App& app, CommonOptions& common, CLI::App*& subcommand);
Command addSearch(CLI::App& app, CommonOptions& common, CLI::App*& subcommand);
Command addCancel(CLI::App& app, CommonOptions& common, CLI::App*& subcommand);
Command addTerminate(CLI::App& app, CommonOptions& common, CLI::App*& subcommand);
Command addLog(CLI::App& app, CommonOptions& common, CLI::App*& subcommand);

/// Adds --client and --timeout.
void addExchangeOptions(CLI::App& subcommand, CommonOptions& common);
/// Adds --color.
void addColorOption(CLI::App& subcommand, CommonOptions& common);

}  // namespace thmp::client
