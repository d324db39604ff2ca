// SPDX-License-Identifier: Apache-2.0
//
// The command line of tallyhive-mail: its commands and options, made without running any of them.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client/commands.h"

namespace thmp::client {

struct ClientApp {
  CLI::App parser;
  CommonOptions common;
  std::vector<std::pair<CLI::App*, Command>> commands;
};

/// Never null. It stays where it is: its options write into it. With all commands, or with that one
/// alone whose name is `command`: to make the others is a part of what a search takes.
std::unique_ptr<ClientApp> buildApp(std::string_view command = {});

/// Parses `arguments`, without the program's name, and runs the command that they choose. Returns
/// the program's exit status.
int runApp(ClientApp& app, std::vector<std::string> arguments);

}  // namespace thmp::client
