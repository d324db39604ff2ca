// SPDX-License-Identifier: Apache-2.0
#include "console/completions.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "console/command_line.h"

namespace thmp::console {
namespace {

enum class Offer { kNothing, kFolders, kFiles, kWords };

Offer offerFor(const std::string& value, const ValueWords& words) {
  if (value == "DIR" || value == "BUNDLE") return Offer::kFolders;
  if (value == "FILE") return Offer::kFiles;
  return words.contains(value) ? Offer::kWords : Offer::kNothing;
}

std::string joined(const std::vector<std::string>& texts, std::string_view separator = " ") {
  return fmt::format("{}", fmt::join(texts, separator));
}

// In single quotes, as bash and zsh read them.
std::string inQuotes(std::string_view text) {
  std::string out = "'";
  for (const char c : text) c == '\'' ? out += "'\\''" : out += c;
  return out + "'";
}

// In single quotes, as fish reads them.
std::string inQuotesForFish(std::string_view text) {
  std::string out = "'";
  for (const char c : text) {
    if (c == '\'' || c == '\\') out += '\\';
    out += c;
  }
  return out + "'";
}

std::string functionName(const ProgramSyntax& syntax) {
  std::string name = "_" + syntax.program.name;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

std::vector<std::string> commandNames(const ProgramSyntax& syntax) {
  std::vector<std::string> names;
  for (const CommandSyntax& command : syntax.commands) names.push_back(command.name);
  return names;
}

std::string optionWords(const CommandSyntax& command) {
  std::vector<std::string> names;
  for (const OptionSyntax& option : command.options) {
    names.insert(names.end(), option.names.begin(), option.names.end());
  }
  return joined(names);
}

// --- bash ---

std::string bashValues(const CommandSyntax& command, const ValueWords& words) {
  std::string cases;
  for (const OptionSyntax& option : command.options) {
    if (!option.takesValue()) continue;
    std::vector<std::string> patterns;
    for (const std::string& name : option.names) patterns.push_back(command.name + ":" + name);
    std::string action;
    switch (offerFor(option.value, words)) {
      case Offer::kFolders:
        action = "compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- \"$word\"); ";
        break;
      case Offer::kFiles:
        action = "compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- \"$word\"); ";
        break;
      case Offer::kWords:
        action = fmt::format("mapfile -t COMPREPLY < <(compgen -W {} -- \"$word\"); ",
                             inQuotes(joined(words.at(option.value))));
        break;
      case Offer::kNothing:
        break;
    }
    cases += fmt::format("    {}) {}return ;;\n", joined(patterns, " | "), action);
  }
  return cases;
}

std::string bashScript(const ProgramSyntax& syntax, const ValueWords& words) {
  std::string values;
  std::string options;
  for (const CommandSyntax& command : syntax.commands) {
    values += bashValues(command, words);
    options += fmt::format("    {}) words={} ;;\n", command.name, inQuotes(optionWords(command)));
  }
  // A "=" is a word of its own here, so that "--color=al" is three.
  return fmt::format(
      R"(# bash completion for {program}; made by "{program} --completion bash"
{function}() {{
  local word=${{COMP_WORDS[COMP_CWORD]}} before=${{COMP_WORDS[COMP_CWORD - 1]}} command= words i
  COMPREPLY=()
  if [[ $word == = ]]; then
    word=
  elif [[ $before == = ]]; then
    before=${{COMP_WORDS[COMP_CWORD - 2]}}
  fi
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${{COMP_WORDS[i]}} in
      {alternatives}) command=${{COMP_WORDS[i]}} && break ;;
    esac
  done
  case $command:$before in
{values}  esac
  case $command in
{options}    *) words={top} ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}}
complete -F {function} {program}
)",
      fmt::arg("program", syntax.program.name), fmt::arg("function", functionName(syntax)),
      fmt::arg("alternatives", joined(commandNames(syntax), " | ")), fmt::arg("values", values),
      fmt::arg("options", options),
      fmt::arg("top", inQuotes(joined(commandNames(syntax)) + " " + optionWords(syntax.program))));
}

// --- zsh ---

std::string zshAction(const OptionSyntax& option, const ValueWords& words) {
  if (!option.takesValue()) return {};
  switch (offerFor(option.value, words)) {
    case Offer::kFolders:
      return ":" + option.value + ":_files -/";
    case Offer::kFiles:
      return ":" + option.value + ":_files";
    case Offer::kWords:
      return ":" + option.value + ":(" + joined(words.at(option.value)) + ")";
    case Offer::kNothing:
      break;
  }
  return ":" + option.value + ": ";
}

// The names of an option exclude each other, unless it may be repeated.
std::string zshOptions(const CommandSyntax& command, const ValueWords& words) {
  std::string out;
  for (const OptionSyntax& option : command.options) {
    std::string description;
    for (const char c : option.description) {
      if (c == '[' || c == ']' || c == ':' || c == '\\') description += '\\';
      description += c;
    }
    for (const std::string& name : option.names) {
      std::string spec = option.repeats ? "*" : "(" + joined(option.names) + ")";
      spec += name + (option.takesValue() && name.starts_with("--") ? "=" : "");
      spec += "[" + description + "]" + zshAction(option, words);
      out += " \\\n        " + inQuotes(spec);
    }
  }
  return out;
}

std::string zshScript(const ProgramSyntax& syntax, const ValueWords& words) {
  std::string commands;
  std::string cases;
  for (const CommandSyntax& command : syntax.commands) {
    commands += " \\\n        " + inQuotes(command.name + ":" + command.description);
    cases += fmt::format("      {}) _arguments -S{} '*: : ' ;;\n", command.name,
                         zshOptions(command, words));
  }
  return fmt::format(R"(#compdef {program}
# Made by "{program} --completion zsh".
{function}() {{
  local context state state_descr line
  typeset -A opt_args
  _arguments -C{top} '1: :->command' '*:: :->rest'
  case $state in
    command)
      local -a commands=({commands})
      _describe command commands
      ;;
    rest)
      case $line[1] in
{cases}      esac
      ;;
  esac
}}
{function} "$@"
)",
                     fmt::arg("program", syntax.program.name),
                     fmt::arg("function", functionName(syntax)),
                     fmt::arg("top", zshOptions(syntax.program, words)),
                     fmt::arg("commands", commands), fmt::arg("cases", cases));
}

// --- fish ---

std::string fishOption(std::string_view start, const OptionSyntax& option,
                       const ValueWords& words) {
  std::string line(start);
  for (const std::string& name : option.names) {
    line += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
  }
  if (option.takesValue()) {
    switch (offerFor(option.value, words)) {
      case Offer::kFolders:
        line += " -x -a '(__fish_complete_directories)'";
        break;
      case Offer::kFiles:
        line += " -r -F";
        break;
      case Offer::kWords:
        line += " -x -a " + inQuotesForFish(joined(words.at(option.value)));
        break;
      case Offer::kNothing:
        line += " -x";
        break;
    }
  }
  return line + " -d " + inQuotesForFish(option.description) + "\n";
}

std::string fishScript(const ProgramSyntax& syntax, const ValueWords& words) {
  const std::string complete = "complete -c " + syntax.program.name;
  const std::string atTop =
      complete + " -n 'not __fish_seen_subcommand_from " + joined(commandNames(syntax)) + "'";
  std::string out = fmt::format("# fish completion for {0}; made by \"{0} --completion fish\"\n",
                                syntax.program.name) +
                    complete + " -f\n";
  for (const OptionSyntax& option : syntax.program.options) out += fishOption(atTop, option, words);
  for (const CommandSyntax& command : syntax.commands) {
    out += atTop + " -a " + command.name + " -d " + inQuotesForFish(command.description) + "\n";
    const std::string inside = complete + " -n '__fish_seen_subcommand_from " + command.name + "'";
    for (const OptionSyntax& option : command.options) out += fishOption(inside, option, words);
  }
  return out;
}

}  // namespace

std::string completionScript(const CLI::App& app, std::string_view shell, const ValueWords& words) {
  const ProgramSyntax syntax = syntaxOf(app);
  if (shell == "bash") return bashScript(syntax, words);
  if (shell == "zsh") return zshScript(syntax, words);
  if (shell == "fish") return fishScript(syntax, words);
  return {};
}

void addCompletionOption(CLI::App& app, ValueWords words) {
  const auto print = [&app, words = std::move(words)](const std::string& shell) {
    std::string script = completionScript(app, shell, words);
    if (script.empty()) {
      throw CLI::ValidationError("--completion", "it is for bash, zsh or fish");
    }
    script.pop_back();  // printing ends the line
    throw CLI::CallForVersion(script, 0);
  };
  app.add_option_function<std::string>("--completion", print,
                                       "Print the completions for a shell: bash, zsh or fish")
      ->type_name("SHELL")
      ->group("");
}

}  // namespace thmp::console
