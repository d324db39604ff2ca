// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/Exchange.h"
#include "client/MailSummary.h"
#include "client/SearchOutput.h"
#include "client/SearchSession.h"
#include "client/arguments.h"
#include "client/commands.h"
#include "client/exit_status.h"
#include "client/report_page.h"
#include "client/shorthand.h"
#include "client/sort_attributes.h"
#include "client/whole_file.h"
#include "console/calendar.h"
#include "platform/linux/PasteboardReader.h"

namespace thmp::client {
namespace {

constexpr char kFooter[] =
    R"(A QUERY with a comparison operator or a parenthesis outside quotes is a predicate and is passed
as it is, for example 'kMDItemSubject == "*invoice*"cd'. Any other is short for one:
  from:TEXT to:TEXT with:TEXT subject:TEXT   a part of a name, an address or the subject
  after:2026-05-01 before:2026               received then
  has:attachment is:unread is:read is:flagged is:answered
  plum "apple tree" -word -from:ada          words anywhere in the message; "-" turns a term around
A TEXT with blanks stands in quotes of its own, which a shell must not take: 'with:"ada b" plum'.
--sort takes date, from, to, subject, size or the full name of an attribute, and sorts each delivery
of up to 5,000 messages, from high to low.
--timeline counts the messages of each month, sent and received: drawn on a terminal, in a pipe as
MONTH, sent and received apart by tabs, with --json as "month" events. A message counts as sent when
it lies in a mailbox called Sent (or Sent Mail, Sent Messages, Sent Items), or when its author's
address is one that its account is known by (kMDItemAccountHandles) or that --me gives.
--report can stand beside --timeline, --json and --paths; alone it leaves standard output empty.
Exit status: 0 found, 1 nothing found, 2 wrong usage, a failed query or output that cannot be
written, 3 no plug-in answered or the host has gone; the manual page tells all.)";

struct SearchOptions {
  SearchRequest request;
  std::vector<std::string> words;
  std::optional<std::string> uniqueName;
  std::vector<std::string> ownAddresses;
  std::optional<std::string> report;
  bool explain = false;
  bool json = false;
  bool paths = false;
  bool nulEnds = false;
  bool timeline = false;

  bool sums() const { return timeline || report; }
};

// What cannot stand together; empty when all can.
std::string conflict(const SearchOptions& options) {
  const bool live = options.request.live;
  if (options.report && options.report->starts_with("--")) {
    return "--report needs a FILE; one called " + *options.report + " is ./" + *options.report;
  }
  if (options.json && options.paths) return "--json and --paths are two forms; choose one";
  if (options.timeline && options.paths) return "--timeline and --paths are two forms; choose one";
  if (options.nulEnds && !options.paths) return "-0 ends paths; it goes with --paths";
  if (options.timeline && live) return "--timeline counts mail that is there; leave out --live";
  if (options.report && live) return "--report counts mail that is there; leave out --live";
  if (options.timeline && options.request.sortingAttribute) {
    return "--timeline goes by month; leave out --sort";
  }
  if (!options.ownAddresses.empty() && !options.sums()) {
    return "--me tells sent mail; it goes with --timeline or --report";
  }
  if (options.explain && (options.json || options.paths || live || options.sums())) {
    return "--explain does not search; it prints the predicate and nothing else";
  }
  return {};
}

OutputForm formOf(const SearchOptions& options) {
  using Kind = OutputForm::Kind;
  const Kind kind = options.timeline && options.json ? Kind::kTimelineJson
                    : options.timeline               ? Kind::kTimeline
                    : options.json                   ? Kind::kJson
                    : options.paths                  ? Kind::kPaths
                    : options.report                 ? Kind::kNothing
                                                     : Kind::kTable;
  return {kind, options.nulEnds, options.request.live};
}

int writeReport(const std::string& file, const MailSummary& summary, const ReportSource& source) {
  if (const Result<void> written = writeWhole(file, reportPage(summary, source)); !written) {
    return failWith(kExitUsage, written.error().description);
  }
  if (::isatty(STDERR_FILENO) == 1) {
    console::say(fmt::format("{} message{} in {}\n", summary.total().total(),
                             summary.total().total() == 1 ? "" : "s", console::shown(file)));
  }
  return kExitSuccess;
}

int run(const SearchOptions& options, const std::string& query, const CommonOptions& common) {
  const XdgFolders folders = XdgFolders::fromEnvironment();
  const auto exchange = Exchange::open(folders);
  if (!exchange) return failWith(kExitNoPlugin, exchange.error().description);
  const PasteboardReader pasteboards(folders.cache);
  console::StandardOutput standardOutput(common.color);
  const OutputForm form = formOf(options);
  if (form.kind == OutputForm::Kind::kNothing) (*exchange)->ignoreOutput();
  MailSummary summary(options.ownAddresses);
  const auto output = makeSearchOutput(form, &summary, standardOutput);
  SummingOutput summing(summary, *output);
  SearchOutput& quiet = options.sums() ? summing : *output;
  ProgressOutput telling(quiet);
  const bool tells = ::isatty(STDERR_FILENO) == 1 && !standardOutput.isPipe() &&
                     (options.sums() || !standardOutput.isTerminal());
  SearchSession session(options.request, **exchange, pasteboards, standardOutput,
                        tells ? telling : quiet);
  const int status = session.run();
  if (!options.report || !summing.isWhole()) return status;
  if (status == kExitNothingFound) {
    return failWith(status, "nothing was found, so " + *options.report + " was not written");
  }
  if (status != kExitSuccess) return status;
  const Date now = Date::fromUnixSeconds(
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count());
  return writeReport(
      *options.report, summary,
      {query, options.request.query, console::localTime(now, console::Precision::kMinutes)});
}

int search(SearchOptions options, const CommonOptions& common) {
  if (const std::string wrong = conflict(options); !wrong.empty()) {
    return failWith(kExitUsage, wrong + "; see tallyhive-mail search --help");
  }
  const std::string query = fmt::format("{}", fmt::join(options.words, " "));
  const bool isShorthand = !isPredicate(query);
  const Result<std::string> predicate =
      isShorthand ? predicateFromShorthand(query) : Result<std::string>(query);
  if (!predicate) return failWith(kExitUsage, predicate.error().description);
  options.request.query = *predicate;
  if (std::optional<std::string>& attribute = options.request.sortingAttribute) {
    const Result<std::string> known = sortingAttribute(*attribute);
    if (!known) return failWith(kExitUsage, known.error().description);
    attribute = *known;
  }
  if (options.explain) {
    console::StandardOutput output(common.color);
    output.write(*predicate + "\n");
    output.flush();
    return kExitSuccess;
  }
  if (options.report) {
    if (const Result<void> possible = canWriteWhole(*options.report); !possible) {
      return failWith(kExitUsage, possible.error().description);
    }
  }
  options.request.clientName = common.clientName;
  options.request.timeout = common.timeout();
  options.request.uniqueName =
      options.uniqueName ? *options.uniqueName : freshName("tallyhive-mail-");
  const int status = run(options, query, common);
  if (status == kExitNothingFound && isShorthand &&
      query.find_first_of("*?&|!") != std::string::npos) {
    failWith(status,
             "* ? & | and ! stand for themselves in words; a word finds all that begins with it, "
             "and all words of a query are meant");
  }
  return status;
}

}  // namespace

Command addSearch(CLI::App& app, CommonOptions& common, CLI::App*& subcommand) {
  subcommand = app.add_subcommand("search", "Find mail; without QUERY all of it");
  const auto options = std::make_shared<SearchOptions>();
  SearchRequest& request = options->request;
  CLI::App& command = *subcommand;
  command.add_option("QUERY", options->words, "What to find, see below")
      ->type_name("")
      ->check(wrongText);
  command.add_option("--sort", request.sortingAttribute, "Sort by this attribute, see below")
      ->type_name("ATTRIBUTE");
  command.add_flag("--ascending", request.sortAscending, "Sort from low to high");
  command.add_option("--lineage", request.lineageName, "End earlier searches of this lineage")
      ->type_name("NAME")
      ->check(wrongText);
  command.add_option("--unique", options->uniqueName, "The search's own name; otherwise made up")
      ->type_name("NAME")
      ->check(wrongText);
  command.add_flag("--live", request.live, "Go on and show what comes and goes, until interrupted");
  command.add_flag("--json", options->json, "Print one JSON object a line");
  command.add_flag("--paths", options->paths, "Print the paths of the message files");
  command.add_flag("-0", options->nulEnds, "End each path with a NUL byte");
  command.add_flag("--timeline", options->timeline, "Count the messages by month, see below");
  command.add_option("--report", options->report, "Write a page about what was found, in HTML")
      ->type_name("FILE");
  command
      .add_option("--me", options->ownAddresses,
                  "One of your addresses, to tell sent mail; as often as needed")
      ->type_name("ADDRESS")
      ->allow_extra_args(false);
  command.add_flag("--explain", options->explain, "Print the predicate made of QUERY; no search");
  addExchangeOptions(command, common);
  addColorOption(command, common);
  command.footer(kFooter);
  return [options, &common] { return search(*options, common); };
}

}  // namespace thmp::client
