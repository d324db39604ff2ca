// SPDX-License-Identifier: Apache-2.0
//
// Queries by the columns beside the evaluator that looks at each message; records; words of texts.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "benchmarks/BenchmarkMail.h"
#include "host/index/ValuePool.h"
#include "host/index/message_record.h"
#include "host/index/message_view.h"
#include "host/index/words.h"
#include "host/query/evaluator.h"
#include "host/query/parser.h"

namespace thmp::benchmarks {
namespace {

// By what a query is answered: an address, a range of numbers, a part of the subject, a word of the
// text.
const std::vector<std::string> kQueries{
    R"(kMDItemAuthorEmailAddresses == "person7@example.com"c)",
    R"(InRange(kMDItemFSSize, 700, 720) && com_apple_mail_read == 1)",
    R"(kMDItemSubject == "*window12*"cd)",
    R"(kMDItemTextContent == "ticket4711"cdw)",
};

std::optional<query::Query> queryOf(benchmark::State& state) {
  const std::string& text = kQueries[static_cast<std::size_t>(state.range(0))];
  state.SetLabel(text);
  auto query = query::parse(text, {});
  if (!query) state.SkipWithError("no query");
  return query;
}

void QueryPlanned(benchmark::State& state) {
  const auto query = queryOf(state);
  if (!query) return;
  const Index& index = BenchmarkMail::shared().index();
  std::size_t found = 0;
  for (auto _ : state) {
    found = 0;
    const auto walked =
        index.forEachMatch(*query, [&](const IndexedMessage&) { return ++found > 0; });
    if (!walked) state.SkipWithError("the index cannot be read");
  }
  state.counters["found"] = static_cast<double>(found);
}
BENCHMARK(QueryPlanned)->DenseRange(0, 3)->Unit(benchmark::kMicrosecond);

// Without the text, which would be read from the mail each time.
void QueryByEvaluator(benchmark::State& state) {
  const auto query = queryOf(state);
  if (!query) return;
  const Index& index = BenchmarkMail::shared().index();
  std::size_t found = 0;
  for (auto _ : state) {
    found = 0;
    const auto walked = index.forEachDescending([&](const IndexedMessage& message) {
      if (query::matches(*query, IndexedMessageView(message))) ++found;
      return true;
    });
    if (!walked) state.SkipWithError("the index cannot be read");
  }
  state.counters["found"] = static_cast<double>(found);
}
BENCHMARK(QueryByEvaluator)->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);

void RecordsDecoded(benchmark::State& state) {
  ValuePool pool(ValuePool::Use::kWriting);
  std::vector<std::string> records;
  const std::vector<FoundItem> items = BenchmarkMail::shared().items();
  // The pool takes a value in when it is seen a fourth time.
  for (int time = 0; time < 4; ++time) {
    records.clear();
    for (const FoundItem& item : items) records.push_back(encodeRecord(item.attributes, {}, pool));
  }
  for (auto _ : state) {
    for (const std::string& record : records) {
      forEachInRecord(record, pool, [](AttributeKey, const Value& value) {
        benchmark::DoNotOptimize(value);
        return true;
      });
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(records.size()));
}
BENCHMARK(RecordsDecoded)->Unit(benchmark::kMillisecond);

void WordsOfAText(benchmark::State& state) {
  const std::string& text = BenchmarkMail::text();
  query::FoldedText scratch;
  std::string stream;
  for (auto _ : state) {
    stream.clear();
    appendWords(text, scratch, stream);
    benchmark::DoNotOptimize(stream);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(WordsOfAText)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace thmp::benchmarks
