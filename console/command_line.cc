// SPDX-License-Identifier: Apache-2.0
#include "console/command_line.h"

#include <utility>

namespace thmp::console {
namespace {

OptionSyntax syntaxOf(const CLI::Option& option) {
  OptionSyntax syntax;
  for (const std::string& name : option.get_lnames()) syntax.names.push_back("--" + name);
  for (const std::string& name : option.get_snames()) syntax.names.push_back("-" + name);
  syntax.description = option.get_description();
  if (option.get_items_expected_max() > 0) syntax.value = option.get_type_name();
  syntax.repeats = option.get_items_expected_max() > 1;
  return syntax;
}

CommandSyntax syntaxOfCommand(const CLI::App& command) {
  CommandSyntax syntax{command.get_name(), command.get_description(), {}};
  for (const CLI::Option* option : command.get_options()) {
    if (!option->get_group().empty() && !option->get_positional()) {
      syntax.options.push_back(syntaxOf(*option));
    }
  }
  return syntax;
}

}  // namespace

ProgramSyntax syntaxOf(const CLI::App& app) {
  ProgramSyntax syntax{syntaxOfCommand(app), {}};
  for (const CLI::App* command : app.get_subcommands({})) {
    syntax.commands.push_back(syntaxOfCommand(*command));
  }
  return syntax;
}

}  // namespace thmp::console
