// SPDX-License-Identifier: Apache-2.0
//
// The commands that end searches: `cancel` one, `terminate` all of a client.
#include <fmt/format.h>

#include <memory>
#include <string>

#include "client/Exchange.h"
#include "client/arguments.h"
#include "client/commands.h"
#include "client/exit_status.h"
#include "client/handshake.h"
#include "messaging/message_names.h"

namespace thmp::client {
namespace {

// A message without an answer: that the plug-in has taken it is all there is to know. Connect comes
// first, so that it does not wait in the folder for a plug-in of another day.
int control(const char* name, const Dictionary& userInfo, const CommonOptions& common) {
  const auto deadline = std::chrono::steady_clock::now() + common.timeout();
  const auto exchange = Exchange::open(XdgFolders::fromEnvironment());
  if (!exchange) return failWith(kExitNoPlugin, exchange.error().description);
  (*exchange)->ignoreOutput();
  int status = kExitSuccess;
  if (!shakeHands({common.clientName, false, common.timeout()}, **exchange, status)) return status;
  const Result<std::string> file = (*exchange)->post(name, userInfo);
  if (!file) return failWith(kExitNoPlugin, file.error().description);
  while (!(*exchange)->isTaken(*file)) {
    switch ((*exchange)->wait(deadline)) {
      case Wake::kTimeout:
        (*exchange)->withdraw(*file);
        return noPluginAnswers(common.timeout());
      case Wake::kSignal:
        (*exchange)->withdraw(*file);
        return 128 + (*exchange)->signal();
      case Wake::kOutputClosed:
      case Wake::kFolder:
        break;
    }
  }
  return kExitSuccess;
}

}  // namespace

Command addCancel(CLI::App& app, CommonOptions& common, CLI::App*& subcommand) {
  subcommand = app.add_subcommand("cancel", "End one search");
  const auto name = std::make_shared<std::string>();
  subcommand
      ->add_option("NAME", *name,
                   "The search's unique name: what search --unique was given, or --json printed")
      ->required()
      ->check(wrongText);
  addExchangeOptions(*subcommand, common);
  subcommand->footer(
      "Ends with 0 once the plug-in has taken the request; it does not say whether there was such\n"
      "a search. 3 when no plug-in answers.");
  return [name, &common] {
    return control(kCancelName, {{kUniqueNameKey, *name}, {kClientNameKey, common.clientName}},
                   common);
  };
}

Command addTerminate(CLI::App& app, CommonOptions& common, CLI::App*& subcommand) {
  subcommand = app.add_subcommand("terminate", "End all searches of a client");
  addExchangeOptions(*subcommand, common);
  subcommand->footer(
      "Ends with 0 once the plug-in has taken the request. 3 when no plug-in answers.");
  return [&common] {
    return control(kTerminateName,
                   {{kClientNameKey, common.clientName}, {kActiveNamesKey, Array()}}, common);
  };
}

}  // namespace thmp::client
