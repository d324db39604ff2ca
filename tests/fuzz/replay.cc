// SPDX-License-Identifier: Apache-2.0
//
// Runs a target over files, once each, without libFuzzer: every seed and every find in every build.
//
//   fuzz_TARGET_replay [--swollen] FILE|FOLDER...    exit status 1 when there is no file at all
//
// Swollen, each file's middle is repeated until the whole has 1 MiB: what costs more than its share
// shows then. Without a sanitizer the process's memory tells what the inputs take.
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
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

}  // namespace

int main(int count, char** words) {
  std::vector<std::string> arguments(words + 1, words + count);
  const bool swell = !arguments.empty() && arguments.front() == "--swollen";
  if (swell) arguments.erase(arguments.begin());
  const std::vector<std::filesystem::path> files = filesOf(arguments);
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
