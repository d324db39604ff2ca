// SPDX-License-Identifier: Apache-2.0
//
// What a search prints: a table for people, one JSON object a line for programs, or bare paths. One
// thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/value.h"
#include "console/terminal.h"

namespace thmp::client {

enum class OutputForm { kTable, kJson, kPaths };

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
  /// `item` as it stands in a results batch.
  virtual void found(const Dictionary& item) = 0;
  /// `libraryID` in decimal.
  virtual void removed(std::string_view libraryID) = 0;
  /// All mail that matched when the search began has been delivered, `elapsed` after the request.
  virtual void gathered(const Received& received, std::chrono::duration<double> elapsed) = 0;
  /// The query has ended by itself; `failure` is null when it ended well.
  virtual void completed(const Received& received, const SearchFailure* failure) = 0;
};

/// `output` outlives it. `nulEnds` ends each path with a NUL in place of a line feed.
std::unique_ptr<SearchOutput> makeSearchOutput(OutputForm form, bool nulEnds,
                                               console::StandardOutput& output);

}  // namespace thmp::client
