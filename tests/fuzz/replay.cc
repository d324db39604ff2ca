// SPDX-License-Identifier: Apache-2.0
//
// Runs a target over files, once each, without libFuzzer: every seed and every find in every build.
//
//   fuzz_TARGET_replay FILE|FOLDER...    exit status 1 when there is no file at all
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

std::vector<std::filesystem::path> filesOf(int count, char** arguments) {
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < count; ++i) {
    if (!std::filesystem::is_directory(arguments[i])) {
      files.emplace_back(arguments[i]);
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(arguments[i])) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int count, char** arguments) {
  const std::vector<std::filesystem::path> files = filesOf(count, arguments);
  std::string slowest = "none";
  double seconds = 0;
  for (const auto& file : files) {
    // Before the run, so that a crash is seen beside its file.
    std::printf("%s\n", file.c_str());
    std::fflush(stdout);
    std::ifstream stream(file, std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(stream), {});
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    const thmp::fuzz::Cost cost = thmp::fuzz::costSoFar();
    if (cost.worstSeconds > seconds) {
      seconds = cost.worstSeconds;
      slowest = file.filename().string();
    }
  }
  const thmp::fuzz::Cost cost = thmp::fuzz::costSoFar();
  std::printf("%zu inputs; slowest %.4f s (%s); most memory %zu bytes\n", files.size(), seconds,
              slowest.c_str(), cost.worstBytes);
  return files.empty() ? 1 : 0;
}
