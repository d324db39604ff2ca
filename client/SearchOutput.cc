// SPDX-License-Identifier: Apache-2.0
#include "client/SearchOutput.h"

#include <fmt/format.h>
#include <unistd.h>

#include <unordered_map>
#include <utility>
#include <vector>

#include "client/Histogram.h"
#include "console/found_messages.h"
#include "console/terminal.h"
#include "messaging/message_names.h"

namespace thmp::client {
namespace {

using console::Json;
using console::StandardOutput;

class JsonOutput : public SearchOutput {
 public:
  explicit JsonOutput(StandardOutput& output) : output_(output) {}

  void started(std::string_view uniqueName) override {
    print({{"event", "start"},
           {"schema", "tallyhive.search/1"},
           {"uniqueName", std::string(uniqueName)}});
  }
  void found(ResultsBatch& batch) override {
    for (std::size_t i = 0; i < batch.size(); ++i) batch.printEvent(i, output_);
  }
  void removed(std::string_view libraryID) override {
    print({{"event", "removed"}, {"id", std::string(libraryID)}});
  }
  void gathered(const Received& received, std::chrono::duration<double>) override {
    print({{"event", "gathered"}, {"found", received.found}, {"batches", received.batches}});
  }
  void completed(const Received& received, const SearchFailure* failure) override {
    Json line = {{"event", "complete"}, {"found", received.found}, {"batches", received.batches}};
    if (failure != nullptr) {
      line["errorCode"] = failure->code;
      line["errorDomain"] = failure->domain;
      line["errorMessage"] = failure->message;
    }
    print(line);
  }

 protected:
  void print(const Json& line) { console::printLine(line, output_); }

 private:
  StandardOutput& output_;
};

class PathsOutput : public SearchOutput {
 public:
  PathsOutput(StandardOutput& output, bool nulEnds)
      : output_(output), end_(nulEnds ? '\0' : '\n') {}

  void started(std::string_view) override {}
  void found(ResultsBatch& batch) override {
    for (std::size_t i = 0; i < batch.size(); ++i) {
      const std::string path = batch.path(i);
      output_.write(output_.isTerminal() && end_ == '\n' ? console::shown(path) : path);
      output_.write(std::string_view(&end_, 1));
    }
  }
  void removed(std::string_view) override {}
  void gathered(const Received&, std::chrono::duration<double>) override {}
  void completed(const Received&, const SearchFailure*) override {}

 private:
  StandardOutput& output_;
  const char end_;
};

void printClosing(const Received& received, std::chrono::duration<double> elapsed,
                  StandardOutput& output) {
  if (::isatty(STDERR_FILENO) != 1 || output.isPipe()) return;
  output.flush();
  console::say(fmt::format("{} message{} in {:.2f} s\n", received.found,
                           received.found == 1 ? "" : "s", elapsed.count()));
}

// Date, author and subject: on a terminal in columns that fit it, else apart by tabs and whole.
class TableOutput : public SearchOutput {
 public:
  TableOutput(StandardOutput& output, bool live) : output_(output), live_(live) {}

  void started(std::string_view) override {}
  void found(ResultsBatch& batch) override {
    for (std::size_t i = 0; i < batch.size(); ++i) {
      const Dictionary message = batch.message(i);
      console::TableRow line = console::tableRow(message[kAttributesKey]);
      if (gathered_) printMark("+ ", "\x1b[32m");
      print(line);
      // Remembered for the day it goes: a removal brings no more than the ID.
      if (const auto id = message[kLibraryIDKey].asInteger(); live_ && id) {
        shown_[std::to_string(*id)] = std::move(line);
      }
    }
  }
  void removed(std::string_view libraryID) override {
    const auto known = shown_.find(std::string(libraryID));
    printMark("- ", "\x1b[31m");
    print(known == shown_.end() ? console::TableRow{"", "", "message " + std::string(libraryID)}
                                : known->second);
    if (known != shown_.end()) shown_.erase(known);
  }
  void gathered(const Received& received, std::chrono::duration<double> elapsed) override {
    gathered_ = true;
    printClosing(received, elapsed, output_);
  }
  void completed(const Received&, const SearchFailure*) override {}

 private:
  void printMark(std::string_view mark, std::string_view color) {
    if (output_.hasColor()) output_.write(color);
    output_.write(mark);
    if (output_.hasColor()) output_.write("\x1b[0m");
  }

  void print(const console::TableRow& row) { console::printRow(row, gathered_ ? 2 : 0, output_); }

  StandardOutput& output_;
  const bool live_;
  bool gathered_ = false;
  std::unordered_map<std::string, console::TableRow> shown_;
};

// Mail by month: drawn on a terminal, else one month a line, apart by tabs.
class TimelineOutput : public SearchOutput {
 public:
  TimelineOutput(const MailSummary& summary, StandardOutput& output)
      : summary_(summary), output_(output) {}

  void started(std::string_view) override {}
  void found(ResultsBatch&) override {}
  void removed(std::string_view) override {}
  void gathered(const Received& received, std::chrono::duration<double> elapsed) override {
    const std::vector<MonthCount> months = summary_.months();
    if (output_.isTerminal()) {
      output_.write(drawn(months, output_.columns(), output_.hasColor()));
    } else {
      for (const auto& [month, count] : months) {
        output_.write(fmt::format("{}\t{}\t{}\n", month.text(), count.sent, count.received));
      }
    }
    output_.flush();
    if (summary_.undated() > 0) {
      console::say(fmt::format("tallyhive-mail: {} without a date left out\n", summary_.undated()));
    }
    printClosing(received, elapsed, output_);
  }
  void completed(const Received&, const SearchFailure*) override {}

 private:
  const MailSummary& summary_;
  StandardOutput& output_;
};

// The events of a search, with a `month` for each month in place of the messages.
class TimelineJsonOutput : public JsonOutput {
 public:
  TimelineJsonOutput(const MailSummary& summary, StandardOutput& output)
      : JsonOutput(output), summary_(summary) {}

  void found(ResultsBatch&) override {}
  void gathered(const Received& received, std::chrono::duration<double> elapsed) override {
    for (const auto& [month, count] : summary_.months()) {
      print({{"event", "month"},
             {"month", month.text()},
             {"sent", count.sent},
             {"received", count.received}});
    }
    JsonOutput::gathered(received, elapsed);
  }

 private:
  const MailSummary& summary_;
};

class NoOutput : public SearchOutput {
 public:
  void started(std::string_view) override {}
  void found(ResultsBatch&) override {}
  void removed(std::string_view) override {}
  void gathered(const Received&, std::chrono::duration<double>) override {}
  void completed(const Received&, const SearchFailure*) override {}
};

}  // namespace

void ProgressOutput::found(ResultsBatch& batch) {
  next_.found(batch);
  count_ += batch.size();
  const auto now = std::chrono::steady_clock::now();
  if (gathered_ || now - last_ < pause_) return;
  last_ = now;
  drawn_ = true;
  // What is told next begins at the line's first column and so takes its place.
  console::say(fmt::format("\r\x1b[K{} found so far\r", count_));
}

void ProgressOutput::gathered(const Received& received, std::chrono::duration<double> elapsed) {
  gathered_ = true;
  erase();
  next_.gathered(received, elapsed);
}

void ProgressOutput::completed(const Received& received, const SearchFailure* failure) {
  erase();
  next_.completed(received, failure);
}

void ProgressOutput::erase() {
  if (std::exchange(drawn_, false)) console::say("\r\x1b[K");
}

std::unique_ptr<SearchOutput> makeSearchOutput(const OutputForm& form, const MailSummary* summary,
                                               StandardOutput& output) {
  switch (form.kind) {
    case OutputForm::Kind::kTable:
      return std::make_unique<TableOutput>(output, form.live);
    case OutputForm::Kind::kJson:
      return std::make_unique<JsonOutput>(output);
    case OutputForm::Kind::kPaths:
      return std::make_unique<PathsOutput>(output, form.nulEnds);
    case OutputForm::Kind::kTimeline:
      return std::make_unique<TimelineOutput>(*summary, output);
    case OutputForm::Kind::kTimelineJson:
      return std::make_unique<TimelineJsonOutput>(*summary, output);
    case OutputForm::Kind::kNothing:
      break;
  }
  return std::make_unique<NoOutput>();
}

}  // namespace thmp::client
