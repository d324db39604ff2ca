// SPDX-License-Identifier: Apache-2.0
#include "client/exit_status.h"

#include <fmt/format.h>

#include "console/terminal.h"

namespace thmp::client {

int failWith(int status, std::string_view what) {
  console::say(fmt::format("tallyhive-mail: {}\n", console::shown(what)));
  return status;
}

int noPluginAnswers(std::chrono::milliseconds timeout) {
  const double seconds = static_cast<double>(timeout.count()) / 1000;
  return failWith(kExitNoPlugin,
                  fmt::format("no plug-in answered within {:g} second{}; start a host with "
                              "\"tallyhive-mailhost serve --mail DIR\"",
                              seconds, seconds == 1 ? "" : "s"));
}

}  // namespace thmp::client
