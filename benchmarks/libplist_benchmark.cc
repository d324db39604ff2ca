// SPDX-License-Identifier: Apache-2.0
//
// The batch of plist_benchmark.cc, written and read by libplist; built where that is installed.
#include <benchmark/benchmark.h>
#include <plist/plist.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/plist.h"
#include "benchmarks/BenchmarkMail.h"

namespace thmp::benchmarks {
namespace {

plist_t readByLibplist(const std::string& bytes) {
  plist_t root = nullptr;
  plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
  if (root == nullptr) {
    std::fprintf(stderr, "libplist reads no batch\n");
    std::exit(1);
  }
  return root;
}

std::string encodedBatch() {
  return writeBinaryPropertyList(BenchmarkMail::shared().batch()).value_or("");
}

void BatchReadByLibplist(benchmark::State& state) {
  const std::string bytes = encodedBatch();
  for (auto _ : state) plist_free(readByLibplist(bytes));
}
BENCHMARK(BatchReadByLibplist)->Unit(benchmark::kMillisecond);

void BatchWrittenByLibplist(benchmark::State& state) {
  const plist_t root = readByLibplist(encodedBatch());
  for (auto _ : state) {
    char* bytes = nullptr;
    std::uint32_t size = 0;
    plist_to_bin(root, &bytes, &size);
    benchmark::DoNotOptimize(bytes);
    plist_to_bin_free(bytes);
  }
  plist_free(root);
}
BENCHMARK(BatchWrittenByLibplist)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace thmp::benchmarks
