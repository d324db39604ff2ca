// SPDX-License-Identifier: Apache-2.0
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "console/found_messages.h"
#include "console/terminal.h"
#include "host/HostFolders.h"
#include "host/HostStatus.h"
#include "host/commands.h"
#include "platform/linux/XdgFolders.h"

namespace thmp {
namespace {

using console::Json;

// The text names this many files of each kind.
constexpr std::size_t kMostListed = 10;

struct StatOptions {
  bool json = false;
  console::ColorMode color = console::ColorMode::kAuto;
};

std::string_view stateName(MailFolderStatus::State state) {
  switch (state) {
    case MailFolderStatus::State::kReadable:
      return "readable";
    case MailFolderStatus::State::kMissing:
      return "missing";
    case MailFolderStatus::State::kUnreadable:
      return "unreadable";
    case MailFolderStatus::State::kNoLongerNamed:
      return "no longer named";
  }
  return "";
}

// --- as text ---

std::string sizeText(std::uint64_t bytes) {
  constexpr std::array<std::string_view, 5> kUnits{"bytes", "kB", "MB", "GB", "TB"};
  if (bytes < 1000) return fmt::format("{} {}", bytes, kUnits[0]);
  auto size = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (; size >= 999.5 && unit + 1 < kUnits.size(); ++unit) size /= 1000;
  return fmt::format("{:.{}f} {}", size, size < 9.95 ? 1 : 0, kUnits[unit]);
}

std::string counted(std::uint64_t count, std::string_view one, std::string_view many) {
  return fmt::format("{} {}", count, count == 1 ? one : many);
}

std::string folderText(const MailFolderStatus& folder) {
  std::string content = counted(folder.messages, "message", "messages") + " in " +
                        counted(folder.mailboxes, "mailbox", "mailboxes");
  switch (folder.state) {
    case MailFolderStatus::State::kReadable:
      return content;
    case MailFolderStatus::State::kNoLongerNamed:
      return "no longer named: " + content + " leave with the next update";
    case MailFolderStatus::State::kMissing:
    case MailFolderStatus::State::kUnreadable:
      break;
  }
  return fmt::format("{} ({}): {} kept, not found until it is back", stateName(folder.state),
                     folder.reason, content);
}

std::string timeText(const HostStatus& status) {
  if (!status.lastUpdate) return "none has come to its end yet";
  const auto seconds = static_cast<std::time_t>(status.lastUpdate->unixSeconds());
  std::tm local{};
  if (::localtime_r(&seconds, &local) == nullptr) return status.lastUpdate->iso8601();
  return fmt::format("{:%Y-%m-%d %H:%M:%S}", local);
}

class StatusText {
 public:
  explicit StatusText(console::StandardOutput& output) : output_(output) {}

  void print(const HostStatus& status) {
    line("kept up to date by", status.keeper ? status.keeper->text() : "nobody at the moment");
    line("last update", timeText(status));
    line("coverage", fmt::format("seen {}, indexed {}, waiting {}, incomplete {}, failed {}",
                                 status.seen, status.indexed, status.waiting,
                                 status.incomplete.size(), status.failed.size()));
    line("on disk",
         fmt::format("library {}, index {}, pasteboards {}", sizeText(status.librarySize),
                     sizeText(status.indexSize), sizeText(status.pasteboardsSize)));
    line("mail folders", status.folders.empty() ? "none is named; name one with --mail DIR" : "");
    for (const MailFolderStatus& folder : status.folders) item(folder.path, folderText(folder));
    list("incomplete (found by what could be read)", status.incomplete,
         [](const IncompleteFile& file) {
           return std::pair(file.path.empty() ? fmt::format("message {}", file.id) : file.path,
                            fmt::format("{}", fmt::join(file.reasons, "; ")));
         });
    list("failed (could not be opened)", status.failed,
         [](const UnreadablePath& file) { return std::pair(file.path, file.reason); });
    output_.flush();
  }

 private:
  void line(std::string_view name, std::string_view value) {
    const bool color = output_.hasColor();
    output_.write(fmt::format("{}{}:{}{}{}\n", color ? "\x1b[1m" : "", name, color ? "\x1b[0m" : "",
                              value.empty() ? "" : " ", value));
  }
  // Nothing is cut: a path is there to be used.
  void item(std::string_view path, std::string_view what) {
    output_.write(fmt::format("  {}: {}\n", console::shown(path), console::shown(what)));
  }
  template <typename File, typename Text>
  void list(std::string_view name, const std::vector<File>& files, const Text& text) {
    if (files.empty()) return;
    line(name, "");
    for (std::size_t i = 0; i < std::min(files.size(), kMostListed); ++i) {
      const auto [path, what] = text(files[i]);
      item(path, what);
    }
    if (files.size() > kMostListed) {
      output_.write(
          fmt::format("  and {} more; --json lists them all\n", files.size() - kMostListed));
    }
  }

  console::StandardOutput& output_;
};

// --- as JSON ---

Json jsonOfStatus(const HostStatus& status) {
  Json json = {{"schema", "tallyhive.stat/1"}, {"keeper", nullptr}, {"lastUpdate", nullptr}};
  if (status.keeper) {
    json["keeper"] = {{"command", status.keeper->command}, {"process", status.keeper->process}};
  }
  if (status.lastUpdate) json["lastUpdate"] = status.lastUpdate->iso8601();
  json["coverage"] = {{"seen", status.seen},
                      {"indexed", status.indexed},
                      {"waiting", status.waiting},
                      {"incomplete", status.incomplete.size()},
                      {"failed", status.failed.size()}};
  json["bytes"] = {{"library", status.librarySize},
                   {"index", status.indexSize},
                   {"pasteboards", status.pasteboardsSize}};
  json["mailFolders"] = Json::array();
  for (const MailFolderStatus& folder : status.folders) {
    json["mailFolders"].push_back({{"path", folder.path},
                                   {"state", stateName(folder.state)},
                                   {"reason", folder.reason},
                                   {"mailboxes", folder.mailboxes},
                                   {"messages", folder.messages}});
  }
  json["incomplete"] = Json::array();
  for (const IncompleteFile& file : status.incomplete) {
    json["incomplete"].push_back(
        {{"libraryID", file.id}, {"path", file.path}, {"reasons", file.reasons}});
  }
  json["failed"] = Json::array();
  for (const UnreadablePath& file : status.failed) {
    json["failed"].push_back({{"path", file.path}, {"reason", file.reason}});
  }
  return json;
}

int stat(const StatOptions& options) {
  const XdgFolders xdg = XdgFolders::fromEnvironment();
  const Result<std::vector<std::string>> named = rememberedMailFolders(xdg);
  if (!named) return failWith(kExitFailure, named.error().description);
  const std::size_t mostPaths =
      options.json ? std::numeric_limits<std::size_t>::max() : kMostListed;
  const Result<HostStatus> status = lookAtHost(xdg, *named, mostPaths);
  if (!status) return failWith(kExitFailure, status.error().description);
  console::StandardOutput output(options.color);
  if (options.json) {
    console::printLine(jsonOfStatus(*status), output);
    output.flush();
  } else {
    StatusText(output).print(*status);
  }
  return kExitSuccess;
}

}  // namespace

Command addStat(CLI::App& app, CLI::App*& subcommand) {
  subcommand = app.add_subcommand(
      "stat", "Show how much of the mail is indexed, what could not be read, and sizes on disk");
  const auto options = std::make_shared<StatOptions>();
  subcommand->add_flag("--json", options->json, "Print one JSON object");
  addColorOption(*subcommand, options->color);
  return [options] { return stat(*options); };
}

}  // namespace thmp
