// SPDX-License-Identifier: Apache-2.0
#include "host/index/columns_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <string_view>
#include <utility>

#include "host/index/byte_stream.h"
#include "host/index/message_record.h"
#include "platform/linux/posix_io.h"

namespace thmp {

namespace {

// Changes whenever the columns, their order or their form do.
constexpr std::uint64_t kForm = 0x54484D50'434F4C02;
constexpr std::size_t kChecksumSize = sizeof(std::uint64_t);
// Ten million messages. What is larger is none of ours.
constexpr std::size_t kMaxSize = std::size_t{4} << 30;

}  // namespace

std::string columnsPath(const std::string& indexPath) { return indexPath + "-columns"; }

std::string columnsFileBody(std::int64_t token, const Columns& columns,
                            std::size_t settledIrregular) {
  ByteWriter body;
  body.put(kForm);
  body.put(token);
  body.put(std::uint64_t{settledIrregular});
  columns.write(body);
  return std::move(body).bytes();
}

// In place, without a second file that a kill could leave behind: what is half written fails its
// checksum, and what is whole has a token that no index has until it is committed.
bool writeColumnsFile(const std::string& path, std::string_view body) {
  ByteWriter checksum;
  checksum.put(fingerprint(body));
  Descriptor file =
      openAt(AT_FDCWD, path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, kPrivateFileMode);
  if (!file) return false;
  if (writeAll(file.get(), checksum.bytes()) && writeAll(file.get(), body)) return true;
  ::unlink(path.c_str());
  return false;
}

bool isColumnsFile(const std::string& path, std::int64_t token) {
  std::array<char, kChecksumSize + sizeof kForm + sizeof token> start{};
  const Descriptor file = openAt(AT_FDCWD, path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  if (!file || ::pread(file.get(), start.data(), start.size(), 0) != std::ssize(start)) {
    return false;
  }
  ByteReader reader({start.data(), start.size()});
  reader.number<std::uint64_t>();
  return reader.number<std::uint64_t>() == kForm && reader.number<std::int64_t>() == token;
}

std::optional<KeptColumns> readColumnsFile(const std::string& path, std::int64_t token) {
  const Descriptor file = openAt(AT_FDCWD, path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  if (!file) return std::nullopt;
  const std::optional<std::string> bytes = readRegularFile(file.get(), kMaxSize);
  if (!bytes || bytes->size() <= kChecksumSize) return std::nullopt;
  const auto body = std::string_view(*bytes).substr(kChecksumSize);
  if (ByteReader(*bytes).number<std::uint64_t>() != fingerprint(body)) return std::nullopt;
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
