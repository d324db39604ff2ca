// SPDX-License-Identifier: Apache-2.0
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "console/terminal.h"
#include "host/commands.h"
#include "host/index/plan.h"
#include "host/local_time.h"
#include "host/query/dump.h"
#include "host/query/explanation.h"
#include "host/query/parser.h"

namespace thmp {
namespace {

struct ExplainOptions {
  std::string query;
  console::ColorMode color = console::ColorMode::kAuto;
};

void printSection(std::string_view heading, std::string_view lines,
                  console::StandardOutput& output) {
  const bool color = output.hasColor();
  output.write(color ? "\x1b[1m" : "");
  output.write(heading);
  output.write(color ? "\x1b[0m\n" : "\n");
  while (!lines.empty()) {
    const std::string_view line = lines.substr(0, lines.find('\n'));
    lines.remove_prefix(line.size() + 1);
    output.write("  " + console::shown(line) + "\n");
  }
}

int explain(const ExplainOptions& options) {
  const query::QueryOptions now = queryOptionsNow();
  query::SyntaxError error;
  const std::optional<query::Query> query = query::parse(options.query, now, &error);
  if (!query) return failWithSyntax(options.query, error);
  console::StandardOutput output(options.color);
  printSection("tokens", query::dumpTokens(query->text()), output);
  printSection("tree", query::dumpTree(*query), output);
  printSection("attributes", query::explainAttributes(*query), output);
  printSection("meaning", query::explainPredicates(*query, now), output);
  printSection("plan", describePlan(*query), output);
  output.flush();
  return kExitSuccess;
}

}  // namespace

Command addExplain(CLI::App& app, CLI::App*& subcommand) {
  subcommand = app.add_subcommand(
      "explain", "Show how a query is understood: tokens, tree, attributes, meaning and plan");
  const auto options = std::make_shared<ExplainOptions>();
  subcommand
      ->add_option("QUERY", options->query, "A predicate, such as 'kMDItemSubject == \"*lake*\"cd'")
      ->required();
  addColorOption(*subcommand, options->color);
  return [options] { return explain(*options); };
}

}  // namespace thmp
