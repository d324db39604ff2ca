// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/PasteboardFolder.h"

#include <fcntl.h>

#include "platform/linux/posix_io.h"

namespace thmp {

Descriptor PasteboardFolder::open(const char* name, bool create) const {
  if (create && !createFolders(cacheHome_)) return Descriptor();
  const Descriptor cache = openAt(AT_FDCWD, cacheHome_, O_PATH | O_DIRECTORY);
  if (!cache) return Descriptor();
  const Descriptor ours = openOwnFolder(cache.get(), "tallyhive", create);
  if (!ours) return Descriptor();
  return openOwnFolder(ours.get(), name, create);
}

std::optional<std::string> PasteboardFolder::fileName(std::string_view type) {
  static constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string name;
  for (const char byte : type) {
    const bool plain = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                       (byte >= '0' && byte <= '9') || byte == '.' || byte == '_' || byte == '-' ||
                       byte == '~';
    if (plain) {
      name += byte;
    } else {
      const auto value = static_cast<unsigned char>(byte);
      name += '%';
      name += kDigits[value >> 4];
      name += kDigits[value & 15];
    }
  }
  if (!isEntryName(name)) return std::nullopt;
  return name;
}

}  // namespace thmp
