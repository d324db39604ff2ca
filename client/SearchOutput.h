// SPDX-License-Identifier: Apache-2.0
//
// What a search prints: a table for people, one JSON object a line for programs, bare paths, or a
// timeline. One thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "client/MailSummary.h"
#include "client/ResultsBatch.h"
#include "console/terminal.h"

namespace thmp::client {

struct OutputForm {
  enum class Kind {
    kTable,
    kJson,
    kPaths,
    kTimeline,
    kTimelineJson,
    kNothing,
  };
  Kind kind = Kind::kTable;
  /// Of paths: a NUL in place of a line feed.
  bool nulEnds = false;
  /// Of the table: what goes is shown as it came, for which all that came is remembered.
  bool live = false;
};

struct SearchFailure {
  std::int64_t code = 0;
  std::string domain;
  std::string message;
};

/// What the client received so far.
struct Received {
  std::uint64_t found = 0;
  std::uint64_t batches = 0;
};

class SearchOutput {
 public:
  virtual ~SearchOutput() = default;
  virtual void started(std::string_view uniqueName) = 0;
  /// The messages of a batch, in their order; the batch is lent for the call.
  virtual void found(ResultsBatch& batch) = 0;
  /// `libraryID` in decimal.
  virtual void removed(std::string_view libraryID) = 0;
  /// All mail that matched when the search began has been delivered, `elapsed` after the request.
  virtual void gathered(const Received& received, std::chrono::duration<double> elapsed) = 0;
  /// The query has ended by itself; `failure` is null when it ended well.
  virtual void completed(const Received& received, const SearchFailure* failure) = 0;
};

/// `summary` is that of the same search, for the timelines, and may be null for the others; it and
/// `output` outlive the result.
std::unique_ptr<SearchOutput> makeSearchOutput(const OutputForm& form, const MailSummary* summary,
                                               console::StandardOutput& output);

/// Sums up what a search finds, and hands all on to `next`.
class SummingOutput : public SearchOutput {
 public:
  SummingOutput(MailSummary& summary, SearchOutput& next) : summary_(summary), next_(next) {}

  void started(std::string_view uniqueName) override { next_.started(uniqueName); }
  void found(ResultsBatch& batch) override {
    for (std::size_t i = 0; i < batch.size(); ++i) summary_.add(batch.message(i));
    next_.found(batch);
  }
  void removed(std::string_view libraryID) override { next_.removed(libraryID); }
  void gathered(const Received& received, std::chrono::duration<double> elapsed) override {
    isWhole_ = true;
    next_.gathered(received, elapsed);
  }
  void completed(const Received& received, const SearchFailure* failure) override {
    next_.completed(received, failure);
  }

  /// Whether the summary is of all mail that matches.
  bool isWhole() const { return isWhole_; }

 private:
  MailSummary& summary_;
  SearchOutput& next_;
  bool isWhole_ = false;
};

/// Tells on standard error how many messages came so far, for outputs that say nothing until all
/// have; and hands all on to `next`. REQUIRES: standard error is a terminal.
class ProgressOutput : public SearchOutput {
 public:
  /// `pause`: between two tellings, and before the first.
  explicit ProgressOutput(SearchOutput& next,
                          std::chrono::milliseconds pause = std::chrono::milliseconds(200))
      : next_(next), pause_(pause) {}
  ~ProgressOutput() override { erase(); }

  void started(std::string_view uniqueName) override { next_.started(uniqueName); }
  void found(ResultsBatch& batch) override;
  void removed(std::string_view libraryID) override { next_.removed(libraryID); }
  void gathered(const Received& received, std::chrono::duration<double> elapsed) override;
  void completed(const Received& received, const SearchFailure* failure) override;

 private:
  void erase();

  SearchOutput& next_;
  const std::chrono::milliseconds pause_;
  std::uint64_t count_ = 0;
  bool gathered_ = false;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

}  // namespace thmp::client
