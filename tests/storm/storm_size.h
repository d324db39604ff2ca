// SPDX-License-Identifier: Apache-2.0
//
// How large a storm is: small on each commit, smaller with sanitizers, and in full when THMP_STORM
// is set.
#pragma once

#include <cstdlib>

namespace thmp::storm {

inline int storm(int small, int large) {
  return std::getenv("THMP_STORM") != nullptr ? large : small / THMP_ONE_OF;
}

}  // namespace thmp::storm
