// SPDX-License-Identifier: Apache-2.0
//
// A small mailbox that all benchmarks share: message files, library and index in a temporary
// folder, made at the first use and removed when the program ends. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/index/Index.h"
#include "host/store/Library.h"
#include "maillibrary/FoundItem.h"

namespace thmp::benchmarks {

inline constexpr std::size_t kMessages = 10'000;
inline constexpr std::size_t kBatch = 1'500;

class BenchmarkMail {
 public:
  static BenchmarkMail& shared();
  ~BenchmarkMail();
  BenchmarkMail(const BenchmarkMail&) = delete;
  BenchmarkMail& operator=(const BenchmarkMail&) = delete;

  const std::string& folder() const { return folder_; }
  std::string libraryFile() const { return folder_ + "/library.sqlite"; }
  Index& index() { return *index_; }
  const Library& library() const { return *library_; }
  /// Of kBatch messages all over the mailbox, in no order.
  const std::vector<std::int64_t>& ids() const { return ids_; }
  /// Those messages as a search finds them, without paths.
  std::vector<FoundItem> items();
  /// Those messages as they stand on a pasteboard.
  Value batch();
  /// About 3,000 bytes of text.
  static const std::string& text();

 private:
  BenchmarkMail();
  void writeMail() const;

  std::string folder_;
  std::unique_ptr<Library> library_;
  std::unique_ptr<Index> index_;
  std::vector<std::int64_t> ids_;
};

}  // namespace thmp::benchmarks
