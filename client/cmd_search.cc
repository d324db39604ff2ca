// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/Exchange.h"
#include "client/SearchOutput.h"
#include "client/SearchSession.h"
#include "client/commands.h"
#include "client/exit_status.h"
#include "client/shorthand.h"
#include "platform/linux/PasteboardReader.h"

namespace thmp::client {
namespace {

constexpr char kFooter[] =
    R"(A QUERY with a comparison operator or a parenthesis outside quotes is a predicate and is passed
as it is, for example 'kMDItemSubject == "*invoice*"cd'. Any other is short for one:
  from:TEXT to:TEXT with:TEXT subject:TEXT   a part of a name, an address or the subject
  after:2026-05-01 before:2026               received then
  has:attachment is:unread is:read is:flagged is:answered
  plum "apple tree" -word                    words anywhere in the message; "-" turns a term around
Exit status: 0 found, 1 nothing found, 2 wrong usage or failed query, 3 no plug-in.)";

struct SearchOptions {
  SearchRequest request;
  std::vector<std::string> words;
  bool json = false;
  bool paths = false;
  bool nulEnds = false;
};

int search(SearchOptions options, const CommonOptions& common) {
  const std::string query = fmt::format("{}", fmt::join(options.words, " "));
  if (isPredicate(query)) {
    options.request.query = query;
  } else {
    const Result<std::string> predicate = predicateFromShorthand(query);
    if (!predicate) {
      fmt::print(stderr, "tallyhive-mail: {}\n", console::shown(predicate.error().description));
      return kExitUsage;
    }
    options.request.query = *predicate;
  }
  options.request.clientName = common.clientName;
  options.request.timeout =
      std::chrono::milliseconds(static_cast<std::int64_t>(common.timeoutSeconds * 1000));
  if (options.request.uniqueName.empty()) options.request.uniqueName = freshName("tallyhive-mail-");

  const XdgFolders folders = XdgFolders::fromEnvironment();
  const auto exchange = Exchange::open(folders);
  if (!exchange) {
    fmt::print(stderr, "tallyhive-mail: {}\n", exchange.error().description);
    return kExitNoPlugin;
  }
  const PasteboardReader pasteboards(folders.cache);
  console::StandardOutput standardOutput(common.color);
  const OutputForm form = options.json    ? OutputForm::kJson
                          : options.paths ? OutputForm::kPaths
                                          : OutputForm::kTable;
  const auto output = makeSearchOutput(form, options.nulEnds, standardOutput);
  return SearchSession(options.request, **exchange, pasteboards, standardOutput, *output).run();
}

}  // namespace

Command addSearch(CLI::App& app, const CommonOptions& common, CLI::App*& subcommand) {
  subcommand = app.add_subcommand("search", "Find mail; without QUERY all of it");
  const auto options = std::make_shared<SearchOptions>();
  SearchRequest& request = options->request;
  subcommand->add_option("QUERY", options->words, "What to find, see below");
  subcommand->add_option("--sort", request.sortingAttribute, "Sort each delivery by this attribute")
      ->type_name("ATTRIBUTE");
  subcommand->add_flag("--ascending", request.sortAscending, "Sort from low to high");
  subcommand->add_option("--lineage", request.lineageName, "End earlier searches of this lineage")
      ->type_name("NAME");
  subcommand->add_option("--unique", request.uniqueName, "The search's own name; otherwise made up")
      ->type_name("NAME");
  subcommand->add_flag("--live", request.live,
                       "Go on and show what comes and goes, until interrupted");
  CLI::Option* json = subcommand->add_flag("--json", options->json, "Print one JSON object a line");
  CLI::Option* paths =
      subcommand->add_flag("--paths", options->paths, "Print the paths of the message files");
  json->excludes(paths);
  subcommand->add_flag("-0", options->nulEnds, "End each path with a NUL byte")->needs(paths);
  subcommand->footer(kFooter);
  return [options, &common] { return search(*options, common); };
}

}  // namespace thmp::client
