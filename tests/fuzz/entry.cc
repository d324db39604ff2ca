// SPDX-License-Identifier: Apache-2.0
//
// Where libFuzzer and the replay enter a target, and where the bounds are held: an input of up to 1
// MiB takes neither more processor time nor more memory than its target allows. Processor time, so
// that a busy machine breaks nothing. Memory is counted by AddressSanitizer's hooks, from all
// threads.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "tests/fuzz/fuzzing.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define THMP_FUZZ_COUNTS_MEMORY
#elif __has_feature(thread_sanitizer)
#define THMP_FUZZ_SLOW
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define THMP_FUZZ_COUNTS_MEMORY
#endif

#ifdef THMP_FUZZ_COUNTS_MEMORY
#define THMP_FUZZ_SLOW
// As <sanitizer/allocator_interface.h> has them, which clang brings and g++ does not.
extern "C" int __sanitizer_install_malloc_and_free_hooks(
    void (*allocated)(const volatile void* block, std::size_t size),
    void (*freed)(const volatile void* block));
extern "C" std::size_t __sanitizer_get_allocated_size(const volatile void* block);
#endif

namespace thmp::fuzz {
namespace {

constexpr std::size_t kBoundedSize = kMiB;
#ifdef THMP_FUZZ_SLOW
constexpr double kSlowness = 20;
#else
constexpr double kSlowness = 1;
#endif

Cost worst;
std::atomic<std::int64_t> liveBytes = 0;
std::atomic<std::int64_t> peakBytes = 0;

#ifdef THMP_FUZZ_COUNTS_MEMORY
void allocated(const volatile void* /*block*/, std::size_t size) {
  const auto added = static_cast<std::int64_t>(size);
  const std::int64_t live = liveBytes.fetch_add(added, std::memory_order_relaxed) + added;
  std::int64_t peak = peakBytes.load(std::memory_order_relaxed);
  while (live > peak && !peakBytes.compare_exchange_weak(peak, live, std::memory_order_relaxed)) {
  }
}

void freed(const volatile void* block) {
  if (block == nullptr) return;
  const std::size_t size = __sanitizer_get_allocated_size(block);
  liveBytes.fetch_sub(static_cast<std::int64_t>(size), std::memory_order_relaxed);
}
#endif

void countMemory() {
#ifdef THMP_FUZZ_COUNTS_MEMORY
  static const int installed = __sanitizer_install_malloc_and_free_hooks(&allocated, &freed);
  static_cast<void>(installed);
#endif
}

double processorSeconds() {
  struct timespec time = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

}  // namespace

void reportBroken(const char* property, const char* file, int line) {
  std::fprintf(stderr, "%s:%d: broken: %s\n", file, line, property);
  std::abort();
}

Cost costSoFar() { return worst; }

namespace {

void runBounded(std::string_view bytes) {
  countMemory();
  const std::int64_t before = liveBytes.load();
  peakBytes.store(before);
  const double start = processorSeconds();
  runInput(bytes);
  const double seconds = processorSeconds() - start;
  const std::int64_t used = peakBytes.load() - before;
  if (seconds > worst.worstSeconds) worst.worstSeconds = seconds;
  if (used > static_cast<std::int64_t>(worst.worstBytes)) {
    worst.worstBytes = static_cast<std::size_t>(used);
  }
  if (bytes.size() > kBoundedSize) return;
  const bool isQuick = seconds <= kBounds.seconds * kSlowness;
  const bool isSmall = used <= static_cast<std::int64_t>(kBounds.bytes);
  if (!isQuick) std::fprintf(stderr, "%.3f s for %zu bytes\n", seconds, bytes.size());
  if (!isSmall) std::fprintf(stderr, "%lld bytes of memory\n", static_cast<long long>(used));
  THMP_FUZZ_CHECK(isQuick);
  THMP_FUZZ_CHECK(isSmall);
}

}  // namespace
}  // namespace thmp::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  thmp::fuzz::runBounded(std::string_view(reinterpret_cast<const char*>(data), size));
  return 0;
}
