// SPDX-License-Identifier: Apache-2.0
#include "client/arguments.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "base/nearest_name.h"
#include "console/terminal.h"

namespace thmp::client {
namespace {

bool takesValue(const CLI::App& command, const std::string& option) {
  const CLI::Option* known = command.get_option_no_throw(option);
  return known != nullptr && known->get_items_expected_min() > 0;
}

std::vector<std::string> commandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (!command->get_group().empty()) names.push_back(command->get_name());
  }
  return names;
}

std::vector<std::string> optionNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

std::string noSuch(std::string_view kind, const std::string& name,
                   const std::vector<std::string>& names) {
  const std::vector<std::string_view> candidates(names.begin(), names.end());
  const std::string_view nearest = nearestName(name, candidates);
  return fmt::format("there is no {} {}{}", kind, name,
                     nearest.empty() ? "" : fmt::format("; did you mean {}?", nearest));
}

std::string noSuchCommand(const std::string& name, const std::vector<std::string>& names) {
  std::string what = noSuch("command", name, names);
  if (!what.ends_with("?")) what += fmt::format("; the commands are {}", fmt::join(names, ", "));
  return what;
}

// Of the parser's errors the one that needs words of our own.
std::string needsValue(const CLI::App& command, const CLI::ParseError& error) {
  const std::string_view what = error.what();
  const std::string name(what.substr(0, what.find(':')));
  const CLI::Option* option = command.get_option_no_throw(name);
  if (option == nullptr) return std::string(what);
  return option->count() > 1 ? fmt::format("{} was given more than once; give it once", name)
                             : fmt::format("{} needs {}", name, option->get_type_name());
}

// What is wrong with the arguments, in a few words.
std::string complaint(const CLI::App& app, const CLI::App& command, const CLI::ParseError& error,
                      const std::vector<std::string>& arguments) {
  if (&command == &app) {
    const auto word = std::find_if(arguments.begin(), arguments.end(),
                                   [](const std::string& a) { return !a.starts_with("-"); });
    if (word != arguments.end()) return noSuchCommand(*word, commandNames(app));
    if (arguments.empty()) {
      return fmt::format("name a command: {}", fmt::join(commandNames(app), ", "));
    }
    return noSuch("option", arguments.front(), optionNames(app));
  }
  const std::string first = arguments.front().substr(0, arguments.front().find('='));
  if (first.starts_with("-") && app.get_option_no_throw(first) == nullptr) {
    return command.get_option_no_throw(first) == nullptr
               ? noSuch("option", first, optionNames(app))
               : fmt::format("{} belongs behind the command: tallyhive-mail {} {}", first,
                             command.get_name(), first);
  }
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr) {
    return needsValue(command, error);
  }
  const std::vector<std::string> extras = command.remaining();
  if (dynamic_cast<const CLI::ExtrasError*>(&error) == nullptr || extras.empty()) {
    return error.what();
  }
  const std::string extra = extras.front().substr(0, extras.front().find('='));
  return extra.starts_with("-") ? noSuch("option", extra, optionNames(command))
                                : fmt::format("{} takes no {}", command.get_name(), extra);
}

}  // namespace

std::vector<std::string> withWordsLast(const CLI::App& search, std::vector<std::string> arguments) {
  if (arguments.empty()) return arguments;
  std::vector<std::string> options = {arguments.front()};
  std::vector<std::string> words;
  for (auto argument = arguments.begin() + 1; argument != arguments.end(); ++argument) {
    if (*argument == "--") {
      words.insert(words.end(), argument + 1, arguments.end());
      break;
    }
    const bool isOption = argument->starts_with("--") || *argument == "-0" || *argument == "-h";
    (isOption ? options : words).push_back(*argument);
    if (!isOption || !takesValue(search, *argument)) continue;
    if (argument + 1 == arguments.end() || (argument + 1)->starts_with("--")) return arguments;
    options.push_back(*++argument);
  }
  if (!words.empty()) options.push_back("--");
  options.insert(options.end(), words.begin(), words.end());
  return options;
}

std::string wrongText(const std::string& text) {
  return console::isUtf8(text) ? std::string()
                               : fmt::format("\"{}\" is no UTF-8 text", console::shown(text));
}

std::string wrongUsage(const CLI::App& app, const CLI::ParseError& error,
                       const std::vector<std::string>& arguments) {
  const auto parsed = app.get_subcommands();
  const CLI::App& command = parsed.empty() ? app : *parsed.front();
  const std::string what = complaint(app, command, error, arguments);
  return fmt::format("{}{} tallyhive-mail{} --help", what, what.ends_with("?") ? " See" : "; see",
                     parsed.empty() ? "" : " " + command.get_name());
}

}  // namespace thmp::client
