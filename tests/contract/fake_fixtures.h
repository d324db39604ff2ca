// SPDX-License-Identifier: Apache-2.0
//
// The platform in memory, under the contract suites.
#pragma once

#include "tests/contract/fixtures.h"

namespace thmp::contract {

Implementation fakeImplementation();

}  // namespace thmp::contract
