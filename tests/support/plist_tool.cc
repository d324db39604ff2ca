// SPDX-License-Identifier: Apache-2.0
//
// Reads property lists for a test in another language and writes them back in the binary encoding.
//
//   plist_tool --binary < in > out    one property list; exit status 1 with the error on stderr
//   plist_tool --frames < in > out    any number: four bytes of length (big-endian) and the bytes;
//                                     each answer has a "+" and the binary encoding, or a "-" and
//                                     the error's text, behind its length
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

#include "base/plist.h"

namespace thmp {
namespace {

std::optional<std::string> rewritten(std::string_view bytes, Error* error) {
  const std::optional<Value> value = readPropertyList(bytes, kMessageLimits, error);
  if (!value) return std::nullopt;
  return writeBinaryPropertyList(*value, error);
}

std::string everythingFromInput() {
  return std::string(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
}

int rewriteOne() {
  Error error;
  const std::optional<std::string> bytes = rewritten(everythingFromInput(), &error);
  if (!bytes) {
    std::cerr << error.text() << '\n';
    return 1;
  }
  std::cout << *bytes;
  return 0;
}

std::optional<std::string> readFrame() {
  unsigned char length[4];
  if (!std::cin.read(reinterpret_cast<char*>(length), 4)) return std::nullopt;
  std::string bytes(std::size_t{length[0]} << 24 | std::size_t{length[1]} << 16 |
                        std::size_t{length[2]} << 8 | std::size_t{length[3]},
                    '\0');
  if (!std::cin.read(bytes.data(), static_cast<std::streamsize>(bytes.size()))) return std::nullopt;
  return bytes;
}

void writeFrame(char mark, std::string_view bytes) {
  const std::size_t length = bytes.size() + 1;
  for (const int shift : {24, 16, 8, 0}) std::cout.put(static_cast<char>(length >> shift & 0xFF));
  std::cout.put(mark);
  std::cout << bytes;
}

int rewriteFrames() {
  while (const std::optional<std::string> frame = readFrame()) {
    Error error;
    const std::optional<std::string> bytes = rewritten(*frame, &error);
    writeFrame(bytes ? '+' : '-', bytes ? *bytes : error.text());
  }
  return 0;
}

}  // namespace
}  // namespace thmp

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  const std::string_view mode = argc == 2 ? argv[1] : "";
  if (mode == "--binary") return thmp::rewriteOne();
  if (mode == "--frames") return thmp::rewriteFrames();
  std::cerr << "usage: plist_tool --binary | --frames\n";
  return 2;
}
