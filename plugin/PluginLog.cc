// SPDX-License-Identifier: Apache-2.0
#include "plugin/PluginLog.h"

#include <string>
#include <utility>

namespace thmp {
namespace {

// At most the cap's bytes of `text`, without half a character at the end.
std::string_view cut(std::string_view text) {
  if (text.size() <= PluginLog::kMaxEntryTextBytes) return text;
  std::size_t end = PluginLog::kMaxEntryTextBytes;
  constexpr std::size_t kMaxContinuationBytes = 3;
  const std::size_t lowest = end - kMaxContinuationBytes;
  while (end > lowest && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) --end;
  return text.substr(0, end);
}

bool isYounger(const Value& entry, double seconds, Date now) {
  const std::optional<Array> elements = entry.asArray();
  if (!elements || elements->empty()) return false;
  const std::optional<Date> date = (*elements)[0].asDate();
  return date && now.secondsSinceReference - date->secondsSinceReference < seconds;
}

// The index from which on entries stay. Only the front is looked at: an old entry behind a young
// one stays.
std::size_t firstYounger(const Array& entries, std::size_t from, double seconds, Date now) {
  while (from < entries.size() && !isYounger(entries[from], seconds, now)) ++from;
  return from;
}

Array storedEntries(Preferences& preferences) {
  return preferences.get(PluginLog::kStoredLogKey).asArray().value_or(Array());
}

// The entries from `first` on, with room for one more. Copied once: this is done for each line.
Array entriesFrom(const Array& stored, std::size_t first) {
  Array entries;
  entries.reserve(stored.size() - first + 1);
  for (std::size_t i = first; i < stored.size(); ++i) entries.push_back(stored[i]);
  return entries;
}

}  // namespace

void PluginLog::logQueryName(const Value& queryName, std::string_view format,
                             std::span<const LogArg> arguments) {
  std::string_view name = cut(queryName.asText().value_or(std::string_view()));
  if (name.empty()) name = "none";

  // Deliberate: the name is placed before the format is interpreted, so a "%" in it acts as a
  // directive in this line.
  std::string line("TallyhiveMailPlugin - ");
  line.append(name).append(" - ").append(format);
  platform_.log.write(formatLog(line, arguments));

  const std::string text = formatLog(format, arguments);
  if (text.empty()) return;

  const RecursiveLock lock(mutex_);
  const Array stored = storedEntries(platform_.preferences);
  const Value entry = Array{platform_.execution.now(), name, cut(text)};
  const std::size_t count = stored.size() + 1;
  const std::size_t surplus = count > kMaxEntries ? count - kMaxEntries : 0;
  const std::size_t first =
      firstYounger(stored, surplus, kMaxAgeInSeconds, platform_.execution.now());
  Array entries = entriesFrom(stored, first);
  entries.push_back(entry);
  platform_.preferences.set(kStoredLogKey, Value(std::move(entries)));
}

// Deliberate: without the lock. A line logged meanwhile may stay or go.
void PluginLog::applyRetentionAtQuit() {
  const Dictionary information = platform_.application.pluginInformation();
  const std::string_view shortVersion =
      information["CFBundleShortVersionString"].asText().value_or(std::string_view());
  if (shortVersion.find('b') == std::string_view::npos) {
    platform_.preferences.remove(kStoredLogKey);
    return;
  }
  const Array stored = storedEntries(platform_.preferences);
  const std::size_t first =
      firstYounger(stored, 0, kKeptAtQuitInSeconds, platform_.execution.now());
  platform_.preferences.set(kStoredLogKey, Value(entriesFrom(stored, first)));
}

}  // namespace thmp
