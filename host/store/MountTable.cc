// SPDX-License-Identifier: Apache-2.0
#include "host/store/MountTable.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <string_view>

#include "host/store/MailFolders.h"

namespace thmp {

namespace {

std::string readWhole(int descriptor) {
  std::string text;
  std::array<char, 16384> buffer;
  ::lseek(descriptor, 0, SEEK_SET);
  for (;;) {
    const ssize_t got = ::read(descriptor, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return text;
    text.append(buffer.data(), static_cast<std::size_t>(got));
  }
}

bool isOctal(char digit) { return digit >= '0' && digit <= '7'; }

// White space and backslashes stand as \040 and the like.
std::string unescaped(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() && isOctal(text[i + 1]) && isOctal(text[i + 2]) &&
        isOctal(text[i + 3])) {
      plain.push_back(static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 +
                                        (text[i + 3] - '0')));
      i += 3;
    } else {
      plain.push_back(text[i]);
    }
  }
  return plain;
}

std::string_view word(std::string_view line, int number) {
  for (; number > 0; --number) line.remove_prefix(std::min(line.find(' ') + 1, line.size()));
  return line.substr(0, line.find(' '));
}

}  // namespace

MountTable::MountTable(std::vector<std::string> folders)
    : folders_(std::move(folders)),
      descriptor_(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)),
      mounts_(read()) {}

MountTable::~MountTable() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

std::set<std::string> MountTable::changes() {
  Mounts now = read();
  Mounts different;
  std::set_symmetric_difference(mounts_.begin(), mounts_.end(), now.begin(), now.end(),
                                std::inserter(different, different.end()));
  mounts_ = std::move(now);
  std::set<std::string> places;
  for (const auto& [number, place] : different) places.insert(place);
  return places;
}

MountTable::Mounts MountTable::read() const {
  Mounts mounts;
  if (descriptor_ < 0) return mounts;
  const std::string table = readWhole(descriptor_);
  for (std::size_t at = 0; at < table.size();) {
    const std::size_t end = std::min(table.find('\n', at), table.size());
    const std::string_view line = std::string_view(table).substr(at, end - at);
    at = end + 1;
    constexpr int kPlace = 4;
    std::string place = unescaped(word(line, kPlace));
    const bool bears =
        std::any_of(folders_.begin(), folders_.end(), [&](const std::string& folder) {
          return isAtOrBelow(folder, place) || isAtOrBelow(place, folder);
        });
    if (bears) mounts.emplace(word(line, 0), std::move(place));
  }
  return mounts;
}

}  // namespace thmp
