// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <memory>
#include <optional>
#include <string>

#include "client/Exchange.h"
#include "client/commands.h"
#include "client/exit_status.h"
#include "client/handshake.h"
#include "messaging/message_names.h"

namespace thmp::client {
namespace {

void print(const Dictionary& answer, console::StandardOutput& output) {
  for (const char* key : {kVersionKey, kMajorVersionKey, kCompatibilityVersionKey}) {
    const Value& value = answer[key];
    const std::string text =
        value.asText() ? console::shown(*value.asText()) : std::to_string(value.integerValue());
    output.write(fmt::format("{}: {}\n", key, text));
  }
  output.flush();
}

int connect(bool check, const CommonOptions& common) {
  const auto exchange = Exchange::open(XdgFolders::fromEnvironment());
  if (!exchange) return failWith(kExitNoPlugin, exchange.error().description);
  int status = kExitSuccess;
  const std::optional<Dictionary> answer =
      shakeHands({common.clientName, check, common.timeout()}, **exchange, status);
  if (!answer) return status;
  console::StandardOutput output(common.color);
  print(*answer, output);
  return kExitSuccess;
}

}  // namespace

Command addConnect(CLI::App& app, CommonOptions& common, CLI::App*& subcommand) {
  subcommand = app.add_subcommand("connect", "Ask the plug-in for its version");
  const auto check = std::make_shared<bool>(false);
  subcommand->add_flag("--check", *check, "Have it check that its version fits this client");
  addExchangeOptions(*subcommand, common);
  addColorOption(*subcommand, common);
  return [check, &common] { return connect(*check, common); };
}

}  // namespace thmp::client
