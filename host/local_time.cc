// SPDX-License-Identifier: Apache-2.0
#include "host/local_time.h"

#include <chrono>
#include <ctime>

namespace thmp {

query::QueryOptions queryOptionsNow() {
  query::QueryOptions options;
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  options.now = Date::fromUnixSeconds(std::chrono::duration<double>(sinceEpoch).count());
  options.utcOffsetAt = [](std::int64_t unixSeconds) -> std::int64_t {
    const auto seconds = static_cast<std::time_t>(unixSeconds);
    std::tm local{};
    return ::localtime_r(&seconds, &local) != nullptr ? local.tm_gmtoff : 0;
  };
  return options;
}

}  // namespace thmp
