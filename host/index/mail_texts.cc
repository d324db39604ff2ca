// SPDX-License-Identifier: Apache-2.0
#include "host/index/mail_texts.h"

#include <filesystem>
#include <optional>
#include <string>

#include "host/store/MessageParser.h"

namespace thmp {

namespace {

// As the library would say, from the path alone.
MessageFormat formatOf(const std::string& path) {
  const std::filesystem::path file(path);
  const std::string folder = file.parent_path().filename().string();
  if (folder == "cur" || folder == "new") return MessageFormat::kMaildir;
  return file.extension() == ".emlx" ? MessageFormat::kEmlx : MessageFormat::kEml;
}

std::optional<MessageBytes> readAt(const std::string& path, const ParseLimits& limits) {
  if (path.empty()) return std::nullopt;
  auto file = readMessageFile(path, limits.fileBytes);
  return file ? std::optional(std::move(*file)) : std::nullopt;
}

}  // namespace

Index::TextSource mailTexts(const Library& library) {
  return [&library](std::int64_t id, std::int64_t mailbox) -> std::string {
    const MessageParser parser;
    std::string path;
    std::optional<MessageBytes> file;
    for (const int type : {0, 1}) {
      if (file) break;
      path = library.dataPath(id, mailbox, type);
      file = readAt(path, parser.limits());
    }
    if (!file) {
      path = library.pathOfMessage(id).value_or("");
      file = readAt(path, parser.limits());
    }
    if (!file) return {};
    MessagePlace place;
    place.format = formatOf(path);
    place.fileName = std::filesystem::path(path).filename().string();
    return std::move(parser.parse(file->bytes, place).textContent);
  };
}

}  // namespace thmp
