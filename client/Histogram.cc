// SPDX-License-Identifier: Apache-2.0
#include "client/Histogram.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace thmp::client {
namespace {

constexpr std::array kSteps = {
    Step{1, "month"},    Step{3, "quarter"},    Step{12, "year"},      Step{60, "five years"},
    Step{120, "decade"}, Step{600, "50 years"}, Step{1200, "century"}, Step{12000, "1000 years"}};

constexpr std::size_t kRows = 6;       // of the higher of the two drawings
constexpr std::size_t kLevels = 8;     // of one character
constexpr std::size_t kWidestBar = 4;  // with the gap behind it

constexpr std::array<std::string_view, kLevels + 1> kBlocks = {" ", "▁", "▂", "▃", "▄",
                                                               "▅", "▆", "▇", "█"};

struct Frame {
  std::uint64_t highest;   // the count that fills kRows
  std::size_t labelWidth;  // of the counts at the left
  std::size_t barWidth;    // gap included
  std::size_t plotWidth;
};

// In eighths of a character. What is there is seen.
std::size_t heightOf(std::uint64_t count, const Frame& frame) {
  if (count == 0) return 0;
  const double share = static_cast<double>(count) / static_cast<double>(frame.highest);
  const auto height = static_cast<std::size_t>(share * static_cast<double>(kRows * kLevels) + 0.5);
  return std::max<std::size_t>(height, 1);
}

std::string rowOf(const std::vector<std::size_t>& heights, std::size_t row, const Frame& frame) {
  const std::size_t gap = frame.barWidth > 1 ? 1 : 0;
  std::string line;
  for (const std::size_t height : heights) {
    const std::size_t base = row * kLevels;
    const std::size_t level = height <= base ? 0 : std::min(height - base, kLevels);
    for (std::size_t i = gap; i < frame.barWidth; ++i) line += kBlocks[level];
    line.append(gap, ' ');
  }
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

// One of the two drawings, without its foot. The highest count stands at its top.
std::string panel(const Histogram& histogram, std::uint64_t MailCount::*part, const Frame& frame,
                  std::string_view color) {
  std::vector<std::size_t> heights;
  std::uint64_t highest = 0;
  for (const Histogram::Bar& bar : histogram.bars) {
    heights.push_back(heightOf(bar.count.*part, frame));
    highest = std::max(highest, bar.count.*part);
  }
  const std::size_t tallest = *std::max_element(heights.begin(), heights.end());
  const std::size_t rows = std::max<std::size_t>((tallest + kLevels - 1) / kLevels, 1);
  std::string drawing;
  for (std::size_t row = rows; row-- > 0;) {
    const std::string label = row + 1 == rows ? std::to_string(highest) : std::string();
    drawing += fmt::format("{:>{}}│{}{}{}\n", label, frame.labelWidth, color,
                           rowOf(heights, row, frame), color.empty() ? "" : "\x1b[0m");
  }
  return drawing;
}

// Years below the bars that they begin with, as many as there is room for.
std::string foot(const Histogram& histogram, const Frame& frame) {
  std::string axis(frame.labelWidth, ' ');
  std::string years(frame.labelWidth + 1, ' ');
  axis += "└";
  std::size_t drawn = 0;
  std::size_t free = 0;  // the first column where a label may begin
  int lastYear = -1;
  for (std::size_t i = 0; i < histogram.bars.size(); ++i) {
    const Month first = histogram.bars[i].first;
    const std::size_t column = i * frame.barWidth;
    const std::string label = std::to_string(first.year());
    const bool begins = i == 0 || first.year() != lastYear;
    lastYear = first.year();
    if (!begins || column < free || column + label.size() > frame.plotWidth) continue;
    for (; drawn < column; ++drawn) axis += "─";
    axis += "┬";
    ++drawn;
    years.resize(frame.labelWidth + 1 + column, ' ');
    years += label;
    free = column + label.size() + 1;
  }
  for (; drawn < frame.plotWidth; ++drawn) axis += "─";
  return axis + "\n" + years + "\n";
}

std::string title(std::string_view what, std::uint64_t count, std::string_view color) {
  return fmt::format("{}{} {}{}", color, count, what, color.empty() ? "" : "\x1b[0m");
}

// What a bar stands for, behind a title of `used` columns; below it where that leaves no room.
std::string byStep(const Step& step, std::size_t months, std::size_t used, std::size_t columns) {
  const std::string by = fmt::format("by {}", step.name);
  if (used + 1 + by.size() > columns) return "\n" + by;
  const std::string why = fmt::format(", as {} months would not fit", months);
  const bool told = step.months > 1 && used + 1 + by.size() + why.size() <= columns;
  return " " + by + (told ? why : "");
}

}  // namespace

Histogram folded(std::span<const MonthCount> months, std::size_t maxBars) {
  Histogram histogram;
  if (months.empty()) return histogram;
  const int first = months.front().month.number;
  const int last = months.back().month.number;
  for (const Step& step : kSteps) {
    histogram.step = step;
    if (static_cast<std::size_t>(last / step.months - first / step.months) < maxBars) break;
  }
  const int width = histogram.step.months;
  for (const MonthCount& month : months) {
    const Month begin{month.month.number / width * width};
    if (histogram.bars.empty() || histogram.bars.back().first != begin) {
      histogram.bars.push_back({begin, {}});
    }
    histogram.bars.back().count += month.count;
  }
  return histogram;
}

std::string barName(const Step& step, Month first) {
  if (step.months == 1) return first.text();
  if (step.months == 3) {
    return fmt::format("{:04} Q{}", first.year(), (first.monthOfYear() + 2) / 3);
  }
  if (step.months == 12) return fmt::format("{:04}", first.year());
  return fmt::format("{:04} to {:04}", first.year(), first.year() + step.months / 12 - 1);
}

std::string drawn(std::span<const MonthCount> months, std::size_t columns, bool color) {
  if (months.empty()) return {};
  columns = std::max<std::size_t>(columns, 16);
  MailCount total;
  for (const MonthCount& month : months) total += month.count;
  // No bar of any step is higher than all mail together.
  Frame frame{1, std::to_string(total.total()).size(), 1, 0};
  const std::size_t room = columns - std::min(frame.labelWidth + 1, columns - 11);
  const Histogram histogram = folded(months, room);
  frame.barWidth = std::min(room / histogram.bars.size(), kWidestBar);
  frame.plotWidth =
      std::min(std::max<std::size_t>(histogram.bars.size() * frame.barWidth, 4), room);
  for (const Histogram::Bar& bar : histogram.bars) {
    frame.highest = std::max({frame.highest, bar.count.sent, bar.count.received});
  }
  const std::string_view receivedColor = color ? "\x1b[36m" : "";
  const std::string_view sentColor = color ? "\x1b[33m" : "";
  const std::size_t used = title("received", total.received, "").size();
  return title("received", total.received, receivedColor) +
         byStep(histogram.step, months.size(), used, columns) + "\n" +
         panel(histogram, &MailCount::received, frame, receivedColor) +
         title("sent", total.sent, sentColor) + "\n" +
         panel(histogram, &MailCount::sent, frame, sentColor) + foot(histogram, frame);
}

}  // namespace thmp::client
