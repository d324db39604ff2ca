// SPDX-License-Identifier: Apache-2.0
#include "host/store/MessageParser.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>

#include "base/plist.h"
#include "host/store/gmime_use.h"
#include "host/store/header_text.h"
#include "host/store/message_attributes.h"
#include "host/store/message_body.h"
#include "host/store/mime_limits.h"
#include "platform/linux/Descriptor.h"

namespace thmp {

namespace {

struct EmlxParts {
  std::string_view message;
  EmlxTrailer trailer;
};

// A line with a byte count, that many bytes of message, then a property list. Where the count is
// not to be believed, everything is message.
EmlxParts splitEmlx(std::string_view bytes, std::vector<std::string>& reasons) {
  const std::size_t newline = bytes.find('\n');
  std::size_t count = 0;
  const std::string line = collapseWhiteSpace(bytes.substr(0, std::min<std::size_t>(newline, 64)));
  const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), count);
  if (newline == std::string_view::npos || error != std::errc() ||
      end != line.data() + line.size()) {
    reasons.emplace_back("its first line is no byte count");
    return {bytes, {}};
  }
  const std::string_view rest = bytes.substr(newline + 1);
  if (count > rest.size()) {
    reasons.emplace_back("shorter than its first line says");
    return {rest, {}};
  }
  EmlxParts parts{rest.substr(0, count), {}};
  const auto list = readPropertyList(rest.substr(count), kMessageLimits);
  if (!list) return parts;
  const auto seconds = [&](std::string_view key) -> std::optional<std::int64_t> {
    const auto number = (*list)[key].numberValue();
    if (!number || !(*number > -1e14 && *number < 1e14)) return std::nullopt;
    const auto whole = static_cast<std::int64_t>(*number);
    return isDateInRange(whole) ? std::optional(whole) : std::nullopt;
  };
  parts.trailer.received = seconds("date-received");
  parts.trailer.lastViewed = seconds("date-last-viewed");
  if (parts.trailer.lastViewed.value_or(0) <= 0) parts.trailer.lastViewed.reset();
  parts.trailer.flags = (*list)["flags"].asUnsigned();
  return parts;
}

ParsedMessage parseMessage(std::string_view bytes, const MessagePlace& place,
                           const ParseLimits& limits) {
  ParsedMessage parsed;
  if (bytes.size() > limits.fileBytes) bytes = bytes.substr(0, limits.fileBytes);
  if (place.facts.size > static_cast<std::int64_t>(limits.fileBytes)) {
    parsed.incomplete.push_back(fmt::format("longer than {} bytes", limits.fileBytes));
  }
  EmlxTrailer trailer;
  if (place.format == MessageFormat::kEmlx) {
    const EmlxParts parts = splitEmlx(bytes, parsed.incomplete);
    bytes = parts.message;
    trailer = parts.trailer;
  }
  LimitedMessage limited = limitMessage(bytes, limits);
  for (std::string& reason : limited.reasons) parsed.incomplete.push_back(std::move(reason));

  const GMimeUse use;
  const std::vector<RawHeader> headers = splitHeaders(limited.headers);
  if (headers.empty()) parsed.incomplete.emplace_back("no header field");
  MessageBody body = readBody(limited.mime, limits, parsed.incomplete);
  AttributeSet attributes;
  AttributeSet queryOnly;
  setMessageAttributes(headers, place, trailer, body.attachments, attributes, queryOnly);
  parsed.attributes = attributes.take();
  parsed.queryOnly = queryOnly.take();
  parsed.textContent = std::move(body.text);
  return parsed;
}

bool fileFacts(int fd, FileFacts& facts) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) return false;
  if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
    return false;
  }
  facts.size = status.st_size;
  facts.blocks = status.st_blocks;
  facts.inode = status.st_ino;
  facts.device = status.st_dev;
  facts.owner = status.st_uid;
  facts.group = status.st_gid;
  facts.modifiedSeconds = status.st_mtim.tv_sec;
  facts.modifiedNanoseconds = status.st_mtim.tv_nsec;
  facts.createdSeconds = facts.modifiedSeconds;
  struct statx extended {};
  if (::statx(fd, "", AT_EMPTY_PATH, STATX_BTIME, &extended) == 0 &&
      (extended.stx_mask & STATX_BTIME) != 0) {
    facts.createdSeconds = extended.stx_btime.tv_sec;
  }
  return true;
}

}  // namespace

ParsedMessage MessageParser::parse(std::string_view bytes,
                                   const MessagePlace& place) const noexcept {
  return parseMessage(bytes, place, limits_);
}

void renameMessage(const MessagePlace& place, Dictionary& attributes, Dictionary& queryOnly) {
  AttributeSet named;
  AttributeSet mailboxes;
  setPlaceAttributes(place, maildirFlags(place.fileName, place.isNew), named, mailboxes);
  for (const Dictionary::Entry& entry : named.take()) attributes.set(entry.key, entry.value);
  for (const Dictionary::Entry& entry : mailboxes.take()) queryOnly.set(entry.key, entry.value);
}

Result<MessageBytes> readMessageFile(const std::string& path, std::size_t maxBytes) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  MessageBytes message;
  if (!file) return Error::posix(errno, "cannot open " + path);
  if (!fileFacts(file.get(), message.facts)) return Error::posix(errno, "cannot read " + path);
  const auto size = static_cast<std::size_t>(std::max<std::int64_t>(0, message.facts.size));
  message.bytes.resize(std::min(maxBytes, size));
  std::size_t have = 0;
  while (have < message.bytes.size()) {
    const ssize_t got = ::pread(file.get(), message.bytes.data() + have,
                                message.bytes.size() - have, static_cast<off_t>(have));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return Error::posix(errno, "cannot read " + path);
    if (got == 0) break;
    have += static_cast<std::size_t>(got);
  }
  message.bytes.resize(have);
  return message;
}

}  // namespace thmp
