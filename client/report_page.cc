// SPDX-License-Identifier: Apache-2.0
#include "client/report_page.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <ctime>
#include <optional>
#include <utility>
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
constexpr std::size_t kMaxNameLabels = 4;
constexpr std::size_t kLongQuery = 60;  // in bytes
constexpr std::size_t kQueryColumns = 400;
constexpr std::size_t kPredicateColumns = 4000;
constexpr std::size_t kNameColumns = 80;
constexpr std::size_t kSubjectColumns = 200;

// In pixels. Across, the chart is in percent: so it fits any window while its texts keep their
// size.
constexpr double kPlotTop = 10;
constexpr double kPlotHeight = 210;
constexpr double kPlotBottom = kPlotTop + kPlotHeight;
constexpr double kChartHeight = kPlotBottom + 28;
constexpr double kLeastBar = 1.5;
constexpr double kWidestBarPercent = 7;

constexpr std::string_view kStyle = R"(
:root { color-scheme: light dark; --paper: #f4f6f9; --card: #fff; --ink: #18202c; --quiet: #596475;
  --line: #e3e7ed; --received: #2c6fbb; --sent: #d9822b; --shade: 0 1px 2px rgb(20 30 50 / .06); }
@media (prefers-color-scheme: dark) {
  :root { --paper: #0f1216; --card: #181c22; --ink: #e8ebf0; --quiet: #98a3b3; --line: #2a3039;
    --received: #64a3ec; --sent: #f0a04b; --shade: none; } }
* { box-sizing: border-box; }
body { margin: 0 auto; max-width: 54rem; padding: clamp(1rem, 4vw, 3rem) clamp(.75rem, 3vw, 1.5rem);
  background: var(--paper); color: var(--ink); line-height: 1.5; -webkit-text-size-adjust: 100%;
  font-family: system-ui, -apple-system, "Segoe UI", Roboto, "Noto Sans", "Liberation Sans", sans-serif; }
p { margin: 0; }
h1 { margin: .1rem 0 .25rem; font-size: clamp(1.5rem, 1.1rem + 2vw, 2.25rem); line-height: 1.2;
  font-weight: 700; letter-spacing: -.015em; overflow-wrap: anywhere; text-wrap: balance; }
h1.long { font-size: 1.2rem; letter-spacing: 0; }
h2 { margin: 0; font-size: 1.05rem; font-weight: 650; }
.quiet, footer, th { color: var(--quiet); font-weight: 400; }
.kind { display: flex; align-items: center; gap: .5rem; color: var(--received); font-weight: 600;
  font-size: .875rem; }
.kind path { fill: none; stroke: currentColor; stroke-width: 1.6; stroke-linejoin: round; }
.numbers, .ends { display: grid; gap: 1rem; margin: 1rem 0; }
.numbers { grid-template-columns: repeat(4, 1fr); margin-top: 1.75rem; }
.ends { grid-template-columns: repeat(auto-fit, minmax(min(18rem, 100%), 1fr)); }
.card { background: var(--card); border: 1px solid var(--line); border-radius: .75rem;
  box-shadow: var(--shade); padding: 1.1rem 1.25rem; margin: 0; min-width: 0; break-inside: avoid; }
main > .card { margin: 1rem 0; }
.numbers .card { display: flex; flex-direction: column-reverse; padding: .8rem 1.25rem .9rem; }
.numbers dt { color: var(--quiet); font-size: .875rem; }
.numbers dd { margin: 0; font-size: 1.9rem; line-height: 1.25; font-weight: 650; letter-spacing: -.02em;
  font-variant-numeric: tabular-nums; }
.key::before { content: ""; display: inline-block; width: .65em; height: .65em; margin-right: .45em;
  border-radius: 2px; background: var(--received); }
.key.sent::before { background: var(--sent); }
.head { display: flex; flex-wrap: wrap; justify-content: space-between; align-items: baseline;
  gap: .1rem 1.5rem; margin-bottom: 1rem; }
.head p { font-size: .875rem; }
.plot { font-size: 12px; }
svg { display: block; overflow: visible; }
svg text { fill: var(--quiet); font-variant-numeric: tabular-nums; }
.grid { stroke: var(--line); }
.base { stroke: var(--quiet); }
rect.received { fill: var(--received); }
rect.sent { fill: var(--sent); }
rect.area { fill: transparent; }
.bar:hover rect.area { fill: var(--line); fill-opacity: .6; }
details { margin-top: .75rem; font-size: .9375rem; }
summary { cursor: pointer; color: var(--quiet); }
table { width: 100%; border-collapse: collapse; font-variant-numeric: tabular-nums; }
th, td { padding: .5rem 0 .5rem 1rem; border-top: 1px solid var(--line); text-align: right;
  vertical-align: middle; }
thead tr > * { border-top: 0; padding-top: 0; font-size: .875rem; white-space: nowrap; }
th:first-child { padding-left: 0; text-align: left; overflow-wrap: anywhere; }
tbody tr:last-child > * { padding-bottom: 0; }
tbody th { color: var(--ink); line-height: 1.35; }
tbody th span { display: block; color: var(--quiet); font-size: .875rem; }
.share { width: 34%; }
@media (max-width: 36rem) { .share { display: none; }
  .numbers { grid-template-columns: 1fr 1fr; } }
.ends .card { overflow-wrap: anywhere; }
.ends h2 { color: var(--quiet); font-size: .875rem; font-weight: 400; }
.ends p.subject { margin: .2rem 0 .35rem; font-size: 1.1rem; font-weight: 650; line-height: 1.35; }
.ends p { font-size: .9375rem; }
footer { margin-top: 1.5rem; font-size: .8125rem; overflow-wrap: anywhere; }
footer details { margin: 0 0 .35rem; font-size: inherit; }
code { font-family: ui-monospace, "Cascadia Mono", Menlo, "DejaVu Sans Mono", monospace; font-size: .92em; }
)";

constexpr std::string_view kEnvelope =
    "<svg width=\"20\" height=\"16\" viewBox=\"0 0 20 16\" aria-hidden=\"true\"><path d=\"M1.5 "
    "1.5h17v13h-17z"
    "M1.5 2l8.5 7 8.5-7\"/></svg>";

constexpr std::array kMonthNames = {"January",   "February", "March",    "April",
                                    "May",       "June",     "July",     "August",
                                    "September", "October",  "November", "December"};

std::string monthName(Month month) {
  return fmt::format("{} {}", kMonthNames[static_cast<std::size_t>(month.monthOfYear() - 1)],
                     month.year());
}

std::string dayName(Date date) {
  const std::optional<std::tm> day = console::localCalendar(date);
  return day ? fmt::format("{} {}", day->tm_mday,
                           monthName(Month::of(day->tm_year + 1900, day->tm_mon + 1)))
             : std::string();
}

std::string timeName(Date date) {
  const std::optional<std::tm> day = console::localCalendar(date);
  return day ? fmt::format("{}, {:02}:{:02}", dayName(date), day->tm_hour, day->tm_min)
             : std::string();
}

std::string spokenName(const Step& step, Month first) {
  return step.months == 1 ? monthName(first) : barName(step, first);
}

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

// Received above the line, sent below it, on one scale.
class Chart {
 public:
  explicit Chart(Histogram histogram) : histogram_(std::move(histogram)) {
    MailCount highest;
    for (const Histogram::Bar& bar : histogram_.bars) {
      highest.received = std::max(highest.received, bar.count.received);
      highest.sent = std::max(highest.sent, bar.count.sent);
    }
    gridStep_ = gridStep(std::max(highest.received, highest.sent));
    above_ = (highest.received + gridStep_ - 1) / gridStep_ * gridStep_;
    below_ = (highest.sent + gridStep_ - 1) / gridStep_ * gridStep_;
    line_ = kPlotTop + heightOf(above_);
  }

  std::string svg(const MailSummary& summary) const {
    std::string out = fmt::format(
        "<svg role=\"img\" aria-labelledby=\"chart-title chart-text\" width=\"100%\" "
        "height=\"{}\">\n<title id=\"chart-title\">Messages by {}</title>\n"
        "<desc id=\"chart-text\">{} from {} to {}. {}</desc>\n",
        kChartHeight, histogram_.step.name, countText(summary.total()),
        name(histogram_.bars.front()), name(histogram_.bars.back()), busiest());
    return out + grid() + bars() + line() + labels() + "</svg>\n";
  }

  // The chart, with room for the grid's numbers at its left.
  std::string plot(const MailSummary& summary) const {
    const std::size_t digits = grouped(std::max(above_, below_)).size();
    return fmt::format("<div class=\"plot\" style=\"padding-left: {}ch\">\n{}</div>\n", digits + 2,
                       svg(summary));
  }

  std::string table() const {
    std::string out = fmt::format(
        "<table>\n<thead><tr><th scope=\"col\">{}</th><th scope=\"col\">Received</th>"
        "<th scope=\"col\">Sent</th></tr></thead>\n<tbody>\n",
        histogram_.step.months == 1 ? "Month" : "Time");
    for (const Histogram::Bar& bar : histogram_.bars) {
      out += fmt::format("<tr><th scope=\"row\">{}</th><td>{}</td><td>{}</td></tr>\n", name(bar),
                         grouped(bar.count.received), grouped(bar.count.sent));
    }
    return out + "</tbody>\n</table>\n";
  }

  std::string busiest() const {
    const auto bar = std::max_element(
        histogram_.bars.begin(), histogram_.bars.end(),
        [](const auto& a, const auto& b) { return a.count.total() < b.count.total(); });
    return fmt::format("Most in {}: {}", name(*bar), grouped(bar->count.total()));
  }

  const Step& step() const { return histogram_.step; }

 private:
  std::string name(const Histogram::Bar& bar) const {
    return spokenName(histogram_.step, bar.first);
  }
  double slot() const { return 100.0 / static_cast<double>(histogram_.bars.size()); }
  double heightOf(std::uint64_t count) const {
    return kPlotHeight * static_cast<double>(count) / static_cast<double>(above_ + below_);
  }

  std::string gridLine(std::uint64_t count, double y) const {
    return fmt::format(
        "<line class=\"grid\" x1=\"0\" x2=\"100%\" y1=\"{0:.1f}\" y2=\"{0:.1f}\"/>"
        "<text x=\"-8\" y=\"{1:.1f}\" text-anchor=\"end\">{2}</text>\n",
        y, y + 4, grouped(count));
  }

  std::string grid() const {
    std::string out = gridLine(0, line_);
    for (std::uint64_t count = gridStep_; count <= above_; count += gridStep_) {
      out += gridLine(count, line_ - heightOf(count));
    }
    for (std::uint64_t count = gridStep_; count <= below_; count += gridStep_) {
      out += gridLine(count, line_ + heightOf(count));
    }
    return out;
  }

  std::string line() const {
    return fmt::format(
        "<line class=\"base\" x1=\"0\" x2=\"100%\" y1=\"{0:.1f}\" y2=\"{0:.1f}\"/>\n", line_);
  }

  std::string bars() const {
    std::string out;
    const double width = std::min(slot() * 0.74, kWidestBarPercent);
    for (std::size_t i = 0; i < histogram_.bars.size(); ++i) {
      const Histogram::Bar& bar = histogram_.bars[i];
      if (bar.count.total() == 0) continue;
      const double left = slot() * static_cast<double>(i);
      const double inset = left + (slot() - width) / 2;
      const double received = barHeight(bar.count.received);
      out +=
          fmt::format("<g class=\"bar\"><title>{}: {}</title>{}{}{}</g>\n", name(bar),
                      countText(bar.count), rectangle("area", left, slot(), kPlotTop, kPlotHeight),
                      rectangle("received", inset, width, line_ - received, received),
                      rectangle("sent", inset, width, line_, barHeight(bar.count.sent)));
    }
    return out;
  }

  // What is there is seen.
  double barHeight(std::uint64_t count) const {
    return count == 0 ? 0 : std::max(heightOf(count), kLeastBar);
  }

  static std::string rectangle(std::string_view kind, double x, double width, double y,
                               double height) {
    if (height <= 0) return {};
    return fmt::format(
        "<rect class=\"{}\" x=\"{:.3f}%\" width=\"{:.3f}%\" y=\"{:.1f}\" height=\"{:.1f}\" "
        "rx=\"1.5\"/>",
        kind, x, width, y, height);
  }

  std::string footName(Month first) const {
    if (histogram_.step.months > 12) return std::to_string(first.year());
    if (histogram_.step.months > 1) return barName(histogram_.step, first);
    const std::string name = monthName(first);  // "May 2026"
    return name.substr(0, 3) + name.substr(name.find(' '));
  }

  // Some bars' names along the foot, so few that they stay apart on a telephone.
  std::string labels() const {
    std::vector<std::size_t> labelled;
    const bool byName = histogram_.step.months > 12 || histogram_.bars.size() <= 24;
    for (std::size_t i = 0; i < histogram_.bars.size(); ++i) {
      if (byName || histogram_.bars[i].first.monthOfYear() == 1) labelled.push_back(i);
    }
    const std::size_t most = byName ? kMaxNameLabels : kMaxYearLabels;
    const std::size_t every = (labelled.size() + most - 1) / most;
    std::string out;
    for (std::size_t i = 0; i < labelled.size(); i += every) {
      const double x = slot() * (static_cast<double>(labelled[i]) + (byName ? 0.5 : 0.0));
      const Month first = histogram_.bars[labelled[i]].first;
      const std::string text = byName ? footName(first) : std::to_string(first.year());
      const std::string_view anchor = x > 92 ? "end" : x < 8 || !byName ? "start" : "middle";
      out += fmt::format(
          "<line class=\"base\" x1=\"{0:.3f}%\" x2=\"{0:.3f}%\" y1=\"{1}\" y2=\"{2}\"/>"
          "<text x=\"{0:.3f}%\" y=\"{3}\" text-anchor=\"{4}\">{5}</text>\n",
          x, kPlotBottom + 4, kPlotBottom + 9, kPlotBottom + 23, anchor, text);
    }
    return out;
  }

  const Histogram histogram_;
  std::uint64_t gridStep_ = 1;
  std::uint64_t above_ = 1;  // what the scale reaches to
  std::uint64_t below_ = 0;
  double line_ = 0;  // where the bars begin
};

std::string isolated(std::string_view text, std::size_t columns) {
  return "<bdi>" + escapedForHtml(text, columns) + "</bdi>";
}

std::string head(std::string_view heading, std::string_view remark) {
  return fmt::format("<div class=\"head\"><h2>{}</h2><p class=\"quiet\">{}</p></div>\n", heading,
                     remark);
}

std::string numbers(const MailSummary& summary) {
  const auto number = [](std::string_view name, std::string_view kind, std::uint64_t value) {
    return fmt::format("<div class=\"card\"><dt{}>{}</dt><dd>{}</dd></div>\n", kind, name,
                       grouped(value));
  };
  const auto plural = [](std::uint64_t count, const char* one, const char* many) {
    return count == 1 ? one : many;
  };
  const std::uint64_t messages = summary.total().total();
  return "<dl class=\"numbers\">\n" +
         number(plural(messages, "message", "messages"), "", messages) +
         number("received", " class=\"key\"", summary.total().received) +
         number("sent", " class=\"key sent\"", summary.total().sent) +
         number(plural(summary.correspondentCount(), "correspondent", "correspondents"), "",
                summary.correspondentCount()) +
         "</dl>\n";
}

std::string timeline(const MailSummary& summary) {
  const std::vector<MonthCount> months = summary.months();
  if (months.empty()) return {};
  const Chart chart(folded(months, kMaxBars));
  std::string remark = chart.busiest();
  if (summary.undated() > 0) {
    remark += fmt::format("; without a date and not shown: {}", grouped(summary.undated()));
  }
  return "<figure class=\"card\">\n" + head(fmt::format("By {}", chart.step().name), remark) +
         chart.plot(summary) + "<details>\n<summary>The numbers</summary>\n" + chart.table() +
         "</details>\n</figure>\n";
}

// How much of the mail is with this one, against the one with the most.
std::string share(const MailCount& count, std::uint64_t most) {
  const auto percent = [most](std::uint64_t part) {
    return 100.0 * static_cast<double>(part) / static_cast<double>(most);
  };
  return fmt::format(
      "<svg width=\"100%\" height=\"8\" aria-hidden=\"true\">"
      "<rect class=\"received\" width=\"{0:.2f}%\" height=\"8\" rx=\"2\"/>"
      "<rect class=\"sent\" x=\"{0:.2f}%\" width=\"{1:.2f}%\" height=\"8\" rx=\"2\"/></svg>",
      percent(count.received), percent(count.sent));
}

std::string correspondents(const MailSummary& summary) {
  const std::vector<Correspondent> top = summary.topCorrespondents(kCorrespondents);
  if (top.empty()) return {};
  std::string out =
      "<section class=\"card\">\n" +
      head("Correspondents", top.size() < summary.correspondentCount()
                                 ? fmt::format("The {} with the most messages", top.size())
                                 : std::string());
  out +=
      "<table>\n<thead><tr><th scope=\"col\">Name and address</th><td class=\"share\"></td>"
      "<th scope=\"col\">Received</th><th scope=\"col\">Sent</th></tr></thead>\n<tbody>\n";
  for (const Correspondent& one : top) {
    const bool named = one.name != one.address;
    out += fmt::format(
        "<tr><th scope=\"row\">{}{}</th><td class=\"share\">{}</td><td>{}</td><td>{}</td></tr>\n",
        isolated(one.name, kNameColumns),
        named ? "<span>" + isolated(one.address, kNameColumns) + "</span>" : "",
        share(one.count, top.front().count.total()), grouped(one.count.received),
        grouped(one.count.sent));
  }
  return out + "</tbody>\n</table>\n</section>\n";
}

std::string end(std::string_view heading, const NotableMessage& message) {
  std::string from;
  if (!message.correspondent.empty()) {
    from = fmt::format("<p>{} {}</p>\n", message.sent ? "Sent to" : "Received from",
                       isolated(message.correspondent, kNameColumns));
  }
  return fmt::format(
      "<section class=\"card\">\n<h2>{}</h2>\n<p class=\"subject\">{}</p>\n{}"
      "<p class=\"quiet\">{}</p>\n</section>\n",
      heading, isolated(message.subject.empty() ? "No subject" : message.subject, kSubjectColumns),
      from, timeName(message.date));
}

std::string ends(const MailSummary& summary) {
  if (summary.first() == nullptr) return {};
  return "<div class=\"ends\">\n" + end("First message", *summary.first()) +
         end("Last message", *summary.last()) + "</div>\n";
}

std::string period(const MailSummary& summary) {
  if (summary.first() == nullptr) return {};
  const std::string first = dayName(summary.first()->date);
  const std::string last = dayName(summary.last()->date);
  return first == last ? first : first + " to " + last;
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
  page += "</style>\n</head>\n<body>\n<header>\n<p class=\"kind\">";
  page += kEnvelope;
  page += fmt::format(
      "Mail search</p>\n<h1{}><bdi>{}</bdi></h1>\n<p class=\"quiet\">{}</p>\n</header>\n<main>\n",
      source.query.size() > kLongQuery ? " class=\"long\"" : "", query, period(summary));
  page += numbers(summary) + timeline(summary);
  page += ends(summary) + correspondents(summary);
  page += "</main>\n<footer>\n";
  if (!source.predicate.empty() && source.predicate != source.query) {
    page += "<details>\n<summary>The query as a predicate</summary>\n<p><code>" +
            escapedForHtml(source.predicate, kPredicateColumns) + "</code></p>\n</details>\n";
  }
  page += fmt::format("<p>Made {} by tallyhive-mail {}.</p>\n</footer>\n</body>\n</html>\n",
                      escapedForHtml(source.made, kNameColumns), THMP_VERSION);
  return page;
}

}  // namespace thmp::client
