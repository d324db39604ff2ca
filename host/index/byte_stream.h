// SPDX-License-Identifier: Apache-2.0
//
// Numbers, arrays of them and texts as one run of bytes, and back, for files that are read only by
// the machine that wrote them. Reading is safe whatever the bytes are. Values; one thread at a
// time.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace thmp {

class ByteWriter {
 public:
  template <typename T>
  requires std::is_arithmetic_v<T>
  void put(T number) { bytes_.append(reinterpret_cast<const char*>(&number), sizeof number); }
  void put(std::string_view text) {
    put(std::uint64_t{text.size()});
    bytes_.append(text);
  }
  template <typename T>
  requires std::is_arithmetic_v<T>
  void put(const std::vector<T>& numbers) {
    put(std::string_view(reinterpret_cast<const char*>(numbers.data()),
                         numbers.size() * sizeof(T)));
  }

  const std::string& bytes() const& { return bytes_; }
  std::string bytes() && { return std::move(bytes_); }

 private:
  std::string bytes_;
};

class ByteReader {
 public:
  explicit ByteReader(std::string_view bytes) : bytes_(bytes) {}

  /// Whether all that was asked for was there.
  bool ok() const { return ok_; }
  bool atEnd() const { return bytes_.empty(); }

  template <typename T>
  requires std::is_arithmetic_v<T> T number() {
    T number{};
    const std::string_view from = take(sizeof number);
    if (!from.empty()) std::memcpy(&number, from.data(), sizeof number);
    return number;
  }
  /// Valid as long as the bytes.
  std::string_view text() { return take(number<std::uint64_t>()); }
  template <typename T>
  requires std::is_arithmetic_v<T>
  void get(std::vector<T>& numbers) {
    const std::string_view from = text();
    ok_ = ok_ && from.size() % sizeof(T) == 0;
    if (!ok_) return;
    numbers.resize(from.size() / sizeof(T));
    if (!from.empty()) std::memcpy(numbers.data(), from.data(), from.size());
  }

 private:
  std::string_view take(std::uint64_t size) {
    ok_ = ok_ && size <= bytes_.size();
    if (!ok_) return {};
    const std::string_view taken = bytes_.substr(0, size);
    bytes_.remove_prefix(size);
    return taken;
  }

  std::string_view bytes_;
  bool ok_ = true;
};

}  // namespace thmp
