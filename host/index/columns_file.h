// SPDX-License-Identifier: Apache-2.0
//
// The columns in a file beside the index, so that a start need not make them from every record. The
// file is good for the one index that has its token in a mark: it holds the columns as they were
// when the mark was set, and the table `later` names the messages that changed after that. A file
// that is not whole, or of another token or version, is no file. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/index/Columns.h"

namespace thmp {

/// Where the columns of the index at `indexPath` are.
std::string columnsPath(const std::string& indexPath);

struct KeptColumns {
  std::unique_ptr<Columns> columns;
  /// Of these, so many were irregular when the columns were made from the records.
  std::size_t settledIrregular = 0;
};

/// What the file holds, as it is written.
std::string columnsFileBody(std::int64_t token, const Columns& columns,
                            std::size_t settledIrregular);
/// In place of the file that stands there. False, and there is none, when it cannot be written.
bool writeColumnsFile(const std::string& path, std::string_view body);
/// Whether there is a file with that token; the rest of it is not read.
bool isColumnsFile(const std::string& path, std::int64_t token);
/// Empty when there is no good file with that token.
std::optional<KeptColumns> readColumnsFile(const std::string& path, std::int64_t token);

}  // namespace thmp
