// SPDX-License-Identifier: Apache-2.0
#include "tests/contract/fake_fixtures.h"
#ifdef THMP_CONTRACT_LINUX
#include "tests/contract/linux_fixtures.h"
#endif

namespace thmp::contract {

std::vector<Implementation> implementations() {
  std::vector<Implementation> all{fakeImplementation()};
#ifdef THMP_CONTRACT_LINUX
  all.push_back(linuxImplementation());
#endif
  return all;
}

}  // namespace thmp::contract
