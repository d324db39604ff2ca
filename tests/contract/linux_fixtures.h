// SPDX-License-Identifier: Apache-2.0
//
// The Linux platform under the contract suites, each fixture in a temporary folder of its own.
#pragma once

#include "tests/contract/fixtures.h"

namespace thmp::contract {

Implementation linuxImplementation();

}  // namespace thmp::contract
