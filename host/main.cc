// SPDX-License-Identifier: Apache-2.0
//
// tallyhive-mailhost: the stand-alone mail host. It owns a mail library and a search index over the
// user's mail, loads the plug-in and serves it.
#include <fmt/format.h>
#include <sys/stat.h>

#include <exception>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "host/commands.h"

namespace thmp {

int failWith(int status, std::string_view what) {
  fmt::print(stderr, "tallyhive-mailhost: {}\n", console::shown(what));
  return status;
}

void addColorOption(CLI::App& subcommand, console::ColorMode& color) {
  const std::map<std::string, console::ColorMode> modes = {{"auto", console::ColorMode::kAuto},
                                                           {"always", console::ColorMode::kAlways},
                                                           {"never", console::ColorMode::kNever}};
  subcommand.add_option("--color", color, "auto, always or never")
      ->transform(CLI::CheckedTransformer(modes, CLI::ignore_case).description(""))
      ->type_name("WHEN");
}

namespace {

int run(int argc, char** argv) {
  CLI::App app("Keeps a search index over mail and serves the Tallyhive mail plug-in.",
               "tallyhive-mailhost");
  app.set_version_flag("--version", std::string("tallyhive-mailhost ") + THMP_VERSION);
  app.require_subcommand(1);
  std::vector<std::pair<CLI::App*, Command>> commands;
  for (const auto add : {addIndex, addServe, addFind}) {
    CLI::App* subcommand = nullptr;
    Command command = add(app, subcommand);
    commands.emplace_back(subcommand, std::move(command));
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    fmt::print(stderr, "tallyhive-mailhost: {}; see tallyhive-mailhost --help\n", error.what());
    return kExitUsage;
  }
  for (const auto& [subcommand, command] : commands) {
    if (subcommand->parsed()) return command();
  }
  return kExitUsage;
}

}  // namespace
}  // namespace thmp

int main(int argc, char** argv) {
  ::umask(077);  // whatever is made here derives from the user's mail
  try {
    return thmp::run(argc, argv);
  } catch (const std::exception& failure) {
    return thmp::failWith(thmp::kExitFailure, failure.what());
  }
}
