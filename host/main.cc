// SPDX-License-Identifier: Apache-2.0
//
// tallyhive-mailhost: the stand-alone mail host. It owns a mail library and a search index over the
// user's mail, loads the plug-in and serves it.
#include <fmt/format.h>
#include <sys/stat.h>

#include <cstdio>
#include <exception>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "console/completions.h"
#include "console/terminal.h"
#include "host/commands.h"
#include "host/library_versions.h"
#include "host/query/syntax_error.h"
#include "host/wrong_usage.h"

namespace thmp {

int failWith(int status, std::string_view what) {
  console::say(fmt::format("tallyhive-mailhost: {}\n", console::shown(what)));
  return status;
}

int failWithSyntax(std::string_view text, const query::SyntaxError& error) {
  console::say(fmt::format("tallyhive-mailhost: {}{}\n{}\n", error.message,
                           error.hint.empty() ? "" : "; " + error.hint,
                           query::pointOut(text, error)));
  return kExitUsage;
}

void addColorOption(CLI::App& subcommand, console::ColorMode& color) {
  const auto choose = [&color](const std::string& when) {
    const std::map<std::string, console::ColorMode> modes = {
        {"auto", console::ColorMode::kAuto},
        {"always", console::ColorMode::kAlways},
        {"never", console::ColorMode::kNever}};
    const auto mode = modes.find(when);
    if (mode == modes.end()) throw CLI::ValidationError("--color", "it is auto, always or never");
    color = mode->second;
  };
  subcommand.add_option_function<std::string>("--color", choose, "auto, always or never")
      ->type_name("WHEN");
}

namespace {

constexpr char kVersionHelp[] = "Print the versions of program and libraries";

std::string versionText() {
  return std::string("tallyhive-mailhost ") + THMP_VERSION + "\n" + libraryVersions();
}

int run(int argc, char** argv) {
  CLI::App app("Keeps a search index over mail and serves the Tallyhive mail plug-in.",
               "tallyhive-mailhost");
  app.set_version_flag("--version", versionText, kVersionHelp);
  app.require_subcommand(1);
  std::vector<std::pair<CLI::App*, Command>> commands;
  for (const auto add : {addIndex, addServe, addFind, addExplain, addStat, addDoctor}) {
    CLI::App* subcommand = nullptr;
    Command command = add(app, subcommand);
    subcommand->set_version_flag("--version", versionText, kVersionHelp);
    commands.emplace_back(subcommand, std::move(command));
  }
  console::addCompletionOption(app, {{"WHEN", {"auto", "always", "never"}}});
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      std::ostringstream text;
      const int status = app.exit(error, text, text);
      std::fputs(text.str().c_str(), stdout);
      return status;
    }
    return failWith(kExitUsage, wrongUsage(app, error));
  }
  for (const auto& [subcommand, command] : commands) {
    if (subcommand->parsed()) return command();
  }
  return kExitUsage;
}

}  // namespace
}  // namespace thmp

int main(int argc, char** argv) {
  thmp::console::prepareStandardStreams();
  ::umask(077);  // whatever is made here derives from the user's mail
  try {
    const int status = thmp::run(argc, argv);
    const std::string lost = thmp::console::lostOutput();
    return lost.empty() ? status : thmp::failWith(thmp::kExitFailure, lost);
  } catch (const std::exception& failure) {
    return thmp::failWith(thmp::kExitFailure, failure.what());
  }
}
