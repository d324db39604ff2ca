// SPDX-License-Identifier: Apache-2.0
//
// tallyhive-mail: the command-line client. It speaks the exchange as any client would and shares
// nothing else with the host.
#include <fmt/format.h>

#include <exception>
#include <map>

#include "client/commands.h"
#include "client/exit_status.h"

namespace thmp::client {

void addCommonOptions(CLI::App& subcommand, CommonOptions& common) {
  subcommand.add_option("--client", common.clientName, "The name this client goes by")
      ->capture_default_str();
  subcommand.add_option("--timeout", common.timeoutSeconds, "Seconds to wait for the plug-in")
      ->check(CLI::Range(0.0, 86400.0))
      ->capture_default_str();
  const std::map<std::string, console::ColorMode> modes = {{"auto", console::ColorMode::kAuto},
                                                           {"always", console::ColorMode::kAlways},
                                                           {"never", console::ColorMode::kNever}};
  subcommand.add_option("--color", common.color, "auto, always or never")
      ->transform(CLI::CheckedTransformer(modes, CLI::ignore_case).description(""))
      ->type_name("WHEN");
}

namespace {

int run(int argc, char** argv) {
  CLI::App app("Searches mail through the Tallyhive mail plug-in.", "tallyhive-mail");
  app.set_version_flag("--version", std::string("tallyhive-mail ") + THMP_VERSION);
  app.require_subcommand(1);
  CommonOptions common;
  CLI::App* connect = nullptr;
  CLI::App* search = nullptr;
  const Command runConnect = addConnect(app, common, connect);
  const Command runSearch = addSearch(app, common, search);
  addCommonOptions(*connect, common);
  addCommonOptions(*search, common);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    fmt::print(stderr, "tallyhive-mail: {}; see tallyhive-mail --help\n", error.what());
    return kExitUsage;
  }
  return connect->parsed() ? runConnect() : runSearch();
}

}  // namespace
}  // namespace thmp::client

int main(int argc, char** argv) {
  try {
    return thmp::client::run(argc, argv);
  } catch (const std::exception& failure) {
    fmt::print(stderr, "tallyhive-mail: {}\n", failure.what());
    return thmp::client::kExitUsage;
  }
}
