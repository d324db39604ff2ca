// SPDX-License-Identifier: Apache-2.0
//
// One line to the system log, from a format checked when the program is compiled.
#pragma once

#include <array>
#include <string>

#include "base/format.h"
#include "platform/log.h"

namespace thmp {

template <typename... Args>
void writeLogLine(SystemLog& log, LogFormat<Args...> format, const Args&... args) {
  const std::array<LogArg, sizeof...(Args)> captured{LogArg(args)...};
  log.write(formatLog(format.text(), captured));
}

}  // namespace thmp
