// SPDX-License-Identifier: Apache-2.0
//
// Log lines of a search, their formats checked when the program is compiled.
#pragma once

#include <array>

#include "base/format.h"
#include "base/value.h"
#include "search/Mediator.h"

namespace thmp {

template <typename... Args>
void logQuery(SearchMediator& mediator, const Value& queryName, LogFormat<Args...> format,
              const Args&... args) {
  const std::array<LogArg, sizeof...(Args)> arguments{LogArg(args)...};
  mediator.logQueryName(queryName, format.text(), arguments);
}

}  // namespace thmp
