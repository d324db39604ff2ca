// SPDX-License-Identifier: Apache-2.0
//
// A results batch as it came: checked as a whole, and built only for what looks into attributes.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "base/PropertyListView.h"
#include "base/error.h"
#include "base/value.h"
#include "console/PropertyListJson.h"
#include "console/terminal.h"

namespace thmp::client {

/// One thread.
class ResultsBatch {
 public:
  /// Null, with `error` filled, when the bytes are no property list within the limits of batches.
  static std::unique_ptr<ResultsBatch> open(std::string bytes, Error* error = nullptr);
  ResultsBatch(const ResultsBatch&) = delete;
  ResultsBatch& operator=(const ResultsBatch&) = delete;

  /// How many messages it has. REQUIRES, below: index < size().
  std::size_t size() const;
  /// A message as it stands in the batch; empty for what is no dictionary.
  Dictionary message(std::size_t index);
  /// Where its file is; empty when it does not say.
  std::string path(std::size_t index) const;
  /// Prints its `found` event in JSON.
  void printEvent(std::size_t index, console::StandardOutput& output);

 private:
  explicit ResultsBatch(std::string bytes) : bytes_(std::move(bytes)) {}

  const std::string bytes_;
  std::optional<PropertyListView> list_;
  std::optional<PropertyListView::Members> messages_;
  std::optional<console::PropertyListJson> json_;
  std::optional<Array> built_;
};

}  // namespace thmp::client
