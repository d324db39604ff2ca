// SPDX-License-Identifier: Apache-2.0
#include "client/SearchOutput.h"

#include <fmt/format.h>
#include <unistd.h>

#include <unordered_map>
#include <utility>

#include "console/found_messages.h"
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
  void found(const Dictionary& item) override { print(console::foundEvent(item)); }
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

 private:
  void print(const Json& line) { console::printLine(line, output_); }

  StandardOutput& output_;
};

class PathsOutput : public SearchOutput {
 public:
  PathsOutput(StandardOutput& output, bool nulEnds)
      : output_(output), end_(nulEnds ? '\0' : '\n') {}

  void started(std::string_view) override {}
  void found(const Dictionary& item) override {
    output_.write(item[kPathKey].asText().value_or(""));
    output_.write(std::string_view(&end_, 1));
  }
  void removed(std::string_view) override {}
  void gathered(const Received&, std::chrono::duration<double>) override {}
  void completed(const Received&, const SearchFailure*) override {}

 private:
  StandardOutput& output_;
  const char end_;
};

// Date, author and subject: on a terminal in columns that fit it, else apart by tabs and whole.
class TableOutput : public SearchOutput {
 public:
  explicit TableOutput(StandardOutput& output) : output_(output) {}

  void started(std::string_view) override {}
  void found(const Dictionary& item) override {
    console::TableRow line = console::tableRow(item[kAttributesKey]);
    if (gathered_) printMark("+ ", "\x1b[32m");
    print(line);
    // Remembered for the day it goes: a removal brings no more than the ID.
    if (const auto id = item[kLibraryIDKey].asInteger())
      shown_[std::to_string(*id)] = std::move(line);
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
    if (::isatty(STDERR_FILENO) != 1) return;
    output_.flush();
    fmt::print(stderr, "{} message{} in {:.2f} s\n", received.found, received.found == 1 ? "" : "s",
               elapsed.count());
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
  bool gathered_ = false;
  std::unordered_map<std::string, console::TableRow> shown_;
};

}  // namespace

std::unique_ptr<SearchOutput> makeSearchOutput(OutputForm form, bool nulEnds,
                                               StandardOutput& output) {
  switch (form) {
    case OutputForm::kJson:
      return std::make_unique<JsonOutput>(output);
    case OutputForm::kPaths:
      return std::make_unique<PathsOutput>(output, nulEnds);
    case OutputForm::kTable:
      break;
  }
  return std::make_unique<TableOutput>(output);
}

}  // namespace thmp::client
