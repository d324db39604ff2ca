// SPDX-License-Identifier: Apache-2.0
//
// Connect and its answer: how a command finds out that a plug-in is there. One thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "base/value.h"
#include "client/Exchange.h"

namespace thmp::client {

struct Handshake {
  std::string clientName;
  /// Asks the plug-in to check that this client's version fits.
  bool checkVersion = false;
  std::chrono::milliseconds timeout{5000};
};

/// Sends Connect, once more to a host that starts meanwhile, and returns the payload of the answer.
/// Empty when none came: `status` is then the program's exit status, and what went wrong has been
/// told in one line on standard error.
std::optional<Dictionary> shakeHands(const Handshake& handshake, Exchange& exchange, int& status);

}  // namespace thmp::client
