// SPDX-License-Identifier: Apache-2.0
#include "host/wrong_usage.h"

#include <fmt/format.h>

#include <string_view>
#include <vector>

#include "base/nearest_name.h"

namespace thmp {
namespace {

std::string nearest(std::string_view name, const std::vector<std::string>& names) {
  const std::vector<std::string_view> views(names.begin(), names.end());
  return std::string(nearestName(name, views));
}

std::vector<std::string> commandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands({})) names.push_back(command->get_name());
  return names;
}

std::vector<std::string> optionNames(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::Option* option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    for (const std::string& name : option->get_snames()) names.push_back("-" + name);
  }
  return names;
}

std::string typed(const CLI::App& command) {
  const CLI::App* program = command.get_parent();
  return (program == nullptr ? "" : program->get_name() + " ") + command.get_name();
}

// What gives help on `command`, as it is typed.
std::string helpOf(const CLI::App& command) { return typed(command) + " --help"; }

std::string unknownOption(const CLI::App& command, const std::string& written) {
  const std::string name = written.substr(0, written.find('='));
  if (command.get_option_no_throw(name) != nullptr) {
    return fmt::format("{} belongs behind the command: {} {}", name, typed(command), name);
  }
  const std::string meant = nearest(name, optionNames(command));
  if (!meant.empty()) return fmt::format("there is no option {}; did you mean {}?", name, meant);
  return fmt::format("there is no option {}; see {}", name, helpOf(command));
}

std::string unknownCommand(const CLI::App& app, const std::string& name) {
  const std::vector<std::string> names = commandNames(app);
  const std::string meant = nearest(name, names);
  if (!meant.empty()) return fmt::format("there is no command {}; did you mean {}?", name, meant);
  return fmt::format("there is no command {}; the commands are {}", name, fmt::join(names, ", "));
}

}  // namespace

std::string wrongUsage(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<CLI::App*> chosen = app.get_subcommands();
  const CLI::App& command = chosen.empty() ? app : *chosen.front();
  const std::vector<std::string> rest = app.remaining(/*recurse=*/true);
  if (rest.empty() && chosen.empty()) {
    return fmt::format("name a command: {}; see {}", fmt::join(commandNames(app), ", "),
                       helpOf(app));
  }
  if (rest.empty()) return fmt::format("{}; see {}", error.what(), helpOf(command));
  const std::string& first = rest.front();
  if (first.size() > 1 && first[0] == '-') return unknownOption(command, first);
  if (chosen.empty()) return unknownCommand(app, first);
  return fmt::format("{} takes no argument {}; put what belongs together in quotes",
                     command.get_name(), first);
}

}  // namespace thmp
