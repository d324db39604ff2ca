// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "console/found_messages.h"
#include "console/terminal.h"
#include "host/HostFolders.h"
#include "host/HostStatus.h"
#include "host/commands.h"
#include "host/index/Index.h"
#include "host/index/mail_texts.h"
#include "host/local_time.h"
#include "host/query/explanation.h"
#include "host/query/parser.h"
#include "host/store/Library.h"
#include "messaging/message_names.h"

namespace thmp {
namespace {

constexpr char kDisplayName[] = "kMDItemDisplayName";

struct FindOptions {
  std::string query;
  bool json = false;
  bool paths = false;
  bool nulEnds = false;
  console::ColorMode color = console::ColorMode::kAuto;
};

// The path as a search through the exchange finds it: the complete message, else a partial one,
// else where it has gone.
std::optional<std::string> pathOf(const Library& library, const IndexedMessage& message) {
  for (const int type : {0, 1}) {
    std::string path = library.dataPath(message.id(), message.mailbox(), type);
    if (!path.empty() && ::access(path.c_str(), F_OK) == 0) return path;
  }
  return library.pathOfMessage(message.id());
}

// With the file's name for a message without a subject, as the plug-in gives it.
Dictionary itemOf(const IndexedMessage& message, std::uint64_t number, const std::string& path) {
  Dictionary attributes = attributesOf(message);
  if (!attributes.contains(kDisplayName)) {
    attributes.set(kDisplayName, Value(path.substr(path.rfind('/') + 1)));
  }
  return {{kAttributesKey, std::move(attributes)},
          {kLibraryIDKey, message.id()},
          {kPathKey, path},
          {kIndexKey, number}};
}

void printFound(const FindOptions& options, const Dictionary& item,
                console::StandardOutput& output) {
  if (options.json) {
    console::printFoundEvent(item, output);
  } else if (options.paths) {
    const std::string_view path = item[kPathKey].asText().value_or("");
    if (output.isTerminal() && !options.nulEnds) {
      output.write(console::shown(path) + "\n");
    } else {
      output.write(path);
      output.write(options.nulEnds ? std::string_view("\0", 1) : "\n");
    }
  } else {
    console::printRow(console::tableRow(item[kAttributesKey]), 0, output);
  }
}

int find(const FindOptions& options) {
  query::SyntaxError error;
  const std::optional<query::Query> query = query::parse(options.query, queryOptionsNow(), &error);
  if (!query) return failWithSyntax(options.query, error);
  const HostFolders folders(XdgFolders::fromEnvironment());
  const auto index = Index::open(folders.index, Index::Access::kReadOnly);
  const auto library = Library::open(folders.library, Library::Access::kReadOnly);
  if (!index || !library) return failWith(kExitFailure, whyNotOpen(folders));
  (*index)->setTextSource(mailTexts(**library));
  (*index)->hideMailboxes((*library)->unreachableMailboxes());

  console::StandardOutput output(options.color);
  const auto begun = std::chrono::steady_clock::now();
  std::uint64_t found = 0;
  const Result<void> walked = (*index)->forEachMatch(*query, [&](const IndexedMessage& message) {
    const auto path = pathOf(**library, message);
    if (!path) return true;
    printFound(options, itemOf(message, found++, *path), output);
    return !output.isClosed();
  });
  output.flush();
  if (!walked) return failWith(kExitFailure, walked.error().description);
  if (::isatty(STDERR_FILENO) == 1 && !options.json && !options.paths) {
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begun;
    console::say(
        fmt::format("{} message{} in {:.2f} s\n", found, found == 1 ? "" : "s", elapsed.count()));
  }
  if (found > 0) return kExitSuccess;
  for (const std::string& doubt : query::doubts(*query)) failWith(kExitFailure, doubt);
  return kExitFailure;
}

}  // namespace

Command addFind(CLI::App& app, CLI::App*& subcommand) {
  subcommand =
      app.add_subcommand("find", "Run one query on the index directly, without the plug-in");
  const auto options = std::make_shared<FindOptions>();
  subcommand
      ->add_option("QUERY", options->query,
                   "A predicate, such as 'kMDItemSubject == \"*lake*\"cd'; for plain words "
                   "there is tallyhive-mail search")
      ->required();
  CLI::Option* json = subcommand->add_flag("--json", options->json, "Print one JSON object a line");
  CLI::Option* paths =
      subcommand->add_flag("--paths", options->paths, "Print the paths of the message files");
  json->excludes(paths);
  subcommand->add_flag("-0", options->nulEnds, "End each path with a NUL byte")->needs(paths);
  addColorOption(*subcommand, options->color);
  return [options] { return find(*options); };
}

}  // namespace thmp
