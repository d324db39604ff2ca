// SPDX-License-Identifier: Apache-2.0
//
// What hosts, clients, engine and users do to the plug-in: each is played while its calls fail.
#pragma once

#include <functional>
#include <vector>

#include "tests/faults/FaultWorld.h"

namespace thmp::faults {

struct Operation {
  const char* name;
  /// Before anything fails.
  std::function<void(FaultWorld& world)> prepare;
  std::function<void(FaultWorld& world)> run;
};

const std::vector<Operation>& allOperations();

}  // namespace thmp::faults
