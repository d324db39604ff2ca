// SPDX-License-Identifier: Apache-2.0
#include "host/progress_text.h"

#include <fmt/format.h>

namespace thmp {
namespace {

std::string remaining(const IndexProgress& progress) {
  if (progress.rate < 1 || progress.total <= progress.seen) return {};
  const double seconds = static_cast<double>(progress.total - progress.seen) / progress.rate;
  if (seconds < 90) return fmt::format(", {:.0f} s left", seconds);
  return fmt::format(", {:.0f} min left", seconds / 60);
}

}  // namespace

std::string progressText(const IndexProgress& progress) {
  return fmt::format("{} of {}, {:.0f} a second{}", progress.seen, progress.total, progress.rate,
                     remaining(progress));
}

bool Pace::isDue(Time now) {
  if (now - last_ < interval_) return false;
  last_ = now;
  return true;
}

}  // namespace thmp
