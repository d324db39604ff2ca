// SPDX-License-Identifier: Apache-2.0
//
// From 1,500 IDs to their paths; beside it one IN statement and 1,500 tests whether a file is
// there.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "benchmarks/BenchmarkMail.h"
#include "host/adapter/HostMail.h"
#include "maillibrary/MailLibraryLookup.h"
#include "platform/linux/LinuxFiles.h"

namespace thmp::benchmarks {
namespace {

void PathsLookedUp(benchmark::State& state) {
  BenchmarkMail& mail = BenchmarkMail::shared();
  HostMail host(mail.library());
  LinuxFiles files(mail.folder());
  MailLibraryLookup lookup(host, files);
  // As the index gives them; what a search does with the attributes is not part of this.
  const std::vector<FoundItem> items = mail.items();
  std::uint64_t number = 0;
  std::size_t found = 0;
  for (auto _ : state) found = lookup.loadFilePaths(items, number).size();
  if (found != kBatch) state.SkipWithError("a message without a path");
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}
BENCHMARK(PathsLookedUp)->Unit(benchmark::kMillisecond);

std::string statementFor(const std::vector<std::int64_t>& ids) {
  std::string sql = "SELECT rowid, mailbox, file FROM messages WHERE rowid IN (";
  for (const std::int64_t id : ids) sql += std::to_string(id) + ",";
  sql.back() = ')';
  return sql;
}

void StatementAndAccessTests(benchmark::State& state) {
  BenchmarkMail& mail = BenchmarkMail::shared();
  sqlite3* database = nullptr;
  sqlite3_open_v2(mail.libraryFile().c_str(), &database, SQLITE_OPEN_READONLY, nullptr);
  const std::string folder = mail.folder() + "/Mail/cur/";
  int there = 0;
  for (auto _ : state) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(database, statementFor(mail.ids()).c_str(), -1, &statement, nullptr);
    there = 0;
    while (sqlite3_step(statement) == SQLITE_ROW) {
      const std::string path =
          folder + reinterpret_cast<const char*>(sqlite3_column_text(statement, 2));
      if (::access(path.c_str(), F_OK) == 0) ++there;
    }
    sqlite3_finalize(statement);
  }
  sqlite3_close(database);
  if (there != static_cast<int>(kBatch)) state.SkipWithError("a message without a file");
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}
BENCHMARK(StatementAndAccessTests)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace thmp::benchmarks
