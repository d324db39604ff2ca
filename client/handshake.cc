// SPDX-License-Identifier: Apache-2.0
#include "client/handshake.h"

#include <utility>
#include <vector>

#include "client/exit_status.h"
#include "messaging/message_names.h"

namespace thmp::client {
namespace {

// Echoed by the plug-in, and so tells our answer from those to others.
constexpr char kConnectionKey[] = "connectionName";

}  // namespace

std::optional<Dictionary> shakeHands(const Handshake& handshake, Exchange& exchange, int& status) {
  const auto deadline = std::chrono::steady_clock::now() + handshake.timeout;
  const std::string connection = freshName("");
  Dictionary request = {{kClientNameKey, handshake.clientName},
                        {kVersionKey, THMP_VERSION},
                        {kCompatibilityVersionKey, kCompatibilityVersion},
                        {kConnectionKey, connection}};
  if (handshake.checkVersion) request.set(kCheckVersionKey, Value(true));
  std::string sentFile;
  // A request that nobody has read is for no plug-in of another day.
  const auto giveUp = [&](int with) {
    exchange.withdraw(sentFile);
    status = with;
    return std::nullopt;
  };

  bool newHost = true;  // the first request is sent like those after a host has started
  while (true) {
    if (std::exchange(newHost, false)) {
      const auto sent = exchange.post(kConnectName, request);
      if (!sent) return giveUp(failWith(kExitNoPlugin, sent.error().description));
      sentFile = *sent;
    }
    const std::vector<Message> answers = exchange.take([&](const Message& message) {
      if (message.name != kPluginReadyName) return false;
      newHost |= !message.userInfo.contains(kClientNameKey);
      return message.userInfo[kConnectionKey].asText() == connection;
    });
    if (!answers.empty()) return answers.front().userInfo;
    if (newHost) continue;
    switch (exchange.wait(deadline)) {
      case Wake::kTimeout:
        return giveUp(noPluginAnswers(handshake.timeout));
      case Wake::kSignal:
        return giveUp(128 + exchange.signal());
      case Wake::kOutputClosed:
        return giveUp(kExitSuccess);
      case Wake::kFolder:
        break;
    }
  }
}

}  // namespace thmp::client
