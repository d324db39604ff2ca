// SPDX-License-Identifier: Apache-2.0
#include "tests/contract/fake_fixtures.h"

namespace thmp::contract {

std::vector<Implementation> implementations() { return {fakeImplementation()}; }

}  // namespace thmp::contract
