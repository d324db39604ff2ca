// SPDX-License-Identifier: Apache-2.0
#include "tests/faults/ForgetfulDisk.h"

#include <random>

namespace thmp::faults {

ForgetfulDisk::ForgetfulDisk(FaultWorld& world) : world_(world) {
  world_.plan.atEachCall([this](std::string_view) { look(); });
  look();
}

ForgetfulDisk::~ForgetfulDisk() { world_.plan.atEachCall({}); }

void ForgetfulDisk::look() {
  Moment now;
  for (const std::string& folder : {world_.fake.inbox(), world_.fake.outbox()}) {
    for (const std::string& name : world_.fake.files.entries(folder)) {
      const auto bytes = world_.fake.files.contents(folder + "/" + name);
      // Names are never used twice, but the next world counts its own from the beginning.
      if (bytes) now.messages[folder + "/before-" + name] = *bytes;
    }
  }
  now.log = world_.fake.preferences.get(PluginLog::kStoredLogKey);
  moments_.push_back(std::move(now));
}

void ForgetfulDisk::leave(std::size_t moment, unsigned seed, FaultWorld& next) const {
  std::mt19937 chance(seed);
  std::map<std::string, std::string> ever;
  for (std::size_t each = 0; each <= moment; ++each) {
    for (const auto& [path, bytes] : moments_[each].messages) ever[path] = bytes;
  }
  for (const auto& [path, bytes] : ever) {
    const unsigned fate = chance() % 4;
    if (fate == 0) continue;
    const std::size_t length = fate == 1 ? 0 : fate == 2 ? bytes.size() / 2 : bytes.size();
    next.fake.files.writeFile(path, bytes.substr(0, length));
  }
  next.fake.preferences.store(PluginLog::kStoredLogKey, moments_[chance() % (moment + 1)].log);
}

}  // namespace thmp::faults
