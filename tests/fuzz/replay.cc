// SPDX-License-Identifier: Apache-2.0
//
// Runs a target over files, once each, without libFuzzer: every seed and every find in every build.
//
//   fuzz_TARGET_replay [--swollen] [--parse] FILE|FOLDER...    exit status 1 when there is no file
//   at all
//
// Swollen, each file's middle is repeated until the whole has 1 MiB: what costs more than its share
// shows then. Without a sanitizer the process's memory tells what the inputs take. With --parse no
// property is looked at: each file is parsed once in a process of its own, and exit status 1 says
// that one took more than kParseSeconds of processor time or kParseBytes.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/fuzz/fuzzing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

constexpr std::size_t kSwollenSize = std::size_t{1} << 20;

std::vector<std::filesystem::path> filesOf(const std::vector<std::string>& arguments) {
  std::vector<std::filesystem::path> files;
  for (const std::string& argument : arguments) {
    if (!std::filesystem::is_directory(argument)) {
      files.emplace_back(argument);
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(argument)) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::string bytesOf(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), {});
}

std::string swollen(const std::string& bytes) {
  const std::size_t third = bytes.size() / 3;
  const std::string middle = bytes.substr(third, bytes.size() - 2 * third);
  if (middle.empty()) return bytes;
  std::string result = bytes.substr(0, third);
  while (result.size() + middle.size() + third <= kSwollenSize) result += middle;
  return result + bytes.substr(bytes.size() - third);
}

/// The most memory that the process has held, in KiB.
long peakMemory() {
  struct rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

double processorSeconds() {
  struct timespec time = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// How many times as long as usual this machine takes just now: some of those that run tests change
/// their speed by half within minutes. Told by work that is always the same; never less than 1.
double slowness() {
  constexpr double kUsualSeconds = 0.015;
  std::vector<std::uint32_t> numbers(200'000);
  std::uint32_t next = 1;
  for (std::uint32_t& number : numbers) number = next = next * 1'664'525 + 1'013'904'223;
  const double start = processorSeconds();
  std::sort(numbers.begin(), numbers.end());
  return std::max(1.0, (processorSeconds() - start) / kUsualSeconds);
}

/// In a process that does nothing else: parses and says what that took. The first parse tells the
/// memory. Others on the machine lengthen processor time, too, so a parse that took too long is
/// tried again.
bool isParsedWithin(const std::string& bytes) {
  const long before = peakMemory();
  double least = 1e9;
  long memory = 0;
  for (int round = 0; round < 25 && least > thmp::fuzz::kParseSeconds; ++round) {
    const double start = processorSeconds();
    thmp::fuzz::kBounds.parse(bytes);
    const double seconds = processorSeconds() - start;
    if (round == 0) memory = peakMemory() - before;
    least = std::min(least, seconds > thmp::fuzz::kParseSeconds ? seconds / slowness() : seconds);
  }
  std::printf("  %.4f s, %ld KiB\n", least, memory);
  return least <= thmp::fuzz::kParseSeconds &&
         memory <= static_cast<long>(thmp::fuzz::kParseBytes >> 10);
}

bool parseAlone(const std::string& bytes) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) std::exit(isParsedWithin(bytes) ? 0 : 1);
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

/// How many took too much.
int parseAll(const std::vector<std::filesystem::path>& files, bool swell) {
  int broken = 0;
  for (const auto& file : files) {
    std::printf("%s\n", file.c_str());
    const std::string bytes = swell ? swollen(bytesOf(file)) : bytesOf(file);
    if (parseAlone(bytes)) continue;
    std::printf("  which is too much\n");
    ++broken;
  }
  std::printf("%zu inputs parsed, %d beyond the bounds\n", files.size(), broken);
  return broken;
}

}  // namespace

int main(int count, char** words) {
  std::vector<std::string> arguments(words + 1, words + count);
  const bool swell = std::erase(arguments, "--swollen") > 0;
  const bool parse = std::erase(arguments, "--parse") > 0;
  const std::vector<std::filesystem::path> files = filesOf(arguments);
  if (parse) return files.empty() || parseAll(files, swell) > 0 ? 1 : 0;
  const long memoryBefore = peakMemory();
  std::string slowest = "none";
  double seconds = 0;
  for (const auto& file : files) {
    // Before the run, so that a crash is seen beside its file.
    std::printf("%s\n", file.c_str());
    std::fflush(stdout);
    const std::string bytes = swell ? swollen(bytesOf(file)) : bytesOf(file);
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    const thmp::fuzz::Cost cost = thmp::fuzz::costSoFar();
    if (cost.worstSeconds > seconds) {
      seconds = cost.worstSeconds;
      slowest = file.filename().string();
    }
  }
  const thmp::fuzz::Cost cost = thmp::fuzz::costSoFar();
  std::printf("%zu inputs; slowest %.4f s (%s); most memory of one %zu bytes, of all %ld KiB\n",
              files.size(), seconds, slowest.c_str(), cost.worstBytes, peakMemory() - memoryBefore);
  return files.empty() ? 1 : 0;
}
