// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as the file of the user defaults. It is read or set aside; a key that is set is there
// at the next start beside all that the file had; and the plug-in's log, whatever stands under its
// key, takes a line, stays within its length, and is read back by the client with that line as its
// last.
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <string>

#include "base/plist.h"
#include "client/StoredLog.h"
#include "platform/fake/FakePlatform.h"
#include "platform/linux/LinuxPreferences.h"
#include "plugin/PluginLog.h"
#include "tests/fuzz/ScratchFolder.h"
#include "tests/fuzz/fuzzing.h"

namespace thmp::fuzz {
namespace {

constexpr char kFile[] = "tallyhive-mailhost/defaults.plist";
constexpr char kOwnKey[] = "fuzzed";
constexpr PropertyListLimits kGenerous = kBatchLimits;

// All of `before` but the two keys that are written here stands in `now`, too.
void checkKept(const Dictionary& before, LinuxPreferences& now) {
  for (const Dictionary::Entry& entry : before) {
    if (entry.key.view() == kOwnKey || entry.key.view() == PluginLog::kStoredLogKey) continue;
    THMP_FUZZ_CHECK(Value::identical(now.get(entry.key.str()), entry.value));
  }
}

const ScratchFolder& scratch() {
  static const ScratchFolder only;
  return only;
}

void parseOnce(std::string_view bytes) {
  scratch().write(kFile, bytes);
  RecordingLog log;
  LinuxPreferences(client::StoredLog(scratch().path()).folder(), log).get(PluginLog::kStoredLogKey);
}

}  // namespace

const Bounds kBounds{1, 64 * kMiB, parseOnce};

void runInput(std::string_view bytes) {
  const client::StoredLog stored(scratch().path());
  scratch().write(kFile, bytes);
  const auto root = readPropertyList(bytes, kGenerous);
  const auto before = root ? root->asDictionary() : std::nullopt;

  FakePlatform fake;
  {
    LinuxPreferences preferences(stored.folder(), fake.log);
    if (before) checkKept(*before, preferences);
    Platform platform = fake.platform({.preferences = &preferences});
    PluginLog log(platform);
    log.log("name", "line %@", bytes.size());
    preferences.set(kOwnKey, Dictionary{{"size", bytes.size()}});
    THMP_FUZZ_CHECK(preferences.flush());
  }
  LinuxPreferences preferences(stored.folder(), fake.log);
  THMP_FUZZ_CHECK(preferences.get(kOwnKey) == Value(Dictionary{{"size", bytes.size()}}));
  if (before) checkKept(*before, preferences);
  const auto kept = preferences.get(PluginLog::kStoredLogKey).asArray();
  THMP_FUZZ_CHECK(kept && !kept->empty() && kept->size() <= PluginLog::kMaxEntries);

  const auto entries = stored.read();
  THMP_FUZZ_CHECK(static_cast<bool>(entries) && !entries->empty());
  THMP_FUZZ_CHECK(entries->back().queryName == "name");
  THMP_FUZZ_CHECK(entries->back().text == "line " + std::to_string(bytes.size()));
  THMP_FUZZ_CHECK(client::firstNewEntry(*entries, *entries) == entries->size());
  std::filesystem::remove(stored.file() + ".damaged");
}

}  // namespace thmp::fuzz
