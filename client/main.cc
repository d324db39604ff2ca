// SPDX-License-Identifier: Apache-2.0
//
// tallyhive-mail: the command-line client. It speaks the exchange as any client would and shares
// nothing else with the host.
#include <algorithm>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "client/client_app.h"
#include "client/exit_status.h"
#include "console/terminal.h"

int main(int argc, char** argv) {
  using namespace thmp::client;
  thmp::console::prepareStandardStreams();
  try {
    const std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
    const auto app = buildApp(arguments.empty() ? std::string_view() : arguments.front());
    const int status = runApp(*app, arguments);
    const std::string lost = thmp::console::lostOutput();
    return lost.empty() ? status : failWith(kExitUsage, lost);
  } catch (const std::exception& failure) {
    return failWith(kExitUsage, failure.what());
  }
}
