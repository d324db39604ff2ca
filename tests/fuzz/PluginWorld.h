// SPDX-License-Identifier: Apache-2.0
//
// A started plug-in on the fake platform, for the targets that speak to it as clients do. One
// thread; a new one for each input.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/fake/FakePlatform.h"
#include "plugin/ProcessState.h"
#include "plugin/THMPMailPlugin.h"
#include "tests/fuzz/fuzzing.h"

namespace thmp::fuzz {

class PluginWorld {
 public:
  PluginWorld() {
    THMPMailPlugin::load(process);
    THMPMailPlugin::initialize(process);
    fake.runUntilIdle();
    plugin = process.instance();
  }
  /// A running query keeps its plug-in alive.
  ~PluginWorld() {
    for (const auto& [name, record] : plugin->queriesByName()) plugin->cancelQuery(name, Value());
  }
  PluginWorld(const PluginWorld&) = delete;
  PluginWorld& operator=(const PluginWorld&) = delete;

  /// A message that the library knows and that lies on the disk.
  void addMail(std::int64_t libraryID) {
    const std::string path = "/mail/" + std::to_string(libraryID) + ".eml";
    fake.files.writeFile(path, "");
    fake.mail.addMessage(libraryID, 1, path);
  }

  /// What the plug-in has posted since the last call, in order, taken out of the outbox as a client
  /// does. A file that is no message is broken.
  std::vector<Dictionary> takePosted() {
    const std::vector<std::string> names = fake.files.entries(fake.outbox());
    if (names.empty()) return {};
    std::vector<Dictionary> messages = fake.messagesIn(fake.outbox());
    THMP_FUZZ_CHECK(messages.size() == names.size());
    for (const std::string& name : names) fake.files.erase(fake.outbox() + "/" + name);
    return messages;
  }

  FakePlatform fake;
  Platform platform = fake.platform();
  ProcessState process{platform};
  std::shared_ptr<THMPMailPlugin> plugin;
};

}  // namespace thmp::fuzz
