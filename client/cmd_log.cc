// SPDX-License-Identifier: Apache-2.0
//
// The command `log`: the plug-in's stored log, and with --follow the lines that come.
#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "client/StoredLog.h"
#include "client/Wakeups.h"
#include "client/commands.h"
#include "client/exit_status.h"
#include "console/calendar.h"
#include "console/terminal.h"
#include "platform/linux/XdgFolders.h"

namespace thmp::client {
namespace {

// Date, query and text: apart by tabs, or for people by blanks.
void print(std::span<const LogEntry> entries, console::StandardOutput& output) {
  const bool terminal = output.isTerminal();
  for (const LogEntry& entry : entries) {
    const std::string date = console::localTime(entry.date, console::Precision::kSeconds);
    const std::string query = console::shown(entry.queryName);
    const std::string text = console::shown(entry.text);
    if (output.hasColor()) {
      output.write(fmt::format("\x1b[2m{}  {}\x1b[0m  {}\n", date, query, text));
    } else {
      output.write(fmt::format("{1}{0}{2}{0}{3}\n", terminal ? "  " : "\t", date, query, text));
    }
  }
  output.flush();
}

// The file's folder; as long as that is missing the nearest one above it, where it will come.
Result<void> watchWhereItComes(const std::string& folder, Wakeups& wakeups) {
  std::string there = folder;
  while (true) {
    Result<void> watched = wakeups.watch(there);
    if (!watched && there.size() > 1) {
      there.resize(std::max<std::size_t>(there.rfind('/'), 1));
      continue;
    }
    if (!watched || there == folder) return watched;
    // What was made below it before it was watched has woken nobody.
    const std::size_t next = there.size() > 1 ? there.size() + 1 : 1;
    if (!wakeups.watch(folder.substr(0, folder.find('/', next)))) return watched;
    there = folder;
  }
}

int follow(const StoredLog& log, console::StandardOutput& output) {
  const auto wakeups = Wakeups::open();
  if (!wakeups) return failWith(kExitUsage, wakeups.error().description);
  std::vector<LogEntry> shown;
  for (bool first = true;; first = false) {
    if (const auto watched = watchWhereItComes(log.folder(), **wakeups); !watched) {
      return failWith(kExitUsage, watched.error().description);
    }
    Result<std::vector<LogEntry>> entries = log.read();
    if (!entries) return failWith(kExitUsage, entries.error().description);
    if (first && entries->empty()) {
      console::say("There is no log yet; its lines will appear as a host writes them.\n");
    }
    print(std::span(*entries).subspan(firstNewEntry(shown, *entries)), output);
    shown = *std::move(entries);
    if (output.isClosed()) return kExitSuccess;
    switch ((*wakeups)->wait(std::nullopt)) {
      case Wake::kSignal:
        return 128 + (*wakeups)->signal();
      case Wake::kOutputClosed:
        return kExitSuccess;
      case Wake::kTimeout:
      case Wake::kFolder:
        break;
    }
  }
}

int showLog(bool follows, const CommonOptions& common) {
  const StoredLog log(XdgFolders::fromEnvironment().config);
  console::StandardOutput output(common.color);
  if (follows) return follow(log, output);
  const Result<std::vector<LogEntry>> entries = log.read();
  if (!entries) return failWith(kExitUsage, entries.error().description);
  if (entries->empty()) {
    return failWith(kExitNothingFound,
                    "there is no log; a host keeps one while it serves, in " + log.file());
  }
  print(*entries, output);
  return kExitSuccess;
}

}  // namespace

Command addLog(CLI::App& app, CommonOptions& common, CLI::App*& subcommand) {
  subcommand = app.add_subcommand("log", "Show what the plug-in has logged in the last hour");
  const auto follows = std::make_shared<bool>(false);
  subcommand->add_flag("-f,--follow", *follows, "Go on and show new lines, until interrupted");
  addColorOption(*subcommand, common);
  subcommand->footer("Exit status: 0, 1 when there is no log, 130 when interrupted.");
  return [follows, &common] { return showLog(*follows, common); };
}

}  // namespace thmp::client
