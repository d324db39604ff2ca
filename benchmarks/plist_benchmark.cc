// SPDX-License-Identifier: Apache-2.0
//
// A batch of 1,500 items with all their attributes, written and read; beside them a loop that looks
// at each of the same bytes once, the least that touching them costs.
#include <benchmark/benchmark.h>

#include <string>

#include "base/plist.h"
#include "benchmarks/BenchmarkMail.h"

namespace thmp::benchmarks {
namespace {

std::string encoded() {
  return writeBinaryPropertyList(BenchmarkMail::shared().batch()).value_or("");
}

void tellSizes(benchmark::State& state, std::size_t bytes) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

void BatchWritten(benchmark::State& state) {
  const Value batch = BenchmarkMail::shared().batch();
  std::size_t bytes = 0;
  for (auto _ : state) {
    const auto written = writeBinaryPropertyList(batch);
    bytes = written->size();
    benchmark::DoNotOptimize(written);
  }
  const Array messages = batch["messages"].asArray().value_or(Array());
  const Dictionary attributes = messages[0]["attributes"].asDictionary().value_or(Dictionary());
  state.counters["attributes"] = static_cast<double>(attributes.size());
  tellSizes(state, bytes);
}
BENCHMARK(BatchWritten)->Unit(benchmark::kMillisecond);

void BatchRead(benchmark::State& state) {
  const std::string bytes = encoded();
  for (auto _ : state) benchmark::DoNotOptimize(readBinaryPropertyList(bytes, kBatchLimits));
  tellSizes(state, bytes.size());
}
BENCHMARK(BatchRead)->Unit(benchmark::kMillisecond);

void BytesOfTheBatchPassedOver(benchmark::State& state) {
  const std::string bytes = encoded();
  for (auto _ : state) {
    unsigned sum = 0;
    for (const char byte : bytes) {
      sum += static_cast<unsigned char>(byte);
      benchmark::DoNotOptimize(sum);  // one by one, as a reader has to
    }
  }
  tellSizes(state, bytes.size());
}
BENCHMARK(BytesOfTheBatchPassedOver)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace thmp::benchmarks
