// SPDX-License-Identifier: Apache-2.0
#include "client/client_app.h"

#include <expat.h>
#include <fmt/format.h>
#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string_view>

#include "client/arguments.h"
#include "client/exit_status.h"
#include "client/sort_attributes.h"
#include "console/completions.h"

namespace thmp::client {
namespace {

// Of shared libraries the versions that are loaded, of others those that were built in.
std::string versions() {
  std::string_view expat = XML_ExpatVersion();
  expat.remove_prefix(std::min(expat.find('_') + 1, expat.size()));  // "expat_2.5.0"
  return fmt::format(
      "tallyhive-mail {}\nExpat {}, utf8proc {}, fmt {}.{}.{}, nlohmann-json {}.{}.{}, CLI11 {}",
      THMP_VERSION, expat, utf8proc_version(), FMT_VERSION / 10000, FMT_VERSION / 100 % 100,
      FMT_VERSION % 100, NLOHMANN_JSON_VERSION_MAJOR, NLOHMANN_JSON_VERSION_MINOR,
      NLOHMANN_JSON_VERSION_PATCH, CLI11_VERSION);
}

}  // namespace

void addExchangeOptions(CLI::App& subcommand, CommonOptions& common) {
  subcommand.add_option("--client", common.clientName, "The name this client goes by")
      ->type_name("NAME")
      ->check(wrongText)
      ->capture_default_str();
  subcommand.add_option("--timeout", common.timeoutSeconds, "Seconds to wait for the plug-in")
      ->check([](const std::string& text) {
        double seconds = 0;
        return CLI::detail::lexical_cast(text, seconds) && seconds >= 0 && seconds <= 86400
                   ? std::string()
                   : fmt::format("\"{}\" is no number of seconds from 0 to 86400", text);
      })
      ->type_name("SECONDS")
      ->capture_default_str();
}

void addColorOption(CLI::App& subcommand, CommonOptions& common) {
  using console::ColorMode;
  static const std::map<std::string, ColorMode> kModes = {
      {"auto", ColorMode::kAuto}, {"always", ColorMode::kAlways}, {"never", ColorMode::kNever}};
  subcommand
      .add_option_function<std::string>(
          "--color", [&common](const std::string& when) { common.color = kModes.at(when); },
          "auto, always or never")
      ->check([](const std::string& when) {
        return kModes.contains(when)
                   ? std::string()
                   : fmt::format("\"{}\" is not one of auto, always and never", when);
      })
      ->type_name("WHEN");
}

std::unique_ptr<ClientApp> buildApp(std::string_view command) {
  auto app = std::make_unique<ClientApp>();
  CLI::App& parser = app->parser;
  parser.name("tallyhive-mail");
  parser.description("Searches mail through the Tallyhive mail plug-in.");
  parser.set_version_flag("--version", versions, "Print the versions of program and libraries");
  parser.require_subcommand(1);
  struct Known {
    std::string_view name;
    Command (*add)(CLI::App&, CommonOptions&, CLI::App*&);
  };
  constexpr std::array<Known, 5> kKnown = {{{"connect", addConnect},
                                            {"search", addSearch},
                                            {"cancel", addCancel},
                                            {"terminate", addTerminate},
                                            {"log", addLog}}};
  const bool isKnown = std::any_of(kKnown.begin(), kKnown.end(),
                                   [&](const Known& one) { return one.name == command; });
  for (const Known& one : kKnown) {
    if (isKnown && one.name != command) continue;
    CLI::App* subcommand = nullptr;
    Command run = one.add(parser, app->common, subcommand);
    subcommand->set_version_flag("--version", versions,
                                 "Print the versions of program and libraries");
    app->commands.emplace_back(subcommand, std::move(run));
  }
  // Not before: a command takes over the footer that there is when it is added.
  parser.footer("tallyhive-mail COMMAND --help tells more of each.");
  if (!isKnown) {
    console::addCompletionOption(
        parser, {{"WHEN", {"auto", "always", "never"}}, {"ATTRIBUTE", sortingWords()}});
  }
  return app;
}

int runApp(ClientApp& app, std::vector<std::string> arguments) {
  if (!arguments.empty() && arguments.front() == "search") {
    arguments = withWordsLast(*app.parser.get_subcommand("search"), std::move(arguments));
  }
  try {
    app.parser.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      std::ostringstream text;
      const int status = app.parser.exit(error, text, text);
      std::fputs(text.str().c_str(), stdout);
      return status;
    }
    return failWith(kExitUsage, wrongUsage(app.parser, error, arguments));
  }
  for (const auto& [subcommand, command] : app.commands) {
    if (subcommand->parsed()) return command();
  }
  return kExitUsage;
}

}  // namespace thmp::client
