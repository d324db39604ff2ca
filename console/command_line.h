// SPDX-License-Identifier: Apache-2.0
//
// What a command line can hold, read off its parser: constant once made, any thread.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace thmp::console {

struct OptionSyntax {
  std::vector<std::string> names;  // with their dashes, long ones first
  std::string description;
  std::string value;  // the type name of its value; empty for a flag
  bool repeats = false;

  bool takesValue() const { return !value.empty(); }
};

struct CommandSyntax {
  std::string name;
  std::string description;
  std::vector<OptionSyntax> options;  // without hidden ones
};

struct ProgramSyntax {
  CommandSyntax program;
  std::vector<CommandSyntax> commands;
};

ProgramSyntax syntaxOf(const CLI::App& app);

}  // namespace thmp::console
