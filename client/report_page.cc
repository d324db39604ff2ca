// SPDX-License-Identifier: Apache-2.0
#include "client/report_page.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "client/Histogram.h"
#include "console/calendar.h"
#include "console/terminal.h"

namespace thmp::client {
namespace {

// As many as stay apart on a telephone.
constexpr std::size_t kMaxBars = 120;
constexpr std::size_t kCorrespondents = 20;
constexpr std::size_t kMaxYearLabels = 6;
constexpr std::size_t kQueryColumns = 400;
constexpr std::size_t kNameColumns = 80;
constexpr std::size_t kSubjectColumns = 200;

// In pixels. Across, the chart is in percent: so it fits any window while its texts keep their
// size.
constexpr double kPlotTop = 12;
constexpr double kPlotHeight = 180;
constexpr double kPlotBottom = kPlotTop + kPlotHeight;
constexpr double kChartHeight = kPlotBottom + 26;

constexpr std::string_view kStyle = R"(
:root { color-scheme: light dark; --paper: #fff; --ink: #1d2430; --quiet: #5b6472; --line: #dde1e7;
  --received: #2f6fb5; --sent: #c76a12; }
@media (prefers-color-scheme: dark) {
  :root { --paper: #14171c; --ink: #e6e9ee; --quiet: #9aa4b2; --line: #2d333c;
    --received: #6fa8e8; --sent: #eda050; } }
* { box-sizing: border-box; }
body { margin: 0 auto; max-width: 46rem; padding: clamp(1rem, 4vw, 3rem) clamp(1rem, 4vw, 2rem);
  background: var(--paper); color: var(--ink); line-height: 1.5; -webkit-text-size-adjust: 100%;
  font-family: system-ui, -apple-system, "Segoe UI", Roboto, "Noto Sans", "Liberation Sans", sans-serif; }
h1 { margin: 0; font-size: clamp(1.4rem, 1.1rem + 2vw, 2.1rem); line-height: 1.2; font-weight: 650;
  overflow-wrap: anywhere; text-wrap: balance; }
h1.long { font-size: 1.15rem; }
h2 { margin: 2.5rem 0 .75rem; font-size: 1.15rem; font-weight: 650; }
p { margin: .35rem 0; }
.quiet, footer, caption, th { color: var(--quiet); font-weight: 400; }
.numbers { display: flex; flex-wrap: wrap; gap: .75rem 2.5rem; margin: 1.5rem 0 0; }
.numbers div { display: flex; flex-direction: column-reverse; }
.numbers dt { color: var(--quiet); font-size: .875rem; }
.numbers dd { margin: 0; font-size: 1.75rem; line-height: 1.2; font-variant-numeric: tabular-nums; }
.key::before { content: ""; display: inline-block; width: .7em; height: .7em; margin-right: .4em;
  border-radius: 2px; background: var(--received); }
.key.sent::before { background: var(--sent); }
figure { margin: 0; }
.plot { padding-left: 2.75rem; }
svg { display: block; overflow: visible; font-size: 12px; }
svg text { fill: var(--quiet); font-variant-numeric: tabular-nums; }
.grid { stroke: var(--line); }
.base { stroke: var(--quiet); }
rect.received { fill: var(--received); }
rect.sent { fill: var(--sent); }
rect.area { fill: transparent; }
.bar:hover rect.area { fill: var(--line); fill-opacity: .5; }
details { margin-top: .75rem; }
summary { cursor: pointer; color: var(--quiet); }
table { width: 100%; border-collapse: collapse; font-variant-numeric: tabular-nums; }
caption { text-align: left; padding-bottom: .25rem; }
th, td { padding: .45rem 0 .45rem .75rem; border-bottom: 1px solid var(--line); text-align: right;
  vertical-align: baseline; }
thead th { font-size: .875rem; white-space: nowrap; }
th:first-child { padding-left: 0; text-align: left; overflow-wrap: anywhere; }
tbody th { color: var(--ink); }
tbody th span { display: block; color: var(--quiet); font-size: .875rem; }
.ends { display: grid; grid-template-columns: repeat(auto-fit, minmax(min(16rem, 100%), 1fr)); gap: 1.5rem; }
.ends section { border-left: 3px solid var(--line); padding-left: 1rem; overflow-wrap: anywhere; }
.ends h2 { margin-top: 0; }
footer { margin-top: 3rem; padding-top: 1rem; border-top: 1px solid var(--line); font-size: .875rem;
  overflow-wrap: anywhere; }
code { font-family: ui-monospace, "Cascadia Mono", Menlo, "DejaVu Sans Mono", monospace; font-size: .9em; }
)";

// Digits in groups of three from five on, apart by narrow spaces.
std::string grouped(std::uint64_t number) {
  std::string digits = std::to_string(number);
  if (digits.size() < 5) return digits;
  for (std::size_t i = digits.size() - 3; i > 0 && i < digits.size();
       i -= std::min<std::size_t>(i, 3)) {
    digits.insert(i, "\xE2\x80\xAF");
  }
  return digits;
}

std::string messages(std::uint64_t count) {
  return fmt::format("{} message{}", grouped(count), count == 1 ? "" : "s");
}

std::string countText(const MailCount& count) {
  return fmt::format("{} received, {} sent", grouped(count.received), grouped(count.sent));
}

// Between the lines of the grid: 1, 2 or 5 of a power of ten, for four lines at most.
std::uint64_t gridStep(std::uint64_t highest) {
  std::uint64_t power = 1;
  while (true) {
    for (const std::uint64_t factor : {1U, 2U, 5U}) {
      if (factor * power * 4 >= highest) return factor * power;
    }
    power *= 10;
  }
}

class Chart {
 public:
  explicit Chart(Histogram histogram) : histogram_(std::move(histogram)) {
    for (const Histogram::Bar& bar : histogram_.bars) {
      highest_ = std::max(highest_, bar.count.total());
    }
    gridStep_ = gridStep(highest_);
    top_ = (highest_ + gridStep_ - 1) / gridStep_ * gridStep_;
  }

  std::string svg(const MailSummary& summary) const {
    std::string out = fmt::format(
        "<svg role=\"img\" aria-labelledby=\"chart-title chart-text\" width=\"100%\" "
        "height=\"{}\">\n<title id=\"chart-title\">Messages by {}</title>\n"
        "<desc id=\"chart-text\">{}</desc>\n",
        kChartHeight, histogram_.step.name, description(summary));
    return out + grid() + bars() + labels() + "</svg>\n";
  }

  std::string table() const {
    std::string out = fmt::format(
        "<table>\n<thead><tr><th scope=\"col\">{}</th><th scope=\"col\">Received</th>"
        "<th scope=\"col\">Sent</th></tr></thead>\n<tbody>\n",
        histogram_.step.months == 1 ? "Month" : "Time");
    for (const Histogram::Bar& bar : histogram_.bars) {
      out += fmt::format("<tr><th scope=\"row\">{}</th><td>{}</td><td>{}</td></tr>\n",
                         barName(histogram_.step, bar.first), grouped(bar.count.received),
                         grouped(bar.count.sent));
    }
    return out + "</tbody>\n</table>\n";
  }

  const Step& step() const { return histogram_.step; }

 private:
  double slot() const { return 100.0 / static_cast<double>(histogram_.bars.size()); }
  double heightOf(std::uint64_t count) const {
    return kPlotHeight * static_cast<double>(count) / static_cast<double>(top_);
  }

  std::string description(const MailSummary& summary) const {
    const auto busiest = std::max_element(
        histogram_.bars.begin(), histogram_.bars.end(),
        [](const auto& a, const auto& b) { return a.count.total() < b.count.total(); });
    return fmt::format("{} from {} to {}; most of them, {}, in {}.", countText(summary.total()),
                       barName(histogram_.step, histogram_.bars.front().first),
                       barName(histogram_.step, histogram_.bars.back().first),
                       grouped(busiest->count.total()), barName(histogram_.step, busiest->first));
  }

  std::string grid() const {
    std::string out;
    for (std::uint64_t count = 0; count <= top_; count += gridStep_) {
      const double y = kPlotBottom - heightOf(count);
      out += fmt::format(
          "<line class=\"{}\" x1=\"0\" x2=\"100%\" y1=\"{:.1f}\" y2=\"{:.1f}\"/>"
          "<text x=\"-8\" y=\"{:.1f}\" text-anchor=\"end\">{}</text>\n",
          count == 0 ? "base" : "grid", y, y, y + 4, grouped(count));
    }
    return out;
  }

  std::string bars() const {
    std::string out;
    for (std::size_t i = 0; i < histogram_.bars.size(); ++i) {
      const Histogram::Bar& bar = histogram_.bars[i];
      if (bar.count.total() == 0) continue;
      const double left = slot() * static_cast<double>(i);
      const double received = heightOf(bar.count.received);
      out += fmt::format("<g class=\"bar\"><title>{}: {}</title>{}",
                         barName(histogram_.step, bar.first), countText(bar.count),
                         rectangle("area", left, slot(), kPlotTop, kPlotHeight));
      const double width = slot() * 0.78;
      const double inset = left + (slot() - width) / 2;
      out += rectangle("received", inset, width, kPlotBottom - received, received);
      const double sent = heightOf(bar.count.sent);
      out += rectangle("sent", inset, width, kPlotBottom - received - sent, sent) + "</g>\n";
    }
    return out;
  }

  static std::string rectangle(std::string_view kind, double x, double width, double y,
                               double height) {
    if (height <= 0) return {};
    return fmt::format(
        "<rect class=\"{}\" x=\"{:.3f}%\" width=\"{:.3f}%\" y=\"{:.1f}\" height=\"{:.1f}\"/>", kind,
        x, width, y, height);
  }

  // Some bars' names along the foot, so few that they stay apart on a telephone.
  std::string labels() const {
    std::vector<std::size_t> labelled;
    const bool byName = histogram_.step.months > 12 || histogram_.bars.size() <= 24;
    for (std::size_t i = 0; i < histogram_.bars.size(); ++i) {
      if (byName || histogram_.bars[i].first.monthOfYear() == 1) labelled.push_back(i);
    }
    const std::size_t most = byName ? kMaxYearLabels - 2 : kMaxYearLabels;
    const std::size_t every = (labelled.size() + most - 1) / most;
    std::string out;
    for (std::size_t i = 0; i < labelled.size(); i += every) {
      const double x = slot() * (static_cast<double>(labelled[i]) + (byName ? 0.5 : 0.0));
      const Month first = histogram_.bars[labelled[i]].first;
      const std::string name = histogram_.step.months <= 12 && byName
                                   ? barName(histogram_.step, first)
                                   : std::to_string(first.year());
      const std::string_view anchor = x > 92   ? "end"
                                      : x < 8  ? "start"
                                      : byName ? "middle"
                                               : "start";
      out += fmt::format(
          "<line class=\"base\" x1=\"{0:.3f}%\" x2=\"{0:.3f}%\" y1=\"{1}\" y2=\"{2}\"/>"
          "<text x=\"{0:.3f}%\" y=\"{3}\" text-anchor=\"{4}\">{5}</text>\n",
          x, kPlotBottom, kPlotBottom + 5, kPlotBottom + 20, anchor, name);
    }
    return out;
  }

  const Histogram histogram_;
  std::uint64_t highest_ = 1;
  std::uint64_t gridStep_ = 1;
  std::uint64_t top_ = 1;
};

std::string isolated(std::string_view text, std::size_t columns) {
  return "<bdi>" + escapedForHtml(text, columns) + "</bdi>";
}

std::string numbers(const MailSummary& summary) {
  const auto number = [](std::string_view name, std::string_view kind, std::uint64_t value) {
    return fmt::format("<div><dt{}>{}</dt><dd>{}</dd></div>\n", kind, name, grouped(value));
  };
  return "<dl class=\"numbers\">\n" + number("messages", "", summary.total().total()) +
         number("received", " class=\"key\"", summary.total().received) +
         number("sent", " class=\"key sent\"", summary.total().sent) +
         number("correspondents", "", summary.correspondentCount()) + "</dl>\n";
}

std::string timeline(const MailSummary& summary) {
  const std::vector<MonthCount> months = summary.months();
  if (months.empty()) return {};
  const Chart chart(folded(months, kMaxBars));
  std::string out =
      fmt::format("<h2>By {}</h2>\n<figure>\n<div class=\"plot\">\n", chart.step().name);
  out += chart.svg(summary) + "</div>\n<details>\n<summary>The numbers</summary>\n" +
         chart.table() + "</details>\n</figure>\n";
  if (summary.undated() > 0) {
    out += fmt::format("<p class=\"quiet\">Without a date, and so not shown here: {}.</p>\n",
                       messages(summary.undated()));
  }
  return out;
}

std::string correspondents(const MailSummary& summary) {
  const std::vector<Correspondent> top = summary.topCorrespondents(kCorrespondents);
  if (top.empty()) return {};
  std::string out = "<h2>Correspondents</h2>\n<table>\n";
  if (top.size() < summary.correspondentCount()) {
    out += fmt::format("<caption>The {} with the most messages</caption>\n", top.size());
  }
  out +=
      "<thead><tr><th scope=\"col\">Name and address</th><th scope=\"col\">Received</th>"
      "<th scope=\"col\">Sent</th></tr></thead>\n<tbody>\n";
  for (const Correspondent& one : top) {
    const bool named = one.name != one.address;
    out += fmt::format("<tr><th scope=\"row\">{}{}</th><td>{}</td><td>{}</td></tr>\n",
                       isolated(one.name, kNameColumns),
                       named ? "<span>" + isolated(one.address, kNameColumns) + "</span>" : "",
                       grouped(one.count.received), grouped(one.count.sent));
  }
  return out + "</tbody>\n</table>\n";
}

std::string end(std::string_view heading, const NotableMessage& message) {
  return fmt::format(
      "<section>\n<h2>{}</h2>\n<p>{}</p>\n<p class=\"quiet\">{}, {} {}</p>\n</section>\n", heading,
      isolated(message.subject, kSubjectColumns),
      console::localTime(message.date, console::Precision::kMinutes),
      message.sent ? "sent to" : "received from", isolated(message.correspondent, kNameColumns));
}

std::string ends(const MailSummary& summary) {
  if (summary.first() == nullptr) return {};
  return "<div class=\"ends\">\n" + end("First message", *summary.first()) +
         end("Last message", *summary.last()) + "</div>\n";
}

}  // namespace

std::string escapedForHtml(std::string_view text, std::size_t columns) {
  std::string escaped;
  for (const char c : console::fitted(console::shown(text), columns, /*pad=*/false)) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

std::string reportPage(const MailSummary& summary, const ReportSource& source) {
  const std::string query =
      escapedForHtml(source.query.empty() ? "All mail" : source.query, kQueryColumns);
  std::string page =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
      "'unsafe-inline'\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
      "<meta name=\"referrer\" content=\"no-referrer\">\n"
      "<title>";
  page += query + " \xE2\x80\x93 mail</title>\n<style>";
  page += kStyle;
  page += "</style>\n</head>\n<body>\n<header>\n<p class=\"quiet\">Mail search</p>\n";
  page += fmt::format("<h1{}><bdi>{}</bdi></h1>\n</header>\n<main>\n",
                      source.query.size() > 60 ? " class=\"long\"" : "", query);
  page += numbers(summary) + timeline(summary);
  page += ends(summary) + correspondents(summary);
  page += "</main>\n<footer>\n";
  if (!source.predicate.empty() && source.predicate != source.query) {
    page += "<p>As a predicate: <code>" + escapedForHtml(source.predicate, 2000) + "</code></p>\n";
  }
  page += fmt::format("<p>Made {} by tallyhive-mail {}.</p>\n</footer>\n</body>\n</html>\n",
                      escapedForHtml(source.made, kNameColumns), THMP_VERSION);
  return page;
}

}  // namespace thmp::client
