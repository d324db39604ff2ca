// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <memory>
#include <optional>

#include "client/Exchange.h"
#include "client/commands.h"
#include "client/exit_status.h"
#include "messaging/message_names.h"

namespace thmp::client {
namespace {

// Echoed by the plug-in, and so tells our answer from those to others.
constexpr char kConnectionKey[] = "connectionName";

struct ConnectOptions {
  bool check = false;
};

void print(const Dictionary& answer, console::StandardOutput& output) {
  for (const char* key : {kVersionKey, kMajorVersionKey, kCompatibilityVersionKey}) {
    const Value& value = answer[key];
    const std::string text =
        value.asText() ? console::shown(*value.asText()) : std::to_string(value.integerValue());
    output.write(fmt::format("{}: {}\n", key, text));
  }
  output.flush();
}

int connect(const ConnectOptions& options, const CommonOptions& common) {
  const auto timeout =
      std::chrono::milliseconds(static_cast<std::int64_t>(common.timeoutSeconds * 1000));
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  const auto exchange = Exchange::open(XdgFolders::fromEnvironment());
  if (!exchange) {
    fmt::print(stderr, "tallyhive-mail: {}\n", exchange.error().description);
    return kExitNoPlugin;
  }
  const std::string connection = freshName("");
  Dictionary request = {{kClientNameKey, common.clientName},
                        {kVersionKey, THMP_VERSION},
                        {kCompatibilityVersionKey, kCompatibilityVersion},
                        {kConnectionKey, connection}};
  if (options.check) request.set(kCheckVersionKey, Value(true));

  bool newHost = true;  // the first request is sent like those after a host has started
  while (true) {
    if (std::exchange(newHost, false)) {
      if (const auto sent = (*exchange)->post(kConnectName, request); !sent) {
        fmt::print(stderr, "tallyhive-mail: {}\n", sent.error().description);
        return kExitNoPlugin;
      }
    }
    const auto answers = (*exchange)->take([&](const Message& message) {
      if (message.name != kPluginReadyName) return false;
      newHost |= !message.userInfo.contains(kClientNameKey);
      return message.userInfo[kConnectionKey].asText() == connection;
    });
    if (!answers.empty()) {
      console::StandardOutput output(common.color);
      print(answers.front().userInfo, output);
      return kExitSuccess;
    }
    if (newHost) continue;
    switch ((*exchange)->wait(deadline)) {
      case Exchange::Wake::kTimeout:
        return noPluginAnswers(timeout);
      case Exchange::Wake::kSignal:
        return 128 + (*exchange)->signal();
      case Exchange::Wake::kOutputClosed:
        return kExitSuccess;
      case Exchange::Wake::kFolder:
        break;
    }
  }
}

}  // namespace

int noPluginAnswers(std::chrono::milliseconds timeout) {
  fmt::print(stderr,
             "tallyhive-mail: no plug-in answered within {:g} seconds; start a host with "
             "\"tallyhive-mailhost serve --mail DIR\"\n",
             static_cast<double>(timeout.count()) / 1000);
  return kExitNoPlugin;
}

Command addConnect(CLI::App& app, const CommonOptions& common, CLI::App*& subcommand) {
  subcommand = app.add_subcommand("connect", "Ask the plug-in for its version");
  const auto options = std::make_shared<ConnectOptions>();
  subcommand->add_flag("--check", options->check,
                       "Have it check that its version fits this client");
  return [options, &common] { return connect(*options, common); };
}

}  // namespace thmp::client
