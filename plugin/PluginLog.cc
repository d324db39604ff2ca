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

// The stored entries while they are changed, in place: this is done for each line.
class StoredEntries {
 public:
  explicit StoredEntries(Value& stored)
      : stored_(stored), entries_(stored.asArray().value_or(Array())) {
    stored_ = Value(false);  // so that the entries have one owner
  }
  ~StoredEntries() { stored_ = Value(std::move(entries_)); }
  StoredEntries(const StoredEntries&) = delete;
  StoredEntries& operator=(const StoredEntries&) = delete;

  // Leaves out the entries before `from`, and those from there on that are too old.
  void trim(std::size_t from, double seconds, Date now) {
    entries_.erase(0, firstYounger(entries_, from, seconds, now));
  }
  std::size_t size() const { return entries_.size(); }
  void add(const Value& entry) { entries_.push_back(entry); }

 private:
  Value& stored_;
  Array entries_;
};

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
  const Date now = platform_.execution.now();
  const Value entry = Array{now, name, cut(text)};
  platform_.preferences.change(kStoredLogKey, [&entry, now](Value& stored) {
    StoredEntries entries(stored);
    const std::size_t count = entries.size() + 1;
    entries.trim(count > kMaxEntries ? count - kMaxEntries : 0, kMaxAgeInSeconds, now);
    entries.add(entry);
  });
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
  const Date now = platform_.execution.now();
  platform_.preferences.change(kStoredLogKey, [now](Value& stored) {
    StoredEntries(stored).trim(0, kKeptAtQuitInSeconds, now);
  });
}

}  // namespace thmp
