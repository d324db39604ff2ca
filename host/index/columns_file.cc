// SPDX-License-Identifier: Apache-2.0
#include "host/index/columns_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "host/index/byte_stream.h"
#include "host/index/message_record.h"

namespace thmp {

namespace {

// Changes whenever the columns, their order or their form do.
constexpr std::uint64_t kForm = 0x54484D50'434F4C01;
constexpr std::size_t kChecksumSize = sizeof(std::uint64_t);

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

std::string readUpTo(std::size_t most, const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  struct stat status {};
  std::string bytes;
  if (fd >= 0 && ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
    bytes.resize(std::min(most, static_cast<std::size_t>(status.st_size)));
    std::size_t have = 0;
    while (have < bytes.size()) {
      const ssize_t got = ::read(fd, bytes.data() + have, bytes.size() - have);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      have += static_cast<std::size_t>(got);
    }
    bytes.resize(have);
  }
  if (fd >= 0) ::close(fd);
  return bytes;
}

}  // namespace

std::string columnsPath(const std::string& indexPath) { return indexPath + "-columns"; }

// In place, without a second file that a kill could leave behind: what is half written fails its
// checksum, and what is whole has a token that no index has until it is committed.
bool writeColumnsFile(const std::string& path, std::int64_t token, const Columns& columns,
                      std::size_t settledIrregular) {
  ByteWriter body;
  body.put(kForm);
  body.put(token);
  body.put(std::uint64_t{settledIrregular});
  columns.write(body);
  ByteWriter checksum;
  checksum.put(fingerprint(body.bytes()));
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return false;
  bool written = writeAll(fd, checksum.bytes()) && writeAll(fd, body.bytes());
  written = ::close(fd) == 0 && written;
  if (!written) ::unlink(path.c_str());
  return written;
}

bool isColumnsFile(const std::string& path, std::int64_t token) {
  const std::string start = readUpTo(kChecksumSize + sizeof kForm + sizeof token, path);
  ByteReader reader(start);
  reader.number<std::uint64_t>();
  return reader.number<std::uint64_t>() == kForm && reader.number<std::int64_t>() == token;
}

std::optional<KeptColumns> readColumnsFile(const std::string& path, std::int64_t token) {
  const std::string bytes = readUpTo(SIZE_MAX, path);
  if (bytes.size() <= kChecksumSize) return std::nullopt;
  const auto body = std::string_view(bytes).substr(kChecksumSize);
  if (ByteReader(bytes).number<std::uint64_t>() != fingerprint(body)) return std::nullopt;
  ByteReader reader(body);
  if (reader.number<std::uint64_t>() != kForm || reader.number<std::int64_t>() != token) {
    return std::nullopt;
  }
  KeptColumns kept;
  kept.settledIrregular = reader.number<std::uint64_t>();
  kept.columns = Columns::read(reader);
  if (!kept.columns || !reader.atEnd()) return std::nullopt;
  return kept;
}

}  // namespace thmp
