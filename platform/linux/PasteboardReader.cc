// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/PasteboardReader.h"

#include <fcntl.h>

#include "platform/linux/posix_io.h"

namespace thmp {

std::optional<std::string> PasteboardReader::readBytes(const std::string& name,
                                                       const std::string& type,
                                                       std::size_t maxBytes, Error* error) const {
  const auto failed = [&] {
    failWithErrno(error, "cannot read the pasteboard " + name);
    return std::nullopt;
  };
  const auto fileName = PasteboardFolder::fileName(type);
  // The name comes out of a message: it must not lead elsewhere.
  if (!isEntryName(name) || !fileName) {
    errno = EINVAL;
    return failed();
  }
  const Descriptor pasteboards = folder_.openPasteboards(/*create=*/false);
  if (!pasteboards) return failed();
  const Descriptor pasteboard = openOwnFolder(pasteboards.get(), name, /*create=*/false);
  if (!pasteboard) return failed();
  const Descriptor file = openAt(pasteboard.get(), *fileName, O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
  if (!file) return failed();
  auto bytes = readRegularFile(file.get(), maxBytes);
  if (!bytes) return failed();
  return bytes;
}

std::optional<Value> PasteboardReader::read(const std::string& name, const std::string& type,
                                            const PropertyListLimits& limits, Error* error) const {
  const auto bytes = readBytes(name, type, limits.maxBytes, error);
  if (!bytes) return std::nullopt;
  return readBinaryPropertyList(*bytes, limits, error);
}

}  // namespace thmp
